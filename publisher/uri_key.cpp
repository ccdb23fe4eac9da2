#include "publisher/uri_key.h"

#include "publisher/key_engine.h"
#include "publisher/key_store.h"
#include "publisher/refusal.h"

namespace {

pkey_ptr find_key(const KeyUri& uri, KeyHalf half) {
    if (has_key_store(uri.scheme))
        return read_key_from_store(uri, half, uri.pin.get());
    if (uri.scheme == "pkcs11")
        return read_key_from_engine(uri, half, uri.pin);
    throw Refusal("nothing here reads keys at " + uri.scheme + ": URIs; a file of that name is ./" +
                  uri.location);
}

} // namespace

pkey_ptr read_key(const KeyUri& uri, KeyHalf half) {
    check_object_type(uri, half);
    pkey_ptr key = find_key(uri, half);
    check_key_kind(uri.location, key.get());
    return key;
}
