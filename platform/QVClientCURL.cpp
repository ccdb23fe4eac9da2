#include "platform/QVClientCURL.h"

#include "platform/debug_log.h"
#include "platform/handle.h"
#include "platform/hex.h"
#include "platform/paths.h"

#include <curl/curl.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <unistd.h>
#include <utility>

namespace {

// The longest accepted answer, counted after decompression.
constexpr std::size_t MAX_ANSWER_SIZE = std::size_t{512} * 1024 * 1024;

// An answer of unknown length that has come so far is likely to go on.
constexpr std::size_t LONG_ANSWER = std::size_t{4} * 1024 * 1024;

// A transfer that moves less than this for so long is aborted.
constexpr long MIN_BYTES_PER_SECOND = 1;
constexpr long MAX_IDLE_SECONDS = 300;

bool is_control(char c) {
    return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
}

std::string percent_encoded(const std::string& uri) {
    std::string encoded;
    encoded.reserve(uri.size());
    for (const char c : uri) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte > 0x20 && byte < 0x7f && c != '#') {
            encoded += c;
        } else {
            const auto digits = hex_digits_of(byte, UPPER_HEX_DIGITS);
            encoded.append({'%', digits[0], digits[1]});
        }
    }
    return encoded;
}

// Whether the name is only a host where a URL has its host.
bool is_host(const std::string& host) {
    return !host.empty() && std::none_of(host.begin(), host.end(), [](char c) {
        return is_control(c) || std::string(" /?#@\\[]").find(c) != std::string::npos;
    });
}

// An IPv6 address is the only host with a colon in it; libcurl refuses whatever else comes in the brackets.
std::string bracketed(const std::string& host) {
    return host.find(':') == std::string::npos ? host : "[" + host + "]";
}

bool is_get(const char* method) {
    return std::strcmp(method, "GET") == 0;
}

CURL* new_handle() {
    unsetenv("SSLKEYLOGFILE"); // libcurl would write the secrets of all connections to that file
    static const CURLcode initialized = curl_global_init(CURL_GLOBAL_DEFAULT);
    return initialized == CURLE_OK ? curl_easy_init() : nullptr;
}

bool exists(const char* path) {
    return access(path, F_OK) == 0;
}

} // namespace

struct QVClientCURL::Transfer {
    Transfer(std::string host_name, int port_number) : host(std::move(host_name)), port(port_number) {}

    int perform(QVClientCURL& client, const char* method, const std::string& uri, const std::string* body);
    void prepare(QVClientCURL& client, const char* method, const std::string& uri, const std::string* body);
    void set_destination(const std::string& uri);
    void set_tls();
    void set_limits();
    void set_method(const char* method, const std::string* body);
    void add_header(const char* header);
    void set_answer(QVClientCURL& client);
    void explain() const;

    // Once libcurl has refused an option, nothing is sent: a request never goes out with less protection.
    template <typename Value>
    void set(CURLoption option, Value value) {
        if (result == CURLE_OK)
            result = curl_easy_setopt(handle.get(), option, value);
    }

    static std::size_t receive(char* bytes, std::size_t size, std::size_t count, void* client) noexcept;
    void make_room(std::string& answer, std::size_t more) const;

    std::string host;
    int port;
    std::string accept;
    long connect_timeout = 0;

    CURLcode result = CURLE_OK;
    bool answer_too_long = false;
    char explanation[CURL_ERROR_SIZE] = "";
    std::unique_ptr<curl_slist, Release<curl_slist_free_all>> headers;
    // Made by the first request and kept, as it holds the connection. The last member, since it points to
    // those above.
    std::unique_ptr<CURL, Release<curl_easy_cleanup>> handle;
};

int QVClientCURL::Transfer::perform(QVClientCURL& client, const char* method, const std::string& uri,
                                    const std::string* body) {
    client.httpResponseCode = 0;
    client.responseBody.clear();
    prepare(client, method, uri, body);
    if (result == CURLE_OK)
        result = curl_easy_perform(handle.get());
    if (result == CURLE_OK)
        result = curl_easy_getinfo(handle.get(), CURLINFO_RESPONSE_CODE, &client.httpResponseCode);
    if (result != CURLE_OK) {
        client.httpResponseCode = 0;
        std::string().swap(client.responseBody);
        explain();
    }
    return result;
}

