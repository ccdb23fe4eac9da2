#include "publisher/digest.h"

#include "publisher/openssl_error.h"
#include "publisher/output_file.h"
#include "publisher/progress.h"
#include "publisher/signable_archive.h"

#include <array>

namespace {

constexpr std::size_t DIGEST_SIZE = 64;

// SEQUENCE { SEQUENCE { the object 2.16.840.1.101.3.4.2.3, NULL }, OCTET STRING of 64 bytes }, up to the
// bytes.
constexpr std::array<unsigned char, 19> SHA512_INFO = {0x30, 0x51, 0x30, 0x0D, 0x06, 0x09, 0x60,
                                                       0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02,
                                                       0x03, 0x05, 0x00, 0x04, 0x40};

} // namespace

Digest::Digest() : context_(EVP_MD_CTX_new()) {
    check_openssl(context_ && EVP_DigestInit_ex(context_.get(), EVP_sha512(), nullptr) == 1);
}

void Digest::update(const char* bytes, std::size_t count) {
    check_openssl(EVP_DigestUpdate(context_.get(), bytes, count) == 1);
}

std::string Digest::finish() {
    std::string digest(DIGEST_SIZE, '\0');
    check_openssl(
        EVP_DigestFinal_ex(context_.get(), reinterpret_cast<unsigned char*>(digest.data()), nullptr) == 1);
    return digest;
}

std::string archive_digest(const std::string& path, std::ostream* terminal) {
    const SignableArchive archive = examine_signable(path);
    Progress progress(archive.content_size(), terminal);
    Digest digest;
    read_source(archive.source, archive.content, [&](const char* bytes, std::size_t count) {
        digest.update(bytes, count);
        progress.advance(count);
    });
    return digest.finish();
}

std::string digest_info(const std::string& digest) {
    return std::string(SHA512_INFO.begin(), SHA512_INFO.end()) + digest;
}

std::string hexadecimal(const std::string& bytes) {
    static const char* const digits = "0123456789abcdef";
    std::string text;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        text += digits[byte >> 4U];
        text += digits[byte & 0xFU];
    }
    return text;
}

void write_digest(const std::string& path, const std::string& bytes, const std::string& archive) {
    if (is_same_file(archive, path))
        throw Refusal(path + " is the archive itself");
    OutputFile file(path, 0666);
    file.write(bytes.data(), bytes.size());
    file.commit();
}
