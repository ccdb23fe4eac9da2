// The platform's HTTPS client, for the master server's web service.

#ifndef PLATFORM_QVCLIENTCURL_H
#define PLATFORM_QVCLIENTCURL_H

#include <memory>
#include <string>

// Plain numbers, as all callers of the platform pass them.
using cert_type = int;
using QVCurlSessionType = int;

class TokenManager_Base;

// One client talks to one host. It keeps its connection between GET requests; each other request closes that
// and has a connection of its own, over which it is sent once, whatever the service does. HTTPS only,
// HTTP/1.1, TLS 1.2 or newer; the service's certificate must come from TLS_AUTHORITY_FILE and carry the
// host's name, and there is no way to switch that off. Where both TLS_HOST_CERTIFICATE_FILE and
// TLS_HOST_KEY_FILE exist they are presented as this host's own. No redirect is followed, and the client
// takes neither a proxy nor a .netrc from the environment, nor a file (SSLKEYLOGFILE) for the secrets of the
// connections.
//
// A request returns 0 when an HTTP exchange took place, whatever its code, and else libcurl's error number (1
// to 99); libcurl's own explanation is then one record of the debug log, level 16, under "QVClientCURL". An
// answer of more than 512 MiB (after decompression) is refused, and a transfer that moves nothing for 300
// seconds is aborted.
class QVClientCURL {
  public:
    // `host` (a name or an address) and `port` say where the service listens. All further arguments select
    // variants of the platform that this client does not have; they are accepted and not used.
    QVClientCURL(const std::string& host, int port, cert_type certificate, QVCurlSessionType session,
                 TokenManager_Base* tokens, const std::string& text1, bool flag1, bool flag2, bool flag3,
                 const std::string& text2, const std::string& text3, const std::string& text4,
                 const std::string& text5, const std::string& text6, const std::string& text7, bool flag4,
                 const bool& flag5, const std::string& text8, int number);

    QVClientCURL(const QVClientCURL&) = delete;
    QVClientCURL& operator=(const QVClientCURL&) = delete;

    virtual ~QVClientCURL();

    // Each takes the URI relative to the service's root. Bytes that an HTTP request line cannot carry (blank,
    // control characters, bytes above 0x7E, and '#') are percent-encoded; all others travel as they are. A
    // body travels as JSON. postStream is a POST too; this program does not use it.
    virtual int post(const std::string& uri, const std::string& body);
    virtual int postStream(const std::string& uri, const std::string& body);
    virtual int put(const std::string& uri, const std::string& body);
    virtual int get(const std::string& uri);
    virtual int del(const std::string& uri);

    // Sets the Accept header of later requests, given as the whole header line; replaces that of an earlier
    // call. Control characters in it are left out.
    void setupAcceptCurlOption(std::string header);

    // Sets the time in seconds after which an attempt to connect, TLS included, is aborted; 0 for libcurl's
    // own 300. With a negative time every request fails.
    void setConnectTimeout(long seconds);

    // What the last request brought; both are reset when a request starts, and stay so when it fails.
    long httpResponseCode = 0;
    std::string responseBody;

  private:
    struct Transfer;
    std::unique_ptr<Transfer> transfer_;
};

#endif
