// Owned C streams.

#ifndef FILES_FILE_STREAM_H
#define FILES_FILE_STREAM_H

#include "platform/handle.h"

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <memory>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

// Streams that were written are closed by hand, where the result counts.
using FileStream = std::unique_ptr<FILE, Release<std::fclose>>;

// Opens `path` for reading, like fopen with "rbe", but never waits for the writer of a pipe: a pipe is not
// opened, and errno is EINVAL.
inline FILE* open_to_read(const char* path) {
    const int file = ::open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    if (file < 0)
        return nullptr;
    struct stat status = {};
    const bool pipe = fstat(file, &status) != 0 || S_ISFIFO(status.st_mode);
    FILE* stream = pipe ? nullptr : fdopen(file, "rb");
    if (stream == nullptr) {
        ::close(file);
        errno = EINVAL;
    }
    return stream;
}

// Whether `file` is the state of the file that the stream reads or writes.
inline bool is_file_of(FILE* stream, const struct stat& file) {
    struct stat other = {};
    return fstat(fileno(stream), &other) == 0 && other.st_dev == file.st_dev && other.st_ino == file.st_ino;
}

// Package files are read and written in chunks of 4096 bytes. A stream's buffer of this many bytes
// keeps the number of system calls low without making the chunks larger.
inline constexpr std::size_t STREAM_BUFFER_SIZE = 256UL * 1024UL;

// A stream with a buffer of STREAM_BUFFER_SIZE bytes. The buffer has to outlive the stream, whoever closes
// it.
class BufferedStream {
  public:
    // Adopts `stream`, which may be null and on which nothing may have been read or written yet.
    explicit BufferedStream(FILE* stream) : buffer_(STREAM_BUFFER_SIZE), stream_(stream) {
        if (stream != nullptr)
            static_cast<void>(std::setvbuf(stream, buffer_.data(), _IOFBF, buffer_.size()));
    }

    explicit operator bool() const { return stream_ != nullptr; }
    FILE* get() const { return stream_.get(); }

    // Leaves the closing to the caller, who has to do it while this object lives.
    FILE* release() { return stream_.release(); }

    // Writes out what is buffered and closes the stream. Whether both succeeded; errno says why not.
    bool close() { return std::fclose(stream_.release()) == 0; }

  private:
    std::vector<char> buffer_;
    FileStream stream_;
};

// Moves the stream to `offset`. False for an offset that no file can have, or when seeking fails.
inline bool seek_to(FILE* stream, std::uint64_t offset) {
    return offset <= static_cast<std::uint64_t>(std::numeric_limits<off_t>::max()) &&
           fseeko(stream, static_cast<off_t>(offset), SEEK_SET) == 0;
}

// Reads up to `length` bytes; where the stream ends earlier, the rest of `buffer` keeps what it held. False
// when the stream reports an error.
inline bool read_up_to(FILE* stream, void* buffer, std::size_t length) {
    return std::fread(buffer, 1, length, stream) == length || std::ferror(stream) == 0;
}

#endif
