// Passphrases of private keys.

#ifndef PUBLISHER_PASSPHRASE_H
#define PUBLISHER_PASSPHRASE_H

#include <cstddef>
#include <memory>
#include <string>

// Text that is wiped from memory when its owner goes.
class Passphrase {
  public:
    // Copies `size` bytes and wipes them.
    Passphrase(char* text, std::size_t size);
    Passphrase(const Passphrase&) = delete;
    Passphrase& operator=(const Passphrase&) = delete;
    ~Passphrase();

    const std::string& text() const { return text_; }

  private:
    std::string text_;
};

// The first line of the file at `path`, without its newline. Throws a Refusal when the file cannot be read,
// or its first line is empty or longer than 1023 bytes.
std::shared_ptr<const Passphrase> passphrase_from_file(const std::string& path);

// Asks on the terminal, without showing what is typed; twice when `again`. Throws a Refusal without a
// terminal, for an empty passphrase, and when the two differ.
std::shared_ptr<const Passphrase> passphrase_from_terminal(bool again);

#endif
