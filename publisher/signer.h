// Signatures made with a key.

#ifndef PUBLISHER_SIGNER_H
#define PUBLISHER_SIGNER_H

#include "publisher/signature_source.h"

#include <memory>

#include <openssl/evp.h>

// Signs bytes as they go by: RSA, PKCS #1 v1.5, over their SHA-512 digest. A key in a device signs there.
class Signer : public SignatureSource {
  public:
    // `key` has to be an RSA key of 4096 bits and to outlive the signer.
    explicit Signer(EVP_PKEY* key);

    void update(const char* bytes, std::size_t count) override;
    std::string finish() override;

  private:
    struct release_context {
        void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
    };
    std::unique_ptr<EVP_MD_CTX, release_context> context_;
};

#endif
