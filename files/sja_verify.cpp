// The signature unit is written against OpenSSL's RSA and SHA-512 calls, which OpenSSL 3 still carries.
#define OPENSSL_SUPPRESS_DEPRECATED

#include "files/sja_verify.h"

#include "files/extractsja.h"
#include "files/file_stream.h"
#include "platform/handle.h"
#include "platform/interruption.h"

#include <memory>
#include <vector>

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/objects.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/sha.h>

#include <sys/types.h>

namespace {

constexpr std::size_t CHUNK_SIZE = 4096;
constexpr std::int64_t MAX_KEY_FILE = 0xFFFF;

using KeyPtr = std::unique_ptr<RSA, Release<RSA_free>>;
using SequencePtr = std::unique_ptr<byte_sequence, Release<free_byte_sequence>>;

SequencePtr new_sequence(std::uint32_t length) {
    SequencePtr sequence(new byte_sequence());
    sequence->data = new unsigned char[length]();
    sequence->length = length;
    return sequence;
}

// Without a callback of ours, OpenSSL would stop the program and ask for the passphrase on its terminal.
int no_passphrase(char* /*buffer*/, int /*size*/, int /*writing*/, void* /*data*/) {
    return -1;
}

// Replaces `key` by the key in the PEM text; leaves `key` alone where the text has none.
void read_pem_key(const std::vector<unsigned char>& pem, KeyPtr& key) {
    const std::unique_ptr<BIO, Release<BIO_free>> bio(BIO_new(BIO_s_mem()));
    if (!bio || BIO_write(bio.get(), pem.data(), static_cast<int>(pem.size())) <= 0)
        return;
    RSA* read_into = key.release();
    PEM_read_bio_RSA_PUBKEY(bio.get(), &read_into, no_passphrase, nullptr);
    key.reset(read_into);
    // The next TLS connection would mistake what is left in the error queue for its own errors.
    ERR_clear_error();
}

// The bytes of the range, or null; the stream stays open.
SequencePtr read_range(FILE* stream, std::uint64_t offset, std::uint16_t length) {
    const std::int64_t size = get_filesize(stream);
    if (size < 0)
        return nullptr;
    const auto end = static_cast<std::uint64_t>(size);
    if (offset > end || end - offset < length)
        return nullptr;
    SequencePtr bytes = new_sequence(length);
    if (!seek_to(stream, offset) || !read_up_to(stream, bytes->data, length))
        return nullptr;
    return bytes;
}

// A key that was never filled in crashes inside RSA_verify.
bool has_numbers(const RSA* key) {
    return RSA_get0_n(key) != nullptr && RSA_get0_e(key) != nullptr;
}

} // namespace

std::int64_t get_filesize(FILE* stream) {
    if (fseeko(stream, 0, SEEK_END) != 0)
        return -1;
    const off_t size = ftello(stream);
    return fseeko(stream, 0, SEEK_SET) == 0 ? size : -1;
}

RSA* get_pubkey(const char* path) {
    KeyPtr key(RSA_new());
    const FileStream file(open_to_read(path));
    if (!key || !file)
        return nullptr;
    const std::int64_t size = get_filesize(file.get());
    if (size <= 0 || size > MAX_KEY_FILE)
        return nullptr;
    std::vector<unsigned char> pem(static_cast<std::size_t>(size));
    pem.resize(std::fread(pem.data(), 1, pem.size(), file.get()));
    if (std::ferror(file.get()) != 0)
        return nullptr;
    read_pem_key(pem, key);
    return key.release();
}

byte_sequence* get_signature(FILE* stream, std::uint64_t offset, std::uint16_t length) {
    SequencePtr signature = read_range(stream, offset, length);
    // The stream is the caller's, and is closed all the same: callers rely on it.
    if (!signature)
        static_cast<void>(std::fclose(stream));
    return signature.release();
}

byte_sequence* calc_sha_512(FILE* stream, std::uint64_t first, std::uint64_t end) {
    if (first > end)
        return nullptr;
    SequencePtr digest = new_sequence(SHA512_DIGEST_LENGTH);
    SHA512_CTX context;
    if (SHA512_Init(&context) == 0 || !seek_to(stream, first))
        return nullptr;
    std::vector<unsigned char> buffer(CHUNK_SIZE);
    while (first != end) {
        const std::size_t chunk = end - first < CHUNK_SIZE ? end - first : CHUNK_SIZE;
        if (interruption_noted() || !read_up_to(stream, buffer.data(), chunk) ||
            SHA512_Update(&context, buffer.data(), chunk) == 0)
            return nullptr;
        first += chunk;
    }
    return SHA512_Final(digest->data, &context) != 0 ? digest.release() : nullptr;
}

bool verify_hash(const byte_sequence* digest, const byte_sequence* signature, RSA* key) {
    if (!has_numbers(key))
        return false;
    const int result =
        RSA_verify(NID_sha512, digest->data, digest->length, signature->data, signature->length, key);
    ERR_clear_error();
    return result == 1;
}

bool sja_verify_hash(FILE* archive, RSA* key) {
    const std::int64_t size = get_filesize(archive);
    if (size < std::int64_t{SIGNATURE_SIZE})
        return false;
    const SequencePtr digest(calc_sha_512(archive, SIGNATURE_SIZE, static_cast<std::uint64_t>(size)));
    if (!digest)
        return false;
    // Not by get_signature, which would close the stream under the caller.
    const SequencePtr signature = read_range(archive, 0, SIGNATURE_SIZE);
    return signature && verify_hash(digest.get(), signature.get(), key);
}

void free_byte_sequence(byte_sequence* sequence) {
    if (sequence != nullptr)
        delete[] sequence->data;
    delete sequence;
}

void free_pubkey(RSA* key) {
    RSA_free(key);
}
