// Signatures of packages.

#ifndef PUBLISHER_SIGNER_H
#define PUBLISHER_SIGNER_H

#include <cstddef>
#include <memory>
#include <string>

#include <openssl/evp.h>

// A signature fills the first bytes of a signed archive.
inline constexpr std::size_t SIGNATURE_SIZE = 512;

// Signs bytes as they go by: RSA, PKCS #1 v1.5, over their SHA-512 digest.
class Signer {
  public:
    // `key` has to be an RSA key of 4096 bits and to outlive the signer.
    explicit Signer(EVP_PKEY* key);

    void update(const char* bytes, std::size_t count);

    // The signature of all bytes so far, SIGNATURE_SIZE long. To be called once, at the end.
    std::string finish();

  private:
    struct release_context {
        void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
    };
    std::unique_ptr<EVP_MD_CTX, release_context> context_;
};

#endif
