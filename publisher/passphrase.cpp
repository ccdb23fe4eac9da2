#include "publisher/passphrase.h"

#include "platform/file_descriptor.h"
#include "publisher/refusal.h"

#include <array>
#include <cerrno>
#include <fstream>

#include <fcntl.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>

namespace {

// What OpenSSL's own tools accept, so that they can use the key as well.
constexpr std::size_t LONGEST_PASSPHRASE = 1023;

} // namespace

Passphrase::Passphrase(std::string& text) : text_(text) {
    OPENSSL_cleanse(text.data(), text.size());
}

Passphrase::~Passphrase() {
    OPENSSL_cleanse(text_.data(), text_.size());
}

Passphrase passphrase_from_file(const std::string& path) {
    std::ifstream file(path);
    std::string line;
    if (!file)
        throw Refusal("cannot read " + path, errno);
    // A folder opens well, and fails here.
    if (!std::getline(file, line) || line.empty())
        throw Refusal(path + " holds no passphrase in its first line");
    if (line.size() > LONGEST_PASSPHRASE)
        throw Refusal("the passphrase in " + path + " is longer than 1023 bytes");
    return Passphrase(line);
}

Passphrase passphrase_from_terminal(bool again) {
    // Without a terminal, OpenSSL would read the passphrase from standard input instead.
    if (!FileDescriptor(open("/dev/tty", O_RDWR | O_CLOEXEC)).is_open())
        throw Refusal("there is no terminal to ask for the passphrase on");
    std::array<char, LONGEST_PASSPHRASE + 1> buffer = {};
    const int result =
        EVP_read_pw_string(buffer.data(), static_cast<int>(buffer.size()), "Passphrase: ", again ? 1 : 0);
    std::string text = buffer.data();
    OPENSSL_cleanse(buffer.data(), buffer.size());
    if (result != 0)
        throw Refusal(again ? "the passphrase was not given twice" : "no passphrase was given");
    if (text.empty())
        throw Refusal("the passphrase is empty");
    return Passphrase(text);
}
