// The system's only way to PKCS #11 is an engine where no provider for it is packaged, as on Debian 12.
// OpenSSL 3 still carries engines, and warns of them.
#define OPENSSL_SUPPRESS_DEPRECATED

#include "publisher/key_store.h"

#include "files/extractsja.h"
#include "publisher/source_file.h"

#include <filesystem>
#include <functional>
#include <utility>

#include <openssl/engine.h>
#include <openssl/provider.h>
#include <openssl/store.h>

namespace {

constexpr std::uintmax_t MAX_KEY_FILE_SIZE = 65536; // larger files are not taken for keys

using StoreHandle = Handle<OSSL_STORE_CTX, &OSSL_STORE_close>;
using InfoHandle = Handle<OSSL_STORE_INFO, &OSSL_STORE_INFO_free>;

bool is_served(const std::string& scheme) {
    const Handle<OSSL_STORE_LOADER, &OSSL_STORE_LOADER_free> loader(
        OSSL_STORE_LOADER_fetch(nullptr, scheme.c_str(), nullptr));
    ERR_clear_error();
    return loader != nullptr;
}

// Whether a provider finds keys at URIs of `scheme`. For "pkcs11" the provider of that name is loaded where it
// is installed; OpenSSL's configuration names the others.
bool has_provider(const std::string& scheme) {
    if (is_served(scheme))
        return true;
    if (scheme != "pkcs11")
        return false;
    // For the rest of the process: keys from a provider work no longer than the provider.
    static const Handle<OSSL_PROVIDER, &OSSL_PROVIDER_unload> provider(
        OSSL_PROVIDER_try_load(nullptr, "pkcs11", 1));
    return is_served(scheme);
}

// Where OpenSSL looks for keys.
struct Store {
    // The regular file at `path`, which messages call `name`.
    Store(const std::string& path, const std::string& name, const Passphrase* passphrase)
        : request{passphrase} {
        struct stat status = {};
        file.reset(BIO_new_fp(open_stream(path, status, name).release(), BIO_CLOSE));
        check_openssl(file != nullptr);
        handle.reset(OSSL_STORE_attach(file.get(), "file", nullptr, nullptr, ask.get(), &request, nullptr,
                                       nullptr, nullptr));
    }

    // A provider. Telling it what is wanted spares devices a search.
    Store(const std::string& location, int wanted, const Passphrase* passphrase) : request{passphrase} {
        handle.reset(OSSL_STORE_open(location.c_str(), ask.get(), &request, nullptr, nullptr));
        check_openssl(!handle || OSSL_STORE_expect(handle.get(), wanted) == 1);
    }

    // Passes everything that is found to `visit`, with its type.
    void for_each(const std::function<void(OSSL_STORE_INFO* info, int type)>& visit) const {
        while (handle && OSSL_STORE_eof(handle.get()) == 0) {
            const InfoHandle info(OSSL_STORE_load(handle.get()));
            if (!info && OSSL_STORE_error(handle.get()) != 0)
                return;
            if (info)
                visit(info.get(), OSSL_STORE_INFO_get_type(info.get()));
        }
    }

    PassphraseRequest request;
    UiMethodHandle ask = passphrase_method();
    BioHandle file;
    StoreHandle handle;
};

KeyHandle read_from_store(const KeyUri& uri, KeyHalf half, const Passphrase* passphrase) {
    const int wanted = half == KeyHalf::PRIVATE ? OSSL_STORE_INFO_PKEY : OSSL_STORE_INFO_PUBKEY;
    const Store store = uri.scheme == "file" ? Store(uri.file, uri.location, passphrase)
                                             : Store(uri.location, wanted, passphrase);
    KeyHandle key;
    // What is not wanted comes all the same from a file, and from a provider that does not sort its objects.
    store.for_each([&](OSSL_STORE_INFO* info, int type) {
        if (type != wanted)
            return;
        if (key)
            throw UserError(uri.location + " holds more than one " + name_of(half) + " key");
        key.reset(half == KeyHalf::PRIVATE ? OSSL_STORE_INFO_get1_PKEY(info)
                                           : OSSL_STORE_INFO_get1_PUBKEY(info));
    });
    ERR_clear_error();
    if (!key && store.request.made)
        throw store.request.error(uri.location);
    return key;
}

// The engine at work, with the PIN that it asks for: when it looks up a key, and for some keys once more when
// they sign. So a key keeps the session that it comes from.
class EngineSession {
  public:
    explicit EngineSession(PassphraseHandle pin)
        : pin_(std::move(pin)), request_{pin_.get()}, ask_(passphrase_method()) {
        OPENSSL_init_crypto(OPENSSL_INIT_LOAD_CONFIG, nullptr);
        engine_.reset(ENGINE_by_id("pkcs11"));
        ERR_clear_error();
        if (!engine_)
            throw UserError("keys at pkcs11: URIs need OpenSSL's provider or engine for PKCS #11; neither is "
                            "installed");
        // It would print its own explanations of failures to standard error.
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
    PassphraseHandle pin_;
    PassphraseRequest request_;
    UiMethodHandle ask_;
    Handle<ENGINE, &ENGINE_free> engine_;
};

// The engine's own reason, which OpenSSL's later errors only hide.
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

KeyHandle read_from_engine(const KeyUri& uri, KeyHalf half, PassphraseHandle pin) {
    const auto session = std::make_shared<EngineSession>(std::move(pin));
    KeyHandle key(session->load(uri.location, half), {session});
    const std::string reason = reason_of_failure();
    if (key)
        return key;
    const std::string name = std::string(name_of(half)) + " key " + uri.location;
    if (reason == "invalid id")
        throw UserError(uri.location + " is not a PKCS #11 URI");
    if (reason == "PIN incorrect")
        throw UserError("the PIN does not match the token of the " + name);
    if (reason != "object not found")
        throw UserError("cannot reach the " + name + ": " + reason);
    if (half == KeyHalf::PRIVATE && session->lacks_pin())
        throw UserError("the token of the " + name + " needs a PIN");
    throw UserError("no token has the " + name);
}

} // namespace

KeyHandle read_stored_key(const KeyUri& uri, KeyHalf half, PassphraseHandle passphrase) {
    if (uri.has_pin_file())
        passphrase = read_passphrase({uri.file, false});
    check_object_type(uri, half);
    if (has_provider(uri.scheme))
        return read_from_store(uri, half, passphrase.get());
    if (uri.scheme == "pkcs11")
        return read_from_engine(uri, half, std::move(passphrase));
    throw UserError("nothing here reads keys at " + uri.scheme + ": URIs; a file of that name is ./" +
                    uri.location);
}

std::optional<KeyHalf> key_in_file(const std::string& path) {
    std::error_code error;
    if (!std::filesystem::is_regular_file(path, error) ||
        std::filesystem::file_size(path) > MAX_KEY_FILE_SIZE)
        return std::nullopt;
    struct stat status = {};
    if (verify_jank_archive(open_stream(path, status).get()) != 2)
        return std::nullopt;
    const Store store(path, path, nullptr);
    std::optional<KeyHalf> found;
    store.for_each([&found](OSSL_STORE_INFO* /*info*/, int type) {
        if (type == OSSL_STORE_INFO_PKEY)
            found = KeyHalf::PRIVATE;
        if (type == OSSL_STORE_INFO_PUBKEY && !found)
            found = KeyHalf::PUBLIC;
    });
    ERR_clear_error();
    return store.request.made ? KeyHalf::PRIVATE : found;
}
