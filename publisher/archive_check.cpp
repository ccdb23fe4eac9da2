#include "publisher/archive_check.h"

#include "files/extractsja.h"
#include "files/file_stream.h"
#include "files/sja_verify.h"
#include "platform/file_descriptor.h"
#include "publisher/checking_key.h"
#include "publisher/progress.h"
#include "publisher/refusal.h"
#include "publisher/source_file.h"

#include <cerrno>

#include <fcntl.h>
#include <unistd.h>

namespace {

// A file whose reader is watched: the server's own check reads it, the progress bar sees how far it is.
struct WatchedFile {
    FileDescriptor file;
    Progress progress;
};

ssize_t read_watched(void* cookie, char* buffer, std::size_t count) {
    auto* watched = static_cast<WatchedFile*>(cookie);
    const ssize_t result = read(watched->file.get(), buffer, count);
    if (result > 0)
        watched->progress.advance(static_cast<std::uint64_t>(result));
    return result;
}

int seek_watched(void* cookie, off64_t* offset, int origin) {
    const off_t place = lseek(static_cast<WatchedFile*>(cookie)->file.get(), *offset, origin);
    *offset = place;
    return place < 0 ? -1 : 0;
}

BufferedStream stream_of(WatchedFile& watched) {
    const cookie_io_functions_t functions = {read_watched, nullptr, seek_watched, nullptr};
    return BufferedStream(fopencookie(&watched, "rb", functions));
}

} // namespace

void verify_archive(const std::string& path, const std::string& key_name, std::ostream* terminal) {
    const CheckingKey key = read_checking_key(key_name);
    const SourceFile source = examine_source(path);
    WatchedFile watched = {FileDescriptor(open(path.c_str(), O_RDONLY | O_CLOEXEC)),
                           {source.size(), terminal}};
    if (!watched.file.is_open())
        throw Refusal("cannot read " + path, errno);
    const BufferedStream archive = stream_of(watched);
    const int form = archive ? verify_jank_archive(archive.get()) : 2;
    if (form == 2)
        throw Refusal(path + " is not an .sja archive");
    if (form == 0)
        throw Refusal(path + " is not signed");
    if (!sja_verify_hash(archive.get(), key.numbers.get()))
        throw Refusal("the signature of " + path + " is not valid for the key in " + key.name);
}
