#include "publisher/passphrase.h"

#include "files/file_stream.h"
#include "platform/file_descriptor.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <fcntl.h>

namespace {

PassphraseHandle read_from_file(const std::string& path) {
    // Waits for a pipe, into which another program writes the passphrase.
    const FileStream file(std::fopen(path.c_str(), "re"));
    if (!file)
        throw UserError("cannot read " + path, errno);
    std::setbuf(file.get(), nullptr); // would not be wiped
    auto passphrase = std::make_shared<Passphrase>();
    std::size_t& size = passphrase->size;
    for (int c = std::fgetc(file.get()); c != EOF && c != '\n' && size < passphrase->bytes.size();
         c = std::fgetc(file.get()))
        passphrase->bytes[size++] = static_cast<char>(c);
    if (size == 0)
        throw UserError(path + " holds no passphrase in its first line");
    if (size > Passphrase::MAX_SIZE)
        throw UserError("the passphrase in " + path + " is longer than 1023 bytes");
    return passphrase;
}

PassphraseHandle read_from_terminal(bool confirm) {
    // Without a terminal, OpenSSL would read the passphrase from standard input instead.
    if (!FileDescriptor(open("/dev/tty", O_RDWR | O_CLOEXEC)).is_open())
        throw UserError("there is no terminal to ask for the passphrase on");
    auto passphrase = std::make_shared<Passphrase>();
    char* const text = passphrase->bytes.data();
    if (EVP_read_pw_string(text, static_cast<int>(passphrase->bytes.size()),
                           "Passphrase: ", confirm ? 1 : 0) != 0)
        throw UserError(confirm ? "the passphrase was not given twice" : "no passphrase was given");
    passphrase->size = std::strlen(text);
    if (passphrase->size == 0)
        throw UserError("the passphrase is empty");
    return passphrase;
}

// OpenSSL leaves copies of a passphrase in the stack frames of calls that have returned.
[[gnu::noinline]] void wipe_stack() {
    std::array<char, 32UL * 1024> frames;
    OPENSSL_cleanse(frames.data(), frames.size());
}

} // namespace

Passphrase::~Passphrase() {
    OPENSSL_cleanse(bytes.data(), bytes.size());
    wipe_stack();
}

PassphraseHandle read_passphrase(const PassphraseSource& source, bool confirm) {
    if (!source.file.empty())
        return read_from_file(source.file);
    return source.ask ? read_from_terminal(confirm) : nullptr;
}

UserError PassphraseRequest::error(const std::string& key) const {
    return UserError(passphrase == nullptr ? "the key in " + key + " needs a passphrase"
                                           : "the passphrase does not match the key in " + key);
}

int give_passphrase(char* buffer, int size, int /*writing*/, void* request) {
    auto* asked = static_cast<PassphraseRequest*>(request);
    asked->made = true;
    const Passphrase* passphrase = asked->passphrase;
    if (passphrase == nullptr || passphrase->size > static_cast<std::size_t>(size))
        return -1;
    std::copy_n(passphrase->bytes.begin(), passphrase->size, buffer);
    return static_cast<int>(passphrase->size);
}

UiMethodHandle passphrase_method() {
    UiMethodHandle method(UI_UTIL_wrap_read_pem_callback(give_passphrase, 0));
    check_openssl(method != nullptr);
    return method;
}
