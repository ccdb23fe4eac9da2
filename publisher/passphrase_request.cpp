#include "publisher/passphrase_request.h"

#include "publisher/openssl_error.h"

#include <algorithm>

int give_passphrase(char* buffer, int size, int /*writing*/, void* request) {
    auto* asked = static_cast<PassphraseRequest*>(request);
    asked->made = true;
    if (asked->passphrase == nullptr)
        return -1;
    const std::string& text = asked->passphrase->text();
    if (text.size() > static_cast<std::size_t>(size))
        return -1;
    std::copy(text.begin(), text.end(), buffer);
    return static_cast<int>(text.size());
}

ui_method_ptr passphrase_method() {
    ui_method_ptr method(UI_UTIL_wrap_read_pem_callback(give_passphrase, 0));
    check_openssl(method != nullptr);
    return method;
}

Refusal passphrase_refusal(const std::string& key, const PassphraseRequest& request) {
    return Refusal(request.passphrase == nullptr ? "the key in " + key + " needs a passphrase"
                                                 : "the passphrase does not fit the key in " + key);
}