void QVClientCURL::Transfer::prepare(QVClientCURL& client, const char* method, const std::string& uri,
                                     const std::string* body) {
    // Over a connection that it has kept, libcurl sends a request again when the service closes without an
    // answer. A change may have taken effect by then, so it gets a connection of its own, after the kept one
    // is closed.
    if (!is_get(method))
        handle.reset();
    explanation[0] = '\0';
    answer_too_long = false;
    if (handle == nullptr)
        handle.reset(new_handle());
    result = handle == nullptr ? CURLE_FAILED_INIT : CURLE_OK;
    if (result != CURLE_OK)
        return;
    // Forgets the options of the request before, and keeps its connection.
    curl_easy_reset(handle.get());
    set(CURLOPT_ERRORBUFFER, explanation);
    set_destination(uri);
    set_tls();
    set_limits();
    set_method(method, body);
    set_answer(client);
}

void QVClientCURL::Transfer::set_destination(const std::string& uri) {
    if (!is_host(host))
        result = CURLE_URL_MALFORMAT;
    const std::string url =
        "https://" + bracketed(host) + ":" + std::to_string(port) + "/" + percent_encoded(uri);
    set(CURLOPT_URL, url.c_str());
    set(CURLOPT_PATH_AS_IS, 1L); // dots in a path travel as they were typed
    set(CURLOPT_PROTOCOLS_STR, "https");
    set(CURLOPT_FOLLOWLOCATION, 0L);
    set(CURLOPT_PROXY, ""); // the empty name, unlike none, keeps the environment's proxies out
    set(CURLOPT_NETRC, static_cast<long>(CURL_NETRC_IGNORED));
}

void QVClientCURL::Transfer::set_tls() {
    set(CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
    set(CURLOPT_SSL_VERIFYPEER, 1L);
    set(CURLOPT_SSL_VERIFYHOST, 2L);
    set(CURLOPT_CAINFO, TLS_AUTHORITY_FILE);
    // libcurl would also trust the distribution's directory of authorities.
    set(CURLOPT_CAPATH, static_cast<const char*>(nullptr));
    // A service that asks for certificates may refuse a resumed session, and the connection is kept anyway.
    set(CURLOPT_SSL_SESSIONID_CACHE, 0L);
    if (!exists(TLS_HOST_CERTIFICATE_FILE) || !exists(TLS_HOST_KEY_FILE))
        return;
    set(CURLOPT_SSLCERT, TLS_HOST_CERTIFICATE_FILE);
    set(CURLOPT_SSLKEY, TLS_HOST_KEY_FILE);
    set(CURLOPT_KEYPASSWD,
        ""); // an encrypted key fails; OpenSSL would ask for its passphrase on the terminal
}

void QVClientCURL::Transfer::set_limits() {
    set(CURLOPT_NOSIGNAL, 1L);
    set(CURLOPT_CONNECTTIMEOUT, connect_timeout);
    set(CURLOPT_LOW_SPEED_LIMIT, MIN_BYTES_PER_SECOND);
    set(CURLOPT_LOW_SPEED_TIME, MAX_IDLE_SECONDS);
    // Refuses an answer by its announced length; receive() counts what arrives.
    set(CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(MAX_ANSWER_SIZE));
}

void QVClientCURL::Transfer::set_method(const char* method, const std::string* body) {
    headers.reset();
    if (!accept.empty())
        add_header(accept.c_str());
    if (body != nullptr) {
        add_header("Content-Type: application/json");
        add_header("Expect:"); // a long body is sent at once, without asking first
        set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body->size()));
        set(CURLOPT_POSTFIELDS, body->c_str());
    }
    set(CURLOPT_CUSTOMREQUEST, method);
    set(CURLOPT_FORBID_REUSE, is_get(method) ? 0L : 1L);
    // HTTP/2 has answers upon which libcurl sends a request again.
    set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
    set(CURLOPT_HTTPHEADER, headers.get());
    set(CURLOPT_USERAGENT, "qvrepo/" QVREPO_VERSION);
    set(CURLOPT_ACCEPT_ENCODING, "");
}

