#include "publisher/signable_archive.h"

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
    ArchiveTable table = read_archive_table(path);
    if (!table.damage.empty())
        throw Refusal(path + " is damaged: " + table.damage);
    if (table.entries.empty())
        throw Refusal(path + " holds no entry");
    return {std::move(source), table.has_signature ? SIGNATURE_SIZE : 0, std::move(table.entries)};
}
