#include "tests/unit/platform/certificates.h"

#include <openssl/ec.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <stdexcept>

namespace {

void must(bool done, const char* what) {
    if (!done)
        throw std::runtime_error(std::string("certificate: ") + what);
}

using File = std::unique_ptr<std::FILE, Release<std::fclose>>;

File create(const std::string& path) {
    File file(std::fopen(path.c_str(), "w"));
    must(file != nullptr, path.c_str());
    return file;
}

void add_extension(X509* certificate, X509* issuer, int kind, const std::string& value) {
    X509V3_CTX context;
    X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
    X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, kind, value.c_str());
    must(extension != nullptr && X509_add_ext(certificate, extension, -1) == 1, value.c_str());
    X509_EXTENSION_free(extension);
}

// A certificate with key and name, valid from two days before its end or from yesterday, not signed yet.
Identity make_unsigned(const std::string& name, int days) {
    static long serial = 0;
    Identity identity;
    identity.key.reset(EVP_EC_gen("P-256"));
    identity.certificate.reset(X509_new());
    X509* certificate = identity.certificate.get();
    must(identity.key != nullptr && certificate != nullptr, "key");
    X509_set_version(certificate, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate), ++serial);
    X509_gmtime_adj(X509_getm_notBefore(certificate), (days < 0 ? days - 2 : -1) * 86400L);
    X509_gmtime_adj(X509_getm_notAfter(certificate), days * 86400L);
    const auto* text = reinterpret_cast<const unsigned char*>(name.c_str());
    X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate), "CN", MBSTRING_UTF8, text, -1, -1, 0);
    must(X509_set_pubkey(certificate, identity.key.get()) == 1, "public key");
    return identity;
}

void sign(Identity& identity, X509* issuer, EVP_PKEY* key) {
    X509_set_issuer_name(identity.certificate.get(), X509_get_subject_name(issuer));
    must(X509_sign(identity.certificate.get(), key, EVP_sha256()) > 0, "signature");
}

} // namespace

Identity make_authority(const std::string& name) {
    Identity identity = make_unsigned(name, 30);
    X509* certificate = identity.certificate.get();
    add_extension(certificate, certificate, NID_basic_constraints, "critical,CA:TRUE");
    add_extension(certificate, certificate, NID_key_usage, "critical,keyCertSign,cRLSign");
    sign(identity, certificate, identity.key.get());
    return identity;
}

Identity make_identity(const Identity& authority, const std::string& name, const std::string& alternatives,
                       int days) {
    Identity identity = make_unsigned(name, days);
    if (!alternatives.empty())
        add_extension(identity.certificate.get(), authority.certificate.get(), NID_subject_alt_name,
                      alternatives);
    sign(identity, authority.certificate.get(), authority.key.get());
    return identity;
}

void write_certificate(const std::string& path, const Identity& identity) {
    must(PEM_write_X509(create(path).get(), identity.certificate.get()) == 1, path.c_str());
}

void write_key(const std::string& path, const Identity& identity, const std::string& passphrase) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(passphrase.c_str());
    const EVP_CIPHER* cipher = passphrase.empty() ? nullptr : EVP_aes_256_cbc();
    must(PEM_write_PrivateKey(create(path).get(), identity.key.get(), cipher,
                              passphrase.empty() ? nullptr : bytes, static_cast<int>(passphrase.size()),
                              nullptr, nullptr) == 1,
         path.c_str());
}
