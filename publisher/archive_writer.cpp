#include "publisher/archive_writer.h"

#include "publisher/output_file.h"
#include "publisher/progress.h"
#include "publisher/refusal.h"
#include "publisher/signable_archive.h"
#include "publisher/signer.h"
#include "publisher/source_file.h"

#include <optional>
#include <set>
#include <utility>

namespace {

constexpr std::size_t LONGEST_NAME = 255;
constexpr const char* MAGIC = "JANK";

std::string little_endian(std::uint64_t number, int bytes) {
    std::string text;
    for (int i = 0; i < bytes; ++i)
        text += static_cast<char>(number >> (8 * i) & 0xFFU);
    return text;
}

// An archive on its way to the disk. Where a signature is to come, its place is left free and filled in at
// the end, when all bytes behind it have gone by.
class ArchiveOutput {
  public:
    ArchiveOutput(const std::string& path, mode_t mode, SignatureSource* signature, std::uint64_t size,
                  std::ostream* terminal)
        : file_(path, mode), signature_(signature), progress_(size, terminal) {
        if (signature == nullptr)
            return;
        const std::string room(SIGNATURE_SIZE, '\0');
        file_.write(room.data(), room.size());
    }

    void write(const char* bytes, std::size_t count) {
        file_.write(bytes, count);
        if (signature_ != nullptr)
            signature_->update(bytes, count);
        progress_.advance(count);
    }
    void write(const std::string& bytes) { write(bytes.data(), bytes.size()); }

    void write(const SourceFile& source, std::uint64_t from) {
        read_source(source, from, [this](const char* bytes, std::size_t count) { write(bytes, count); });
    }

    void take_over(const struct stat& status) { file_.take_over(status); }

    void finish() {
        if (signature_ != nullptr) {
            const std::string signature = signature_->finish();
            file_.write_at(0, signature.data(), signature.size());
        }
        file_.commit();
    }

  private:
    OutputFile file_;
    SignatureSource* signature_;
    Progress progress_;
};

std::vector<SourceFile> examine_all(const std::vector<std::string>& paths, const std::string& output) {
    std::vector<SourceFile> sources;
    std::set<std::string> names;
    for (const std::string& path : paths) {
        sources.push_back(examine_source(path));
        const SourceFile& source = sources.back();
        if (source.name.size() > LONGEST_NAME)
            throw Refusal("the name " + source.name + " is longer than 255 bytes");
        if (!names.insert(source.name).second)
            throw Refusal("the name " + source.name + " comes twice");
        if (is_same_file(path, output))
            throw Refusal(output + " is one of the files to put into it");
    }
    return sources;
}

std::uint64_t archive_size(const std::vector<SourceFile>& sources) {
    std::uint64_t size = std::char_traits<char>::length(MAGIC);
    for (const SourceFile& source : sources)
        size += entry_header(source).size() + source.size();
    return size;
}

} // namespace

std::string entry_header(const SourceFile& source) {
    return little_endian(source.name.size(), 1) + little_endian(source.size(), 8) +
           little_endian(source.mode(), 2) + source.name;
}

ArchiveSummary create_archive(const std::string& output, const std::vector<std::string>& paths, EVP_PKEY* key,
                              std::ostream* terminal) {
    const std::vector<SourceFile> sources = examine_all(paths, output);
    std::optional<Signer> signer;
    if (key != nullptr)
        signer.emplace(key);
    ArchiveOutput archive(output, 0666, signer ? &*signer : nullptr, archive_size(sources), terminal);
    archive.write(MAGIC);
    ArchiveSummary summary;
    summary.is_signed = key != nullptr;
    for (const SourceFile& source : sources) {
        archive.write(entry_header(source));
        archive.write(source, 0);
        summary.add({source.name, source.size(), source.mode()});
    }
    archive.finish();
    return summary;
}

ArchiveSummary sign_archive(const std::string& path, SignatureSource& signature, std::ostream* terminal) {
    SignableArchive archive = examine_signable(path);
    ArchiveOutput output(archive.source.path, 0600, &signature, archive.content_size(), terminal);
    output.write(archive.source, archive.content);
    output.take_over(archive.source.status);
    output.finish();
    archive.summary.is_signed = true;
    return std::move(archive.summary);
}
