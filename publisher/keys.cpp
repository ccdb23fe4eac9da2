#include "publisher/keys.h"

#include "publisher/key_store.h"
#include "publisher/output_file.h"
#include "publisher/source_file.h"

#include <filesystem>
#include <functional>

#include <openssl/pem.h>
#include <openssl/pkcs12.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

namespace {

constexpr int KEY_BITS = 4096;
// How often the passphrase is hashed: guessing one costs this much each time. OpenSSL's own default is 2048.
constexpr int PASSPHRASE_ITERATIONS = 600000;
// What a master server reads of its public key.
constexpr off_t MAX_PUBLIC_KEY_FILE_SIZE = 65535;

void check_files(const KeyPairFiles& files, const PassphraseSource& source) {
    if (is_same_file(files.private_path, files.public_path))
        throw UserError("the private and the public key need a file each");
    for (const std::string& path : {files.private_path, files.public_path}) {
        if (!files.replace && std::filesystem::exists(std::filesystem::symlink_status(path)))
            throw UserError(path + " exists already; --force replaces it");
        if (is_same_file(path, source.file))
            throw UserError(path + " is the file with the passphrase");
    }
    if (key_in_file(files.public_path) == KeyHalf::PRIVATE)
        throw UserError(files.public_path + " holds a private key, which would be lost");
}

// Writes the PEM text that `make` gives.
void write_pem(OutputFile& file, const std::function<bool(BIO* pem)>& make) {
    const BioHandle pem(BIO_new(BIO_s_mem()));
    check_openssl(pem && make(pem.get()));
    char* bytes = nullptr;
    const long count = BIO_get_mem_data(pem.get(), &bytes);
    file.write(bytes, static_cast<std::size_t>(count));
}

bool make_private_pem(BIO* pem, EVP_PKEY* key, const Passphrase* passphrase) {
    if (passphrase == nullptr)
        return PEM_write_bio_PrivateKey(pem, key, nullptr, nullptr, 0, nullptr, nullptr) == 1;
    const Handle<PKCS8_PRIV_KEY_INFO, &PKCS8_PRIV_KEY_INFO_free> plain(EVP_PKEY2PKCS8(key));
    check_openssl(plain != nullptr);
    const Handle<X509_SIG, &X509_SIG_free> encrypted(
        PKCS8_encrypt(-1, EVP_aes_256_cbc(), passphrase->bytes.data(), static_cast<int>(passphrase->size),
                      nullptr, 0, PASSPHRASE_ITERATIONS, plain.get()));
    return encrypted && PEM_write_bio_PKCS8(pem, encrypted.get()) == 1;
}

// A copy of the file at `path`, ready to be put back; null where there is no regular file.
std::unique_ptr<OutputFile> copy_of(const std::string& path) {
    std::error_code error;
    if (!std::filesystem::is_regular_file(path, error))
        return nullptr;
    const SourceFile source = examine_source(path);
    auto copy = std::make_unique<OutputFile>(path, 0600);
    read_source(source, 0, [&](const char* bytes, std::size_t count) { copy->write(bytes, count); });
    copy->copy_attributes(source.status);
    return copy;
}

// The public half, which can be made again from the private one, goes first: at every moment there is a whole
// private key, the earlier one or the new one.
void commit_pair(OutputFile& private_file, OutputFile& public_file, const KeyPairFiles& files) {
    const std::unique_ptr<OutputFile> earlier = files.replace ? copy_of(files.public_path) : nullptr;
    const auto commit = [&files](OutputFile& file) {
        if (files.replace)
            file.commit();
        else
            file.commit_new();
    };
    try {
        commit(public_file);
        commit(private_file);
    } catch (const UserError&) {
        if (files.replace && private_file.is_in_place())
            throw;
        private_file.remove();
        if (earlier && public_file.is_in_place())
            earlier->commit();
        else
            public_file.remove();
        throw;
    }
}

KeyHandle read_private_file(const std::string& path, const PassphraseSource& source) {
    struct stat status = {};
    const PassphraseHandle passphrase = read_passphrase(source);
    const FileStream file = open_stream(path, status);
    PassphraseRequest request = {passphrase.get()};
    KeyHandle key(PEM_read_PrivateKey(file.get(), nullptr, give_passphrase, &request));
    ERR_clear_error();
    if (!key && request.made)
        throw request.error(path);
    return key;
}

KeyHandle read_public_file(const std::string& path) {
    struct stat status = {};
    const FileStream file = open_stream(path, status);
    PassphraseRequest no_passphrase = {nullptr};
    KeyHandle key(PEM_read_PUBKEY(file.get(), nullptr, give_passphrase, &no_passphrase));
    ERR_clear_error();
    if (key && status.st_size > MAX_PUBLIC_KEY_FILE_SIZE)
        throw UserError("a master server cannot read " + path + ": it has more than 65535 bytes");
    return key;
}

// Returns `key`, read from the file or URI that is called `name`, if it is one for packages.
KeyHandle check_key(KeyHandle key, const std::string& name, KeyHalf half) {
    if (!key)
        throw UserError(name + " holds no " + name_of(half) + " key");
    if (EVP_PKEY_is_a(key.get(), "RSA") == 0 || EVP_PKEY_get_bits(key.get()) != KEY_BITS)
        throw UserError("the key in " + name + " is not an RSA key of 4096 bits");
    return key;
}

// A copy of the key's numbers alone, so that the check is made here wherever the key comes from.
KeyHandle copy_numbers(const KeyHandle& key) {
    std::string bytes(static_cast<std::size_t>(i2d_PUBKEY(key.get(), nullptr)), '\0');
    unsigned char* end = bytes_of(bytes);
    check_openssl(i2d_PUBKEY(key.get(), &end) > 0);
    const unsigned char* start = bytes_of(bytes);
    KeyHandle copy(d2i_PUBKEY(nullptr, &start, static_cast<long>(bytes.size())));
    check_openssl(copy != nullptr);
    return copy;
}

} // namespace

