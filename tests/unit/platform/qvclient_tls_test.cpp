// Whom the client trusts, and as whom it appears.

#include "tests/unit/platform/qvclient_fixture.h"

#include <curl/curl.h>

#include <csignal>
#include <pty.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int TLS_CONNECT_FAILED = 35;
constexpr int BAD_OWN_CERTIFICATE = 58;
constexpr int NOT_TRUSTED = 60;
constexpr int NO_AUTHORITY = 77;

class QvClientTls : public QvClient {
  protected:
    // One request to a service with that certificate.
    int request_from(const Identity& identity, const TlsServer::Options& options = {}) {
        serve(
            identity, [](const WireRequest&) { return answer(200, "secret"); }, options);
        Client client;
        const int result = client.get("x");
        EXPECT_EQ(client.httpResponseCode, result == 0 ? 200 : 0);
        EXPECT_EQ(client.responseBody, result == 0 ? "secret" : "");
        return result;
    }

    static TlsServer::Options speaking(int version) {
        TlsServer::Options options;
        options.min_version = version;
        options.max_version = version;
        return options;
    }

    // As whom the service saw the client.
    std::string seen_as() {
        EXPECT_EQ(request_from(master_), 0);
        return request().client_name;
    }

    Identity host_ = make_identity(authority_, "this host", "");
};

// What a plain libcurl client gets from the service, with its own defaults apart from those given.
int plain_request(CURLoption option, long value) {
    CURL* handle = curl_easy_init();
    curl_easy_setopt(handle, CURLOPT_URL, "https://master.example.com:1556/x");
    curl_easy_setopt(handle, option, value);
    curl_easy_setopt(
        handle, CURLOPT_WRITEFUNCTION,
        +[](char*, std::size_t size, std::size_t count, void*) { return size * count; });
    const CURLcode result = curl_easy_perform(handle);
    curl_easy_cleanup(handle);
    return result;
}

TEST_F(QvClientTls, TrustsTheProductsAuthority) {
    EXPECT_EQ(request_from(master_), 0);
}

TEST_F(QvClientTls, RefusesAnotherAuthority) {
    const Identity other = make_authority("Other authority");
    EXPECT_EQ(request_from(make_identity(other, "master.example.com", "DNS:master.example.com")),
              NOT_TRUSTED);
    EXPECT_EQ(server_->requests().size(), 0U) << "nothing was sent";
}

TEST_F(QvClientTls, RefusesAnotherAuthorityOfTheSameName) {
    const Identity other = make_authority("Test authority");
    EXPECT_EQ(request_from(make_identity(other, "master.example.com", "DNS:master.example.com")),
              TLS_CONNECT_FAILED);
    EXPECT_EQ(server_->requests().size(), 0U) << "nothing was sent";
}

TEST_F(QvClientTls, RefusesACertificateThatSignedItself) {
    EXPECT_EQ(request_from(make_authority("master.example.com")), NOT_TRUSTED);
}

TEST_F(QvClientTls, RefusesAnotherName) {
    for (const char* names : {"DNS:other.example.com", "DNS:example.com", "DNS:xmaster.example.com",
                              "IP:127.0.0.1", "DNS:*.com", "DNS:*.master.example.com"})
        EXPECT_EQ(request_from(make_identity(authority_, "master.example.com", names)), NOT_TRUSTED) << names;
}

TEST_F(QvClientTls, RefusesAnExpiredCertificate) {
    EXPECT_EQ(request_from(make_identity(authority_, "master.example.com", "DNS:master.example.com", -1)),
              NOT_TRUSTED);
    EXPECT_EQ(log_.records(), (std::vector<LogRecord>{
                                  {16, "QVClientCURL", "SSL certificate problem: certificate has expired"}}));
}

TEST_F(QvClientTls, RefusesEverybodyWithoutItsAuthoritysFile) {
    std::filesystem::remove(TLS_AUTHORITY_FILE);
    EXPECT_EQ(request_from(master_), NO_AUTHORITY);
    write_file(TLS_AUTHORITY_FILE, "no certificate");
    EXPECT_EQ(request_from(master_), NO_AUTHORITY);
    write_file(TLS_AUTHORITY_FILE, "");
    EXPECT_EQ(request_from(master_), NO_AUTHORITY);
}

