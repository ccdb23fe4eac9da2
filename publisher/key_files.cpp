#include "publisher/key_files.h"

#include "publisher/key_uri.h"
#include "publisher/refusal.h"
#include "publisher/uri_key.h"

#include <memory>

#include <sys/stat.h>
#include <unistd.h>

namespace {

std::shared_ptr<const Passphrase> passphrase_from(const PassphraseSource& source, bool again) {
    if (!source.file.empty())
        return std::shared_ptr<const Passphrase>(new Passphrase(passphrase_from_file(source.file)));
    if (source.ask)
        return std::shared_ptr<const Passphrase>(new Passphrase(passphrase_from_terminal(again)));
    return nullptr;
}

bool is_there(const std::string& path) {
    struct stat status = {};
    return lstat(path.c_str(), &status) == 0;
}

void check_free(const KeyPairFiles& files) {
    if (files.private_path == files.public_path)
        throw Refusal("the private and the public key need a file each");
    for (const std::string& path : {files.private_path, files.public_path})
        if (!files.replace && is_there(path))
            throw Refusal(path + " is there already; --force replaces it");
}

} // namespace

void make_key_pair(const KeyPairFiles& files, const PassphraseSource& source) {
    check_free(files);
    const std::shared_ptr<const Passphrase> passphrase = passphrase_from(source, true);
    const pkey_ptr key = generate_key();
    const bool replaced = is_there(files.private_path);
    write_private_key(files.private_path, key.get(), passphrase.get());
    try {
        write_public_key(files.public_path, key.get());
    } catch (const Refusal&) {
        if (!replaced)
            unlink(files.private_path.c_str());
        throw;
    }
}

pkey_ptr signing_key(const std::string& name, const PassphraseSource& source) {
    if (!is_key_uri(name))
        return read_private_key(name, passphrase_from(source, false).get());
    KeyUri uri = parse_key_uri(name);
    const bool has_passphrase = source.ask || !source.file.empty();
    if (uri.pin && has_passphrase)
        throw Refusal("the key's URI holds a PIN, and another passphrase is given");
    if (has_passphrase)
        uri.pin = passphrase_from(source, false);
    return read_key(uri, KeyHalf::PRIVATE);
}
