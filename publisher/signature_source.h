// Where the signature of an archive comes from.

#ifndef PUBLISHER_SIGNATURE_SOURCE_H
#define PUBLISHER_SIGNATURE_SOURCE_H

#include "files/extractsja.h"

#include <cstddef>
#include <string>

// Sees all bytes that are signed go by, and then gives their signature.
class SignatureSource {
  public:
    SignatureSource() = default;
    SignatureSource(const SignatureSource&) = delete;
    SignatureSource& operator=(const SignatureSource&) = delete;
    virtual ~SignatureSource() = default;

    virtual void update(const char* bytes, std::size_t count) = 0;

    // The signature, SIGNATURE_SIZE bytes long. To be called once, at the end. Throws a Refusal where there
    // is none of these bytes.
    virtual std::string finish() = 0;
};

#endif
