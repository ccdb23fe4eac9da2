#include "publisher/uri_key.h"

#include "publisher/key_engine.h"
#include "publisher/key_store.h"
#include "publisher/refusal.h"

namespace {

pkey_ptr find_key(const KeyUri& uri, KeyHalf half, const std::shared_ptr<const Passphrase>& passphrase) {
    if (has_key_store(uri.scheme))
        return read_key_from_store(uri, half, passphrase.get());
    if (uri.scheme == "pkcs11")
        return read_key_from_engine(uri, half, passphrase);
    throw Refusal("nothing here reads keys at " + uri.scheme + ": URIs; a file of that name is ./" +
                  uri.location);
}

} // namespace

pkey_ptr read_key(const KeyUri& uri, KeyHalf half, std::shared_ptr<const Passphrase> passphrase) {
    if (uri.names_pin_file())
        passphrase = passphrase_from_file(uri.file);
    check_object_type(uri, half);
    pkey_ptr key = find_key(uri, half, passphrase);
    check_key_kind(uri.location, key.get());
    return key;
}
