#include "publisher/signer.h"

#include "publisher/openssl_error.h"

Signer::Signer(EVP_PKEY* key) : context_(EVP_MD_CTX_new()) {
    check_openssl(context_ && EVP_DigestSignInit(context_.get(), nullptr, EVP_sha512(), nullptr, key) == 1);
}

void Signer::update(const char* bytes, std::size_t count) {
    check_openssl(EVP_DigestSignUpdate(context_.get(), bytes, count) == 1);
}

std::string Signer::finish() {
    std::string signature(SIGNATURE_SIZE, '\0');
    std::size_t length = signature.size();
    check_openssl(EVP_DigestSignFinal(context_.get(), reinterpret_cast<unsigned char*>(signature.data()),
                                      &length) == 1 &&
                  length == SIGNATURE_SIZE);
    return signature;
}