void QVClientCURL::Transfer::add_header(const char* header) {
    curl_slist* longer = curl_slist_append(headers.get(), header);
    if (longer == nullptr) {
        result = CURLE_OUT_OF_MEMORY;
        return;
    }
    static_cast<void>(headers.release());
    headers.reset(longer);
}

void QVClientCURL::Transfer::set_answer(QVClientCURL& client) {
    set(CURLOPT_WRITEFUNCTION, &Transfer::receive);
    set(CURLOPT_WRITEDATA, static_cast<void*>(&client));
}

// Growing step by step would hold an answer twice. So room is made at once, for what is announced or, once an
// answer of unknown length has turned out long, for the longest accepted one; memory that is never written
// costs nothing.
void QVClientCURL::Transfer::make_room(std::string& answer, std::size_t more) const {
    curl_off_t length = 0;
    if (answer.empty())
        curl_easy_getinfo(handle.get(), CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
    if (length > 0)
        answer.reserve(std::min(static_cast<std::size_t>(length), MAX_ANSWER_SIZE));
    else if (answer.size() >= LONG_ANSWER && more > answer.capacity() - answer.size())
        answer.reserve(MAX_ANSWER_SIZE);
}

// Called by libcurl with each piece of the answer; any result but the piece's size ends the transfer.
std::size_t QVClientCURL::Transfer::receive(char* bytes, std::size_t size, std::size_t count,
                                            void* client) noexcept {
    auto& receiver = *static_cast<QVClientCURL*>(client);
    std::string& answer = receiver.responseBody;
    const std::size_t length = size * count;
    receiver.transfer_->answer_too_long = length > MAX_ANSWER_SIZE - answer.size();
    if (receiver.transfer_->answer_too_long)
        return 0;
    try {
        receiver.transfer_->make_room(answer, length);
        answer.append(bytes, length);
        return length;
    } catch (...) { // no exception may pass through libcurl; too little memory ends the transfer
        return 0;
    }
}

void QVClientCURL::Transfer::explain() const {
    const char* reason = explanation[0] != '\0' ? explanation : curl_easy_strerror(result);
    if (answer_too_long)
        logmsgf(16, "QVClientCURL", "%s: the answer is longer than %zu bytes", reason, MAX_ANSWER_SIZE);
    else
        logmsg(16, reason, "QVClientCURL");
}

QVClientCURL::QVClientCURL(const std::string& host, int port, cert_type /*certificate*/,
                           QVCurlSessionType /*session*/, TokenManager_Base* /*tokens*/,
                           const std::string& /*text1*/, bool /*flag1*/, bool /*flag2*/, bool /*flag3*/,
                           const std::string& /*text2*/, const std::string& /*text3*/,
                           const std::string& /*text4*/, const std::string& /*text5*/,
                           const std::string& /*text6*/, const std::string& /*text7*/, bool /*flag4*/,
                           const bool& /*flag5*/, const std::string& /*text8*/, int /*number*/)
    : transfer_(std::make_unique<Transfer>(host, port)) {}

QVClientCURL::~QVClientCURL() = default;

int QVClientCURL::post(const std::string& uri, const std::string& body) {
    return transfer_->perform(*this, "POST", uri, &body);
}

int QVClientCURL::postStream(const std::string& uri, const std::string& body) {
    return transfer_->perform(*this, "POST", uri, &body);
}

int QVClientCURL::put(const std::string& uri, const std::string& body) {
    return transfer_->perform(*this, "PUT", uri, &body);
}

int QVClientCURL::get(const std::string& uri) {
    return transfer_->perform(*this, "GET", uri, nullptr);
}

int QVClientCURL::del(const std::string& uri) {
    return transfer_->perform(*this, "DELETE", uri, nullptr);
}

void QVClientCURL::setupAcceptCurlOption(std::string header) {
    // A line end would start a header of its own.
    header.erase(std::remove_if(header.begin(), header.end(), is_control), header.end());
    transfer_->accept = std::move(header);
}

void QVClientCURL::setConnectTimeout(long seconds) {
    transfer_->connect_timeout = seconds;
}
