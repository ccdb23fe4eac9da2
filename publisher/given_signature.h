// Signatures that were made elsewhere.

#ifndef PUBLISHER_GIVEN_SIGNATURE_H
#define PUBLISHER_GIVEN_SIGNATURE_H

#include "publisher/checking_key.h"
#include "publisher/digest.h"
#include "publisher/signature_source.h"

#include <optional>
#include <string>

// The signature in a file, checked against the bytes that go by when there is a key to check it with.
class GivenSignature : public SignatureSource {
  public:
    // Reads the signature from the file `path`. With a `key_name`, that of a file or a URI, it has to fit the
    // public key there; without one (an empty name) nobody checks it. Throws a Refusal for a file that cannot
    // be read or holds not exactly SIGNATURE_SIZE bytes, and for a key that cannot be read.
    GivenSignature(const std::string& path, const std::string& key_name);

    void update(const char* bytes, std::size_t count) override;
    std::string finish() override;

  private:
    std::string path_;
    std::string signature_;
    std::optional<CheckingKey> key_;
    Digest digest_;
};

#endif
