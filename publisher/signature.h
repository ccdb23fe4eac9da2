// Signatures of archives: RSA, PKCS #1 v1.5, over the SHA-512 digest of everything after the signature.

#ifndef PUBLISHER_SIGNATURE_H
#define PUBLISHER_SIGNATURE_H

#include "publisher/keys.h"

#include <cstddef>
#include <functional>
#include <iosfwd>
#include <string>

// The SHA-512 digest of bytes as they go by.
class Digest {
  public:
    Digest();
    void update(const char* bytes, std::size_t count);

    // The digest of all bytes so far, 64 bytes long. To be called once, at the end.
    std::string finish();

  private:
    Handle<EVP_MD_CTX, &EVP_MD_CTX_free> context_;
};

// Gives the signature, SIGNATURE_SIZE bytes long, of a digest.
using SignatureSource = std::function<std::string(const std::string& digest)>;

// Signs with `key`, an RSA key of 4096 bits that has to outlive what is returned. A key in a device signs there.
SignatureSource signature_by(EVP_PKEY* key);

// Reads a signature that was made elsewhere from the file `path`. It has to be valid for the public key of this
// name; without one (an empty name) nobody checks it. Throws a UserError for a file that cannot be read or does
// not hold exactly SIGNATURE_SIZE bytes, and for a key that cannot be read; what is returned throws one for a
// digest whose signature it is not.
SignatureSource signature_in(const std::string& path, const std::string& key_name);

// The digest whose signature makes the archive at `path` a signed one: of everything but an earlier signature.
// Draws a progress bar on `terminal` unless that is null. Throws a UserError for a file that is not an archive,
// has no entry or is damaged, and for an archive that changes while it is being read.
std::string archive_digest(const std::string& path, std::ostream* terminal);

// The digest with the name of its algorithm in front (DigestInfo, in DER): what a device signs that pads but
// does not know what it signs.
std::string digest_info(const std::string& digest);

// Throws a UserError unless the archive at `path` is signed and its signature is valid for the public key of
// this name. Accepts the signatures that a master server accepts, whatever entries follow. Draws like
// archive_digest.
void verify_archive(const std::string& path, const std::string& key_name, std::ostream* terminal);

#endif
