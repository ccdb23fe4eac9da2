// Any bytes as an archive that a publisher lists and verifies: the table agrees with the bytes, what is not
// damaged can be put together again from its table, and a signature is accepted when OpenSSL's own check
// accepts it.

#include "files/file_stream.h"
#include "files/sja_verify.h"
#include "publisher/archive.h"
#include "publisher/signature.h"
#include "publisher/user_error.h"
#include "tests/fuzz/support/archive_model.h"
#include "tests/fuzz/support/files.h"
#include "tests/fuzz/support/property.h"
#include "tests/fuzz/support/utf8.h"
#include "tests/support/sja_builder.h"

#include <algorithm>
#include <memory>
#include <optional>
#include <sstream>

#include <openssl/evp.h>
#include <openssl/pem.h>

namespace {

const std::string KEY_FILE = QV_FUZZ_PUBLIC_KEY;

struct release_pubkey {
    void operator()(RSA* key) const { free_pubkey(key); }
};

std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> read_key() {
    const FileStream file(std::fopen(KEY_FILE.c_str(), "re"));
    require(file != nullptr, "the public key is there");
    return {PEM_read_PUBKEY(file.get(), nullptr, nullptr, nullptr), &EVP_PKEY_free};
}

bool openssl_accepts(const std::string& bytes) {
    static const auto key = read_key();
    if (bytes.size() < SIGNATURE_SIZE)
        return false;
    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(), &EVP_MD_CTX_free);
    require(EVP_DigestVerifyInit(context.get(), nullptr, EVP_sha512(), nullptr, key.get()) == 1,
            "OpenSSL takes the public key");
    const auto* start = reinterpret_cast<const unsigned char*>(bytes.data());
    return EVP_DigestVerify(context.get(), start, SIGNATURE_SIZE, start + SIGNATURE_SIZE,
                            bytes.size() - SIGNATURE_SIZE) == 1;
}

bool publisher_accepts(const std::string& path) {
    try {
        verify_archive(path, KEY_FILE, nullptr);
        return true;
    } catch (const UserError&) {
        return false;
    }
}

bool server_accepts(const std::string& path) {
    static const std::unique_ptr<RSA, release_pubkey> key(get_pubkey(KEY_FILE.c_str()));
    const FileStream archive(std::fopen(path.c_str(), "rbe"));
    return sja_verify_hash(archive.get(), key.get());
}

void check_signature(const std::string& path, const std::string& bytes, const ModelArchive& model) {
    const bool accepted = openssl_accepts(bytes);
    require(server_accepts(path) == accepted, "a server accepts the signatures that OpenSSL accepts");
    // Reading the key takes the publisher far longer than refusing what has no signature block.
    if (accepted || model.form == MODEL_SIGNED)
        require(publisher_accepts(path) == (accepted && model.form == MODEL_SIGNED),
                "a publisher accepts signed archives whose signature OpenSSL accepts");
}

struct ArchiveTable {
    ArchiveSummary summary;
    std::vector<ArchiveEntry> entries;
    std::string text;
};

std::optional<ArchiveTable> read_table(const std::string& path) {
    try {
        const Archive archive(path);
        ArchiveTable table;
        table.summary = archive.walk([&](const ArchiveEntry& entry) { table.entries.push_back(entry); });
        std::ostringstream out;
        archive.print(out);
        table.text = out.str();
        return table;
    } catch (const UserError&) {
        return std::nullopt;
    }
}

// The archive behind its signature block, from what the table says and the data that the model finds; none
// where data is missing.
std::optional<std::string> put_together(const ArchiveTable& table, const ModelArchive& model,
                                        const std::string& bytes) {
    std::string archive = "JANK";
    for (std::size_t i = 0; i < table.entries.size(); ++i) {
        const ArchiveEntry& entry = table.entries[i];
        const std::uint64_t offset = model.entries[i].data_offset;
        if (offset > bytes.size() || entry.size > bytes.size() - offset)
            return std::nullopt;
        archive += sja_entry_header(entry.name, entry.size, entry.mode) + bytes.substr(offset, entry.size);
    }
    return archive;
}

void check_table(const ArchiveTable& table, const ModelArchive& model, const std::string& bytes) {
    require(table.summary.is_signed == (model.form == MODEL_SIGNED), "the table knows the form");
    std::size_t whole = 0;
    for (const ModelEntry& entry : model.entries) {
        if (!entry.has_whole_name())
            continue;
        require(whole < table.entries.size(), "every entry with a whole name is in the table");
        const ArchiveEntry& listed = table.entries[whole++];
        require(listed.name == entry.name && listed.size == entry.data_size && listed.mode == entry.mode,
                "a table's entry holds what its header says");
    }
    require(whole == table.entries.size(), "the table holds no entry that is not there");
    const bool whole_archive =
        whole == model.entries.size() && put_together(table, model, bytes) == bytes.substr(model.base);
    require(table.summary.damage.empty() == whole_archive,
            "what is not damaged, and only that, can be put together again from its table");
}

void check_printing(const ArchiveTable& table) {
    const std::string& text = table.text;
    require(std::all_of(text.begin(), text.end(),
                        [](unsigned char c) { return c == '\n' || (c >= 0x20 && c != 0x7f); }),
            "no control character reaches the terminal");
    // The control characters from U+0080 to U+009F are these two bytes.
    for (std::size_t i = 1; i < text.size(); ++i)
        require(text[i - 1] != '\xc2' || static_cast<unsigned char>(text[i]) > 0x9f,
                "no control character reaches the terminal");
    require(is_utf8(text), "what reaches the terminal is UTF-8");
    require(static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')) == table.entries.size() + 2,
            "the table has a heading, a line for each entry and a summary");
    const std::string summary = table.summary.text() + "\n";
    require(text.compare(text.size() - summary.size(), summary.size(), summary) == 0,
            "the table ends in its summary");
    table.summary.warnings("/tmp/package.sja");
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const MemoryFile file;
    const std::string bytes = as_text(data, size);
    file.fill(bytes);
    const ModelArchive model = read_archive_model(bytes);
    const std::optional<ArchiveTable> table = read_table(file.path());
    require(table.has_value() == (model.form != MODEL_NO_ARCHIVE), "every archive has a table");
    if (table) {
        check_table(*table, model, bytes);
        check_printing(*table);
    }
    check_signature(file.path(), bytes, model);
    return 0;
}
