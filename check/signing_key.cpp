#include "check/signing_key.h"

#include "platform/regular_file.h"

#include <cstring>
#include <memory>

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

namespace {

constexpr std::size_t MAX_KEY_FILE = 0xFFFF;
constexpr int KEY_BITS = 4096;

std::string fingerprint_of(EVP_PKEY* key) {
    unsigned char* der = nullptr;
    const int length = i2d_PUBKEY(key, &der);
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned size = 0;
    if (length > 0)
        EVP_Digest(der, static_cast<std::size_t>(length), digest, &size, EVP_sha256(), nullptr);
    OPENSSL_free(der);
    std::string text;
    for (unsigned i = 0; i < size; ++i)
        (text += "0123456789abcdef"[digest[i] >> 4U]) += "0123456789abcdef"[digest[i] & 0xfU];
    return text;
}

} // namespace

SigningKey read_signing_key() {
    std::string pem;
    if (const int error = read_regular_file(SIGNING_KEY_FILE, MAX_KEY_FILE, pem); error != 0)
        return {std::strerror(error), {}};
    const std::unique_ptr<BIO, decltype(&BIO_free)> bio(
        BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())), BIO_free);
    // Without a passphrase of ours, OpenSSL would ask for one.
    const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(
        PEM_read_bio_PUBKEY(bio.get(), nullptr, nullptr, const_cast<char*>("")), EVP_PKEY_free);
    if (!key) {
        ERR_clear_error(); // the decoders' last word, "unsupported", explains nothing
        return {"no public key in PEM", {}};
    }
    if (EVP_PKEY_is_a(key.get(), "RSA") == 0 || EVP_PKEY_get_bits(key.get()) != KEY_BITS)
        return {std::string(EVP_PKEY_get0_type_name(key.get())) + " " +
                    std::to_string(EVP_PKEY_get_bits(key.get())) + " != RSA 4096",
                {}};
    return {{}, fingerprint_of(key.get())};
}
