#include "publisher/key_files.h"

#include "publisher/key_store.h"
#include "publisher/output_file.h"
#include "publisher/refusal.h"
#include "publisher/source_file.h"
#include "publisher/uri_key.h"

#include <filesystem>

namespace {

std::shared_ptr<const Passphrase> passphrase_from(const PassphraseSource& source, bool again) {
    if (!source.file.empty())
        return passphrase_from_file(source.file);
    return source.ask ? passphrase_from_terminal(again) : nullptr;
}

bool is_there(const std::string& path) {
    struct stat status = {};
    return lstat(path.c_str(), &status) == 0;
}

void check_free(const KeyPairFiles& files, const PassphraseSource& source) {
    if (is_same_file(files.private_path, files.public_path))
        throw Refusal("the private and the public key need a file each");
    for (const std::string& path : {files.private_path, files.public_path}) {
        if (!files.replace && is_there(path))
            throw Refusal(path + " is there already; --force replaces it");
        if (!source.file.empty() && is_same_file(path, source.file))
            throw Refusal(path + " is the file with the passphrase");
    }
    if (key_in_file(files.public_path) == KeyHalf::PRIVATE)
        throw Refusal(files.public_path + " holds a private key, which would be lost");
}

// The file at `path` once more, ready to be put back; null where there is no regular file.
std::unique_ptr<OutputFile> copy_of(const std::string& path) {
    std::error_code error;
    if (!std::filesystem::is_regular_file(path, error))
        return nullptr;
    const SourceFile source = examine_source(path);
    auto copy = std::make_unique<OutputFile>(path, 0600);
    read_source(source, 0, [&](const char* bytes, std::size_t count) { copy->write(bytes, count); });
    copy->take_over(source.status);
    return copy;
}

} // namespace

void make_key_pair(const KeyPairFiles& files, const PassphraseSource& source) {
    check_free(files, source);
    const std::shared_ptr<const Passphrase> passphrase = passphrase_from(source, true);
    const pkey_ptr key = generate_key();
    OutputFile private_file(files.private_path, 0600);
    OutputFile public_file(files.public_path, 0666);
    write_private_key(private_file, key.get(), passphrase.get());
    write_public_key(public_file, key.get());
    const std::unique_ptr<OutputFile> earlier = files.replace ? copy_of(files.public_path) : nullptr;
    const auto commit = files.replace ? &OutputFile::commit : &OutputFile::commit_new;
    // The public half, which can be made again from the private one, goes first: at every moment there is a
    // whole private key, the earlier one or the new one.
    (public_file.*commit)();
    try {
        (private_file.*commit)();
    } catch (const Refusal&) {
        if (files.replace && private_file.is_in_place())
            throw;
        private_file.remove();
        if (earlier)
            earlier->commit();
        else
            public_file.remove();
        throw;
    }
}

pkey_ptr signing_key(const std::string& name, const PassphraseSource& source) {
    if (!is_key_uri(name))
        return read_private_key(name, passphrase_from(source, false).get());
    const KeyUri uri = parse_key_uri(name);
    if (uri.names_pin_file() && (source.ask || !source.file.empty()))
        throw Refusal("the key's URI holds a PIN, and another passphrase is given");
    return read_key(uri, KeyHalf::PRIVATE, passphrase_from(source, false));
}

std::string local_file(const std::string& key_name) {
    return is_key_uri(key_name) ? parse_key_uri(key_name).file : key_name;
}
