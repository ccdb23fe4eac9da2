// The system's only way to PKCS #11 is an engine where no provider for it is packaged, as on Debian 12.
// OpenSSL 3 still carries engines, and warns of them; here alone.
#define OPENSSL_SUPPRESS_DEPRECATED

#include "publisher/key_engine.h"

#include "publisher/openssl_error.h"
#include "publisher/passphrase_request.h"

#include <string>
#include <utility>

#include <openssl/engine.h>
#include <openssl/err.h>

namespace {

struct release_engine {
    void operator()(ENGINE* engine) const { ENGINE_free(engine); }
};

// The engine at work, with the PIN that it asks for: when a key is looked up, and for some keys once more
// when they sign. So a key keeps the session that it comes from.
class EngineSession {
  public:
    explicit EngineSession(std::shared_ptr<const Passphrase> pin)
        : pin_(std::move(pin)), request_{pin_.get()}, ask_(passphrase_method()) {
        OPENSSL_init_crypto(OPENSSL_INIT_LOAD_CONFIG, nullptr);
        engine_.reset(ENGINE_by_id("pkcs11"));
        ERR_clear_error();
        if (!engine_)
            throw Refusal("keys at pkcs11: URIs need OpenSSL's provider or engine for PKCS #11; neither is "
                          "installed");
        // It would explain failures on standard error, in words of its own.
        ENGINE_ctrl_cmd_string(engine_.get(), "QUIET", nullptr, 0);
        ENGINE_ctrl_cmd(engine_.get(), "SET_USER_INTERFACE", 0, ask_.get(), nullptr, 0);
        ENGINE_ctrl_cmd(engine_.get(), "SET_CALLBACK_DATA", 0, &request_, nullptr, 0);
        check_openssl(ENGINE_init(engine_.get()) == 1);
    }
    EngineSession(const EngineSession&) = delete;
    EngineSession& operator=(const EngineSession&) = delete;
    ~EngineSession() { ENGINE_finish(engine_.get()); }

    EVP_PKEY* load(const std::string& location, KeyHalf half) {
        const auto load_half = half == KeyHalf::PRIVATE ? &ENGINE_load_private_key : &ENGINE_load_public_key;
        return load_half(engine_.get(), location.c_str(), ask_.get(), &request_);
    }

    bool lacks_pin() const { return request_.made && !pin_; }

  private:
    std::shared_ptr<const Passphrase> pin_;
    PassphraseRequest request_;
    ui_method_ptr ask_;
    std::unique_ptr<ENGINE, release_engine> engine_;
};

// The reason that the engine gives, which what OpenSSL adds to it only hides.
std::string reason_of_failure() {
    std::string reason = "no reason given";
    while (const unsigned long code = ERR_get_error()) {
        const char* text = ERR_reason_error_string(code);
        if (ERR_GET_LIB(code) == ERR_LIB_ENGINE || ERR_GET_LIB(code) == ERR_LIB_DSO || text == nullptr)
            continue;
        reason = text;
        break;
    }
    ERR_clear_error();
    return reason;
}

Refusal nothing_found(const KeyUri& uri, KeyHalf half, const EngineSession& session) {
    const std::string reason = reason_of_failure();
    const std::string key = std::string(name_of(half)) + " key " + uri.location;
    if (reason == "invalid id")
        return Refusal(uri.location + " is no PKCS #11 URI");
    if (reason == "PIN incorrect")
        return Refusal("the PIN does not fit the token of the " + key);
    if (reason != "object not found")
        return Refusal("cannot reach the " + key + ": " + reason);
    if (half == KeyHalf::PRIVATE && session.lacks_pin())
        return Refusal("the token of the " + key + " needs a PIN");
    return Refusal("no token has the " + key);
}

} // namespace

pkey_ptr read_key_from_engine(const KeyUri& uri, KeyHalf half, std::shared_ptr<const Passphrase> pin) {
    const auto session = std::make_shared<EngineSession>(std::move(pin));
    pkey_ptr key(session->load(uri.location, half), {session});
    if (!key)
        throw nothing_found(uri, half, *session);
    ERR_clear_error();
    return key;
}
