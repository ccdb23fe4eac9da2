#include "master/tls_context.h"

#include "master/log_error.h"
#include "platform/file_descriptor.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <openssl/err.h>

namespace {

// Of a file that it cannot read, OpenSSL only says "system lib".
void require_readable(const std::string& file) {
    const FileDescriptor descriptor(open(file.c_str(), O_RDONLY | O_CLOEXEC));
    char byte = 0;
    if (!descriptor.is_open() || read(descriptor.get(), &byte, 1) < 0)
        throw StartFailure("cannot read " + file + ": " + std::strerror(errno));
}

void require_usable(const std::string& file, bool usable) {
    if (usable)
        return;
    const char* const reason = ERR_reason_error_string(ERR_peek_last_error());
    throw StartFailure("cannot use " + file + ": " + (reason == nullptr ? "unusable" : reason));
}

} // namespace

void set_up_tls(SSL_CTX& context, const std::string& directory) {
    const std::string authority = directory + "/ca.pem";
    const std::string certificate = directory + "/master.pem";
    const std::string key = directory + "/master.key";
    for (const std::string& file : {certificate, key, authority})
        require_readable(file);
    // An encrypted key is refused: nobody is there to be asked for its passphrase.
    SSL_CTX_set_default_passwd_cb(&context, [](char*, int, int, void*) { return -1; });
    ERR_clear_error();
    require_usable(certificate, SSL_CTX_use_certificate_chain_file(&context, certificate.c_str()) == 1);
    require_usable(key, SSL_CTX_use_PrivateKey_file(&context, key.c_str(), SSL_FILETYPE_PEM) == 1);
    require_usable(authority, SSL_CTX_load_verify_file(&context, authority.c_str()) == 1);
    SSL_CTX_set_client_CA_list(&context, SSL_load_client_CA_file(authority.c_str()));

    SSL_CTX_set_verify(&context, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
    SSL_CTX_set_min_proto_version(&context, TLS1_2_VERSION);
    SSL_CTX_set_options(&context, SSL_OP_NO_COMPRESSION | SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_TICKET |
                                      SSL_OP_CIPHER_SERVER_PREFERENCE);
    // Every client must send its certificate; in a resumed session it would not.
    SSL_CTX_set_session_cache_mode(&context, SSL_SESS_CACHE_OFF);
    SSL_CTX_set_num_tickets(&context, 0);
}
