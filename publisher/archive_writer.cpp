#include "publisher/archive_writer.h"

#include "publisher/output_file.h"
#include "publisher/progress.h"
#include "publisher/user_error.h"

#include <set>
#include <utility>

namespace {

constexpr std::size_t MAX_NAME_SIZE = 255;
constexpr const char* MAGIC = "JANK";

std::string little_endian(std::uint64_t number, int bytes) {
    std::string text;
    for (int i = 0; i < bytes; ++i)
        text += static_cast<char>(number >> (8 * i) & 0xFFU);
    return text;
}

// An archive on its way to the disk. Where a signature is to come, its place is left free and filled in at the
// end, when all bytes that it covers have gone by.
class ArchiveOutput {
  public:
    ArchiveOutput(const std::string& path, mode_t mode, const SignatureSource& signature, std::uint64_t size,
                  std::ostream* terminal)
        : file_(path, mode), signature_(signature), progress_(size, terminal) {
        const std::string room(signature ? SIGNATURE_SIZE : 0, '\0');
        file_.write(room.data(), room.size());
    }

    void write(const char* bytes, std::size_t count) {
        file_.write(bytes, count);
        if (signature_)
            digest_.update(bytes, count);
        progress_.advance(count);
    }
    void write(const std::string& bytes) { write(bytes.data(), bytes.size()); }

    void write(const SourceFile& source, std::uint64_t from) {
        read_source(source, from, [this](const char* bytes, std::size_t count) { write(bytes, count); });
    }

    // Completes the archive; with the attributes of an earlier one unless `status` is null.
    void finish(const struct stat* status) {
        if (signature_) {
            const std::string signature = signature_(digest_.finish());
            file_.write_at(0, signature.data(), signature.size());
        }
        if (status != nullptr)
            file_.copy_attributes(*status);
        file_.commit();
    }

  private:
    OutputFile file_;
    const SignatureSource& signature_;
    Digest digest_;
    Progress progress_;
};

std::vector<SourceFile> examine_all(const std::vector<std::string>& paths, const std::string& output) {
    std::vector<SourceFile> sources;
    std::set<std::string> names;
    for (const std::string& path : paths) {
        sources.push_back(examine_source(path));
        const std::string& name = sources.back().name;
        if (name.size() > MAX_NAME_SIZE)
            throw UserError("the name " + name + " is longer than 255 bytes");
        if (!names.insert(name).second)
            throw UserError("the name " + name + " comes twice");
        if (is_same_file(path, output))
            throw UserError(output + " is one of the files to put into it");
    }
    return sources;
}

} // namespace

std::string entry_header(const SourceFile& source) {
    return little_endian(source.name.size(), 1) + little_endian(source.size(), 8) +
           little_endian(source.mode(), 2) + source.name;
}

ArchiveSummary create_archive(const std::string& output, const std::vector<std::string>& paths,
                              const SignatureSource& signature, std::ostream* terminal) {
    const std::vector<SourceFile> sources = examine_all(paths, output);
    std::uint64_t size = 0;
    ArchiveSummary summary;
    summary.is_signed = signature != nullptr;
    for (const SourceFile& source : sources) {
        size += entry_header(source).size() + source.size();
        summary.add({source.name, source.size(), source.mode()});
    }
    ArchiveOutput archive(output, 0666, signature, size, terminal);
    archive.write(MAGIC);
    for (const SourceFile& source : sources) {
        archive.write(entry_header(source));
        archive.write(source, 0);
    }
    archive.finish(nullptr);
    return summary;
}

ArchiveSummary sign_archive(const std::string& path, const SignatureSource& signature,
                            std::ostream* terminal) {
    SignableArchive archive = examine_signable(path);
    ArchiveOutput output(archive.source.path, 0600, signature, archive.content_size(), terminal);
    output.write(archive.source, archive.content);
    output.finish(&archive.source.status);
    archive.summary.is_signed = true;
    return std::move(archive.summary);
}
