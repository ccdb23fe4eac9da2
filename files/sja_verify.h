// The signature of .sja archives: RSA (PKCS #1 v1.5, 4096 bits) over the SHA-512 digest of everything after
// the first 512 bytes, which hold the signature.

#ifndef FILES_SJA_VERIFY_H
#define FILES_SJA_VERIFY_H

#include <cstdint>
#include <cstdio>

#include <openssl/types.h>

// A digest (64 bytes) or a signature (512 bytes).
struct byte_sequence {
    unsigned char* data;
    std::uint32_t length;
};

// The length of the stream in bytes; leaves it at its start. -1 when the stream cannot be measured.
std::int64_t get_filesize(FILE* stream);

// Reads an RSA public key from the PEM file at `path`. The caller releases it with free_pubkey or RSA_free.
// Null when the file cannot be opened or read, is a pipe, is empty or larger than 65535 bytes. A file that
// holds no readable key, or an encrypted one (nobody is asked for a passphrase), yields an empty key, which
// fails every verification.
RSA* get_pubkey(const char* path);

// The `length` bytes from `offset` on. Null on failure, and then the stream has been closed.
byte_sequence* get_signature(FILE* stream, std::uint64_t offset, std::uint16_t length);

// The SHA-512 digest of the bytes from `first` up to `end` (excluded). A stream that ends before `end` is not
// noticed; callers pass its size. Null on failure; the stream stays open.
byte_sequence* calc_sha_512(FILE* stream, std::uint64_t first, std::uint64_t end);

// Whether `signature` is the key's signature of `digest`. False for an empty key.
bool verify_hash(const byte_sequence* digest, const byte_sequence* signature, RSA* key);

// Whether the archive's signature is valid; false for an archive shorter than its signature block. The stream
// stays open whatever comes out.
bool sja_verify_hash(FILE* archive, RSA* key);

// Release functions; null is allowed.
void free_byte_sequence(byte_sequence* sequence);
void free_pubkey(RSA* key);

#endif
