// The server's check takes keys in the form that OpenSSL 3 only still carries.
#define OPENSSL_SUPPRESS_DEPRECATED

#include "publisher/checking_key.h"

#include "files/sja_verify.h"
#include "publisher/openssl_error.h"
#include "publisher/refusal.h"
#include "publisher/rsa_key.h"
#include "publisher/uri_key.h"

#include <openssl/crypto.h>
#include <openssl/x509.h>

namespace {

using numbers_ptr = std::unique_ptr<RSA, release_checking_key>;

struct release_bytes {
    void operator()(unsigned char* bytes) const { OPENSSL_free(bytes); }
};

numbers_ptr key_from_file(const std::string& path) {
    check_public_key(path);
    numbers_ptr key(get_pubkey(path.c_str()));
    if (!key)
        throw Refusal("a master server cannot read " + path + ": it is no file of up to 65535 bytes");
    return key;
}

// Only the numbers: whatever the key comes from, the check is made here.
numbers_ptr key_of(EVP_PKEY* key) {
    unsigned char* bytes = nullptr;
    const int length = i2d_PUBKEY(key, &bytes);
    check_openssl(length > 0);
    const std::unique_ptr<unsigned char, release_bytes> owner(bytes);
    const unsigned char* place = bytes;
    numbers_ptr numbers(d2i_RSA_PUBKEY(nullptr, &place, length));
    check_openssl(numbers != nullptr);
    return numbers;
}

} // namespace

void release_checking_key::operator()(RSA* key) const {
    free_pubkey(key);
}

CheckingKey read_checking_key(const std::string& name) {
    if (!is_key_uri(name))
        return {name, key_from_file(name)};
    const KeyUri uri = parse_key_uri(name);
    return {uri.location, key_of(read_key(uri, KeyHalf::PUBLIC).get())};
}
