#include "publisher/rsa_key.h"

#include "publisher/openssl_error.h"
#include "publisher/output_file.h"
#include "publisher/passphrase_request.h"
#include "publisher/refusal.h"
#include "publisher/source_file.h"

#include <openssl/bio.h>
#include <openssl/pem.h>
#include <openssl/pkcs12.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

namespace {

constexpr int KEY_BITS = 4096;
// How often the passphrase is hashed: guessing one costs this much each time. OpenSSL's own default is 2048.
constexpr int PASSPHRASE_ITERATIONS = 600000;

struct release_bio {
    void operator()(BIO* bio) const { BIO_free(bio); }
};
struct release_key_info {
    void operator()(PKCS8_PRIV_KEY_INFO* info) const { PKCS8_PRIV_KEY_INFO_free(info); }
};
struct release_encrypted_key {
    void operator()(X509_SIG* key) const { X509_SIG_free(key); }
};
using bio_ptr = std::unique_ptr<BIO, release_bio>;

bio_ptr memory() {
    bio_ptr bio(BIO_new(BIO_s_mem()));
    check_openssl(bio != nullptr);
    return bio;
}

void write_pem(OutputFile& file, BIO* pem) {
    char* bytes = nullptr;
    const long count = BIO_get_mem_data(pem, &bytes);
    file.write(bytes, static_cast<std::size_t>(count));
}

void write_encrypted(BIO* pem, EVP_PKEY* key, const std::string& passphrase) {
    const std::unique_ptr<PKCS8_PRIV_KEY_INFO, release_key_info> plain(EVP_PKEY2PKCS8(key));
    check_openssl(plain != nullptr);
    const std::unique_ptr<X509_SIG, release_encrypted_key> encrypted(
        PKCS8_encrypt(-1, EVP_aes_256_cbc(), passphrase.data(), static_cast<int>(passphrase.size()), nullptr,
                      0, PASSPHRASE_ITERATIONS, plain.get()));
    check_openssl(encrypted && PEM_write_bio_PKCS8(pem, encrypted.get()) == 1);
}

bio_ptr open_key_file(const std::string& path) {
    struct stat status = {};
    bio_ptr bio(BIO_new_fp(open_stream(path, status).release(), BIO_CLOSE));
    check_openssl(bio != nullptr);
    return bio;
}

} // namespace

pkey_ptr generate_key() {
    pkey_ptr key(EVP_RSA_gen(KEY_BITS));
    check_openssl(key != nullptr);
    return key;
}

void write_private_key(OutputFile& file, EVP_PKEY* key, const Passphrase* passphrase) {
    const bio_ptr pem = memory();
    if (passphrase != nullptr)
        write_encrypted(pem.get(), key, passphrase->text());
    else
        check_openssl(PEM_write_bio_PrivateKey(pem.get(), key, nullptr, nullptr, 0, nullptr, nullptr) == 1);
    write_pem(file, pem.get());
}

void write_public_key(OutputFile& file, EVP_PKEY* key) {
    const bio_ptr pem = memory();
    check_openssl(PEM_write_bio_PUBKEY(pem.get(), key) == 1);
    write_pem(file, pem.get());
}

void check_key_kind(const std::string& name, const EVP_PKEY* key) {
    if (EVP_PKEY_is_a(key, "RSA") == 0 || EVP_PKEY_get_bits(key) != KEY_BITS)
        throw Refusal("the key in " + name + " is not an RSA key of 4096 bits");
}

pkey_ptr read_private_key(const std::string& path, const Passphrase* passphrase) {
    const bio_ptr file = open_key_file(path);
    PassphraseRequest request = {passphrase};
    pkey_ptr key(PEM_read_bio_PrivateKey(file.get(), nullptr, give_passphrase, &request));
    ERR_clear_error();
    if (!key && request.made)
        throw passphrase_refusal(path, request);
    if (!key)
        throw Refusal(path + " holds no private key");
    check_key_kind(path, key.get());
    return key;
}

void check_public_key(const std::string& path) {
    const bio_ptr file = open_key_file(path);
    PassphraseRequest none = {nullptr};
    const pkey_ptr key(PEM_read_bio_PUBKEY(file.get(), nullptr, give_passphrase, &none));
    ERR_clear_error();
    if (!key)
        throw Refusal(path + " holds no public key");
    check_key_kind(path, key.get());
}
