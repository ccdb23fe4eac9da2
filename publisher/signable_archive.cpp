#include "publisher/signable_archive.h"

#include "publisher/archive_table.h"
#include "publisher/refusal.h"
#include "publisher/signature_source.h"

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <utility>

namespace {

// The path behind all symbolic links, so that a link to an archive stays one.
std::string real_path(const std::string& path) {
    const std::unique_ptr<char, decltype(&std::free)> real(realpath(path.c_str(), nullptr), &std::free);
    if (!real)
        throw Refusal("cannot read " + path, errno);
    return real.get();
}

} // namespace

SignableArchive examine_signable(const std::string& path) {
    SourceFile source = examine_source(real_path(path));
    ArchiveSummary summary = Archive(path).walk([](const ArchiveEntry&) {});
    if (!summary.damage.empty())
        throw Refusal(path + " is damaged: " + summary.damage);
    if (summary.entry_count == 0)
        throw Refusal(path + " holds no entry");
    const std::uint64_t content = summary.is_signed ? SIGNATURE_SIZE : 0;
    return {std::move(source), content, std::move(summary)};
}
