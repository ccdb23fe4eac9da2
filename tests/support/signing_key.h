// RSA keys for tests, and signatures made with them straight from OpenSSL.

#ifndef TESTS_SUPPORT_SIGNING_KEY_H
#define TESTS_SUPPORT_SIGNING_KEY_H

#include "platform/handle.h"

#include <memory>
#include <stdexcept>
#include <string>

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>

class SigningKey {
  public:
    explicit SigningKey(unsigned bits = 4096) : key_(EVP_RSA_gen(bits)) {
        if (!key_)
            throw std::runtime_error("no RSA key");
    }

    // The key that a program's tests share: making one takes a second or two.
    static const SigningKey& publisher() {
        static const SigningKey key;
        return key;
    }

    // Another publisher's.
    static const SigningKey& stranger() {
        static const SigningKey key;
        return key;
    }

    EVP_PKEY* get() const { return key_.get(); }

    std::string public_pem() const {
        const std::unique_ptr<BIO, Release<BIO_free>> out(BIO_new(BIO_s_mem()));
        PEM_write_bio_PUBKEY(out.get(), key_.get());
        return text_of(out.get());
    }

    // PKCS #8; encrypted when there is a passphrase.
    std::string private_pem(const std::string& passphrase = "") const {
        const std::unique_ptr<BIO, Release<BIO_free>> out(BIO_new(BIO_s_mem()));
        PEM_write_bio_PrivateKey(out.get(), key_.get(), passphrase.empty() ? nullptr : EVP_aes_256_cbc(),
                                 reinterpret_cast<const unsigned char*>(passphrase.data()),
                                 static_cast<int>(passphrase.size()), nullptr, nullptr);
        return text_of(out.get());
    }

    // The PKCS #1 v1.5 signature of the SHA-512 digest of `bytes`.
    std::string signature_of(const std::string& bytes) const {
        const std::unique_ptr<EVP_MD_CTX, Release<EVP_MD_CTX_free>> context(EVP_MD_CTX_new());
        std::string signature(static_cast<std::size_t>(EVP_PKEY_get_size(key_.get())), '\0');
        std::size_t length = signature.size();
        if (EVP_DigestSignInit(context.get(), nullptr, EVP_sha512(), nullptr, key_.get()) != 1 ||
            EVP_DigestSign(context.get(), reinterpret_cast<unsigned char*>(signature.data()), &length,
                           reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size()) != 1)
            throw std::runtime_error("no signature");
        return signature;
    }

    std::string signed_bytes(const std::string& bytes) const { return signature_of(bytes) + bytes; }

  private:
    static std::string text_of(BIO* bio) {
        char* data = nullptr;
        const long length = BIO_get_mem_data(bio, &data);
        return {data, static_cast<std::size_t>(length)};
    }

    std::unique_ptr<EVP_PKEY, Release<EVP_PKEY_free>> key_;
};

#endif