// The system's authorities are replaced, for this program alone, by one that has signed the service's
// certificate.
TEST_F(QvClientTls, DoesNotTrustTheSystemsAuthorities) {
    const TemporaryDirectory store;
    const Identity system = make_authority("System authority");
    write_certificate(store.path("ca-certificates.crt"), system);
    char hash[16];
    static_cast<void>(
        std::snprintf(hash, sizeof hash, "%08lx.0", X509_subject_name_hash(system.certificate.get())));
    write_certificate(store.path(hash), system);
    ASSERT_EQ(mount(store.path().c_str(), "/etc/ssl/certs", nullptr, MS_BIND, nullptr), 0);

    EXPECT_EQ(request_from(make_identity(system, "master.example.com", "DNS:master.example.com")),
              NOT_TRUSTED);
    EXPECT_EQ(plain_request(CURLOPT_NOSIGNAL, 1L), 0) << "a client that trusts the system is content";

    setenv("SSL_CERT_DIR", store.path().c_str(), 1);
    setenv("SSL_CERT_FILE", store.path("ca-certificates.crt").c_str(), 1);
    setenv("CURL_CA_BUNDLE", store.path("ca-certificates.crt").c_str(), 1);
    EXPECT_EQ(request_from(make_identity(system, "master.example.com", "DNS:master.example.com")),
              NOT_TRUSTED);
    for (const char* name : {"SSL_CERT_DIR", "SSL_CERT_FILE", "CURL_CA_BUNDLE"})
        unsetenv(name);
    ASSERT_EQ(umount2("/etc/ssl/certs", MNT_DETACH), 0);
}

TEST_F(QvClientTls, SpeaksTls12And13) {
    EXPECT_EQ(request_from(master_, speaking(TLS1_2_VERSION)), 0);
    EXPECT_EQ(request_from(master_, speaking(TLS1_3_VERSION)), 0);
}

TEST_F(QvClientTls, DoesNotSpeakTls11EvenWhereOpenSslIsSetToAllowIt) {
    EXPECT_EQ(request_from(master_, speaking(TLS1_1_VERSION)), TLS_CONNECT_FAILED);
    EXPECT_EQ(plain_request(CURLOPT_SSL_VERIFYPEER, 0L), 0)
        << "OPENSSL_CONF has to allow TLS 1.1 to all others";
}

TEST_F(QvClientTls, ShowsItsOwnCertificateWhereBothFilesExist) {
    write_certificate(TLS_HOST_CERTIFICATE_FILE, host_);
    write_key(TLS_HOST_KEY_FILE, host_);
    EXPECT_EQ(seen_as(), "this host");
}

TEST_F(QvClientTls, ShowsNoCertificateWhereAFileIsMissing) {
    EXPECT_EQ(seen_as(), "");
    write_certificate(TLS_HOST_CERTIFICATE_FILE, host_);
    EXPECT_EQ(seen_as(), "") << "without key";
    std::filesystem::remove(TLS_HOST_CERTIFICATE_FILE);
    write_key(TLS_HOST_KEY_FILE, host_);
    EXPECT_EQ(seen_as(), "") << "without certificate";
}

TEST_F(QvClientTls, FailsWithAnotherCertificatesKey) {
    write_certificate(TLS_HOST_CERTIFICATE_FILE, host_);
    write_key(TLS_HOST_KEY_FILE, authority_);
    EXPECT_EQ(request_from(master_), BAD_OWN_CERTIFICATE);
}

// In a process with a terminal, where OpenSSL would ask.
TEST_F(QvClientTls, FailsWithAnEncryptedKeyAndAsksNobodyForItsPassphrase) {
    write_certificate(TLS_HOST_CERTIFICATE_FILE, host_);
    write_key(TLS_HOST_KEY_FILE, host_, "secret");
    int terminal = -1;
    const pid_t child = forkpty(&terminal, nullptr, nullptr, nullptr);
    ASSERT_GE(child, 0);
    if (child == 0)
        _exit(request_from(master_));
    const FileDescriptor screen(terminal);
    char question[256];
    const ssize_t asked = read(screen.get(), question, sizeof question); // ends when the process does
    kill(child, asked > 0 ? SIGKILL : 0);
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_LE(asked, 0) << std::string(question, static_cast<std::size_t>(std::max<ssize_t>(asked, 0)));
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), BAD_OWN_CERTIFICATE);
}

} // namespace
