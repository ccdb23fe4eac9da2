// What of an archive is signed.

#ifndef PUBLISHER_DIGEST_H
#define PUBLISHER_DIGEST_H

#include <cstddef>
#include <iosfwd>
#include <memory>
#include <string>

#include <openssl/evp.h>

// The SHA-512 digest of bytes as they go by.
class Digest {
  public:
    Digest();

    void update(const char* bytes, std::size_t count);

    // The digest of all bytes so far, 64 bytes long. To be called once, at the end.
    std::string finish();

  private:
    struct release_context {
        void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
    };
    std::unique_ptr<EVP_MD_CTX, release_context> context_;
};

// The digest, 64 bytes long, whose signature makes the archive at `path` a signed one: of everything but an
// earlier signature. Draws a progress bar on `terminal` unless that is null. Throws a Refusal for what is no
// archive, holds no entry or is damaged, and for an archive that changes while it is being read.
std::string archive_digest(const std::string& path, std::ostream* terminal);

// The digest with the name of its algorithm in front (DigestInfo, in DER): what a device signs that pads but
// does not know what it signs.
std::string digest_info(const std::string& digest);

// Bytes as lower-case hexadecimal digits.
std::string hexadecimal(const std::string& bytes);

// Writes `bytes`, a digest of the archive at `archive`, to the file `path`, which appears whole or not at
// all, in place of an earlier one. Throws a Refusal when it cannot be written, and when it is the archive.
void write_digest(const std::string& path, const std::string& bytes, const std::string& archive);

#endif
