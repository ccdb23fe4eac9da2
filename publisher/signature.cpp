#include "publisher/signature.h"

#include "publisher/archive.h"
#include "publisher/progress.h"

#include <array>
#include <cerrno>

#include <openssl/rsa.h>

namespace {

using SigningContext = Handle<EVP_PKEY_CTX, &EVP_PKEY_CTX_free>;

constexpr std::size_t DIGEST_SIZE = 64;

// SEQUENCE { SEQUENCE { the object 2.16.840.1.101.3.4.2.3, NULL }, OCTET STRING of 64 bytes }, up to the
// bytes.
constexpr std::array<unsigned char, 19> SHA512_INFO = {0x30, 0x51, 0x30, 0x0D, 0x06, 0x09, 0x60,
                                                       0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02,
                                                       0x03, 0x05, 0x00, 0x04, 0x40};

SigningContext new_context(EVP_PKEY* key, int (*start)(EVP_PKEY_CTX*)) {
    SigningContext context(EVP_PKEY_CTX_new(key, nullptr));
    check_openssl(context && start(context.get()) == 1 &&
                  EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PADDING) == 1 &&
                  EVP_PKEY_CTX_set_signature_md(context.get(), EVP_sha512()) == 1);
    return context;
}

bool is_valid(std::string signature, std::string digest, const PublicKey& key) {
    const SigningContext context = new_context(key.handle.get(), EVP_PKEY_verify_init);
    const int result = EVP_PKEY_verify(context.get(), bytes_of(signature), signature.size(), bytes_of(digest),
                                       digest.size());
    ERR_clear_error();
    return result == 1;
}

std::string digest_of(const SourceFile& source, std::uint64_t from, std::ostream* terminal) {
    Progress progress(source.size() - from, terminal);
    Digest digest;
    read_source(source, from, [&](const char* bytes, std::size_t count) {
        digest.update(bytes, count);
        progress.advance(count);
    });
    return digest.finish();
}

} // namespace

Digest::Digest() : context_(EVP_MD_CTX_new()) {
    check_openssl(context_ && EVP_DigestInit_ex(context_.get(), EVP_sha512(), nullptr) == 1);
}

void Digest::update(const char* bytes, std::size_t count) {
    check_openssl(EVP_DigestUpdate(context_.get(), bytes, count) == 1);
}

std::string Digest::finish() {
    std::string digest(DIGEST_SIZE, '\0');
    check_openssl(EVP_DigestFinal_ex(context_.get(), bytes_of(digest), nullptr) == 1);
    return digest;
}

SignatureSource signature_by(EVP_PKEY* key) {
    return [key](std::string digest) {
        const SigningContext context = new_context(key, EVP_PKEY_sign_init);
        std::string signature(SIGNATURE_SIZE, '\0');
        std::size_t size = signature.size();
        check_openssl(
            EVP_PKEY_sign(context.get(), bytes_of(signature), &size, bytes_of(digest), digest.size()) == 1);
        return signature;
    };
}

SignatureSource signature_in(const std::string& path, const std::string& key_name) {
    const SourceFile source = examine_source(path);
    if (source.size() != SIGNATURE_SIZE)
        throw UserError(path + " is not a signature: it has " + std::to_string(source.size()) +
                        " bytes, a signature has 512");
    std::string signature;
    read_source(source, 0, [&](const char* bytes, std::size_t count) { signature.append(bytes, count); });
    if (key_name.empty())
        return [signature](const std::string& /*digest*/) { return signature; };
    return [path, signature, key = read_public_key(key_name)](const std::string& digest) {
        if (!is_valid(signature, digest, key))
            throw UserError("the signature in " + path + " is not valid for the archive and the key in " +
                            key.name);
        return signature;
    };
}

std::string archive_digest(const std::string& path, std::ostream* terminal) {
    const SignableArchive archive = examine_signable(path);
    return digest_of(archive.source, archive.content, terminal);
}

std::string digest_info(const std::string& digest) {
    return std::string(SHA512_INFO.begin(), SHA512_INFO.end()) + digest;
}

void verify_archive(const std::string& path, const std::string& key_name, std::ostream* terminal) {
    const PublicKey key = read_public_key(key_name);
    if (!Archive(path).is_signed())
        throw UserError(path + " is not signed");
    const SourceFile source = examine_source(path);
    std::string signature(SIGNATURE_SIZE, '\0');
    struct stat status = {};
    if (std::fread(signature.data(), 1, signature.size(), open_stream(path, status).get()) !=
        signature.size())
        throw UserError("cannot read " + path, errno);
    if (!is_valid(signature, digest_of(source, SIGNATURE_SIZE, terminal), key))
        throw UserError("the signature of " + path + " is not valid for the key in " + key.name);
}