void create_key_pair(const KeyPairFiles& files, const PassphraseSource& source) {
    check_files(files, source);
    const PassphraseHandle passphrase = read_passphrase(source, true);
    const KeyHandle key(EVP_RSA_gen(KEY_BITS));
    check_openssl(key != nullptr);
    OutputFile private_file(files.private_path, 0600);
    OutputFile public_file(files.public_path, 0666);
    write_pem(private_file, [&](BIO* pem) { return make_private_pem(pem, key.get(), passphrase.get()); });
    write_pem(public_file, [&](BIO* pem) { return PEM_write_bio_PUBKEY(pem, key.get()) == 1; });
    commit_pair(private_file, public_file, files);
}

KeyHandle read_private_key(const std::string& name, const PassphraseSource& source) {
    if (!is_key_uri(name))
        return check_key(read_private_file(name, source), name, KeyHalf::PRIVATE);
    const KeyUri uri = parse_key_uri(name);
    if (uri.has_pin_file() && source.is_given())
        throw UserError("the key's URI names a PIN, and another passphrase is given");
    return check_key(read_stored_key(uri, KeyHalf::PRIVATE, read_passphrase(source)), uri.location,
                     KeyHalf::PRIVATE);
}

PublicKey read_public_key(const std::string& name) {
    if (!is_key_uri(name))
        return {name, check_key(read_public_file(name), name, KeyHalf::PUBLIC)};
    const KeyUri uri = parse_key_uri(name);
    const KeyHandle key =
        check_key(read_stored_key(uri, KeyHalf::PUBLIC, nullptr), uri.location, KeyHalf::PUBLIC);
    return {uri.location, copy_numbers(key)};
}

std::string local_file_of(const std::string& key_name) {
    return is_key_uri(key_name) ? parse_key_uri(key_name).file : key_name;
}
