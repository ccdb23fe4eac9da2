#include "publisher/passphrase.h"

#include "platform/file_descriptor.h"
#include "publisher/refusal.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>

namespace {

// What OpenSSL's own tools accept, so that they can use the key as well.
constexpr std::size_t LONGEST_PASSPHRASE = 1023;

// A passphrase that is being read, and its end: a newline, or a NUL from OpenSSL.
struct Buffer {
    std::array<char, LONGEST_PASSPHRASE + 1> bytes = {};

    Buffer() = default;
    Buffer(const Buffer&) = delete;
    Buffer& operator=(const Buffer&) = delete;
    ~Buffer() { OPENSSL_cleanse(bytes.data(), bytes.size()); }
};

// Fills the buffer as far as the first line reaches, and returns the length of that line without its newline;
// the buffer's size for a longer one.
std::size_t read_line(int file, Buffer& buffer) {
    std::size_t filled = 0;
    while (filled < buffer.bytes.size()) {
        char* const start = buffer.bytes.data() + filled;
        const ssize_t count = read(file, start, buffer.bytes.size() - filled);
        if (count < 0 && errno == EINTR)
            continue;
        // A folder opens well, and fails here.
        if (count <= 0)
            break;
        char* const end = start + count;
        filled += static_cast<std::size_t>(count);
        if (char* const newline = std::find(start, end, '\n'); newline != end)
            return static_cast<std::size_t>(newline - buffer.bytes.data());
    }
    return filled;
}

} // namespace

Passphrase::Passphrase(char* text, std::size_t size) : text_(text, size) {
    OPENSSL_cleanse(text, size);
}

Passphrase::~Passphrase() {
    OPENSSL_cleanse(text_.data(), text_.size());
}

std::shared_ptr<const Passphrase> passphrase_from_file(const std::string& path) {
    // A pipe is waited for: another program writes the passphrase.
    const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    if (!file.is_open())
        throw Refusal("cannot read " + path, errno);
    Buffer buffer;
    const std::size_t length = read_line(file.get(), buffer);
    if (length == 0)
        throw Refusal(path + " holds no passphrase in its first line");
    if (length > LONGEST_PASSPHRASE)
        throw Refusal("the passphrase in " + path + " is longer than 1023 bytes");
    return std::make_shared<const Passphrase>(buffer.bytes.data(), length);
}

std::shared_ptr<const Passphrase> passphrase_from_terminal(bool again) {
    // Without a terminal, OpenSSL would read the passphrase from standard input instead.
    if (!FileDescriptor(open("/dev/tty", O_RDWR | O_CLOEXEC)).is_open())
        throw Refusal("there is no terminal to ask for the passphrase on");
    Buffer buffer;
    const int result = EVP_read_pw_string(buffer.bytes.data(), static_cast<int>(buffer.bytes.size()),
                                          "Passphrase: ", again ? 1 : 0);
    if (result != 0)
        throw Refusal(again ? "the passphrase was not given twice" : "no passphrase was given");
    const std::size_t length = std::strlen(buffer.bytes.data());
    if (length == 0)
        throw Refusal("the passphrase is empty");
    return std::make_shared<const Passphrase>(buffer.bytes.data(), length);
}
