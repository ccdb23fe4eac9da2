// Extraction: in place, from the last entry to the first.

#include "files/block_list.h"
#include "files/entry_file.h"
#include "files/extractsja.h"
#include "files/file_stream.h"
#include "files/sja_log.h"
#include "platform/file_ops.h"
#include "platform/interruption.h"

#include <algorithm>
#include <cerrno>
#include <new>
#include <utility>
#include <vector>

#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

unsigned char extractsja_error = 0;

namespace {

constexpr std::uint64_t CHUNK_SIZE = 4096;
constexpr unsigned MODE_BITS = 0xFFF;

// The path of the entry's file, its name as stored, up to its first NUL byte. Where the file ends inside
// the name, what there is of it. A directory longer than sja_strnlen measures makes an empty path, which cannot be
// opened.
std::string entry_path(FILE* archive, const block_info& block, const char* directory) {
    const std::size_t directory_length = sja_strnlen(directory);
    if (directory_length > 0 && directory[directory_length] != '\0')
        return "";
    std::vector<char> name(block.name_length + 1U);
    if (seek_to(archive, block.offset + ENTRY_HEADER_SIZE))
        read_up_to(archive, name.data(), block.name_length);
    if (directory_length == 0)
        return name.data();
    return std::string(directory) + "/" + name.data();
}

// Copies `size` bytes from the archive's position. An archive that ends earlier is not an error: the file
// gets its full size, and the buffer's old bytes fill what is missing.
bool copy_data(FILE* archive, FILE* file, std::uint64_t size) {
    std::vector<char> buffer(CHUNK_SIZE);
    while (size > 0 && !interruption_noted()) {
        const std::size_t chunk = std::min(size, CHUNK_SIZE);
        // The chunk is written whole however much of it was read.
        const bool read = read_up_to(archive, buffer.data(), chunk);
        const bool written = std::fwrite(buffer.data(), 1, chunk, file) == chunk;
        if (!read || !written)
            return false;
        size -= chunk;
    }
    // An earlier error counts, too: reading the entry's name may have met it.
    return !interruption_noted() && std::ferror(archive) == 0;
}

bool write_entry(FILE* archive, const block_info& block, const char* directory) {
    const std::string path = entry_path(archive, block, directory);
    log_msg("[%s]\n", path.c_str());
    EntryFile file;
    if (!file.open(path, archive)) {
        log_msg("%s : Could not open for writing\n", path.c_str());
        return false;
    }
    if (!copy_data(archive, file.stream(), block.data_size) || !file.finish_writing()) {
        log_msg("%s : Error during writing\n", path.c_str());
        return false;
    }
    if (!file.set_mode(block.mode & MODE_BITS))
        log_msg("Warning: Unable to change file permissions for [%s]\n", path.c_str());
    // On the disk before the archive is cut: a power failure in between costs no entry.
    if (!file.put_in_place()) {
        log_msg("%s : Error during writing\n", path.c_str());
        return false;
    }
    return true;
}

bool try_write_entry(FILE* archive, const block_info& block, const char* directory) {
    try {
        return write_entry(archive, block, directory);
    } catch (const std::bad_alloc&) {
        return false;
    }
}

void cut_off(FILE* archive, std::uint64_t offset) {
    seek_to(archive, 0);
    // The result does not count: an archive that stays longer only means that its last entries are written once more.
    if (ftruncate(fileno(archive), static_cast<off_t>(offset)) != 0)
        return;
}

// Locks the archive for as long as its stream is open; false when another process extracts it. Where the file
// system has no locks, nobody is kept out.
bool claim(FILE* archive) {
    return flock(fileno(archive), LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK;
}

// Removes the archive, unless another file has taken its name meanwhile.
void remove_archive(FILE* archive, const char* path) {
    struct stat named = {};
    if (stat(path, &named) == 0 && is_file_of(archive, named) && std::remove(path) == 0)
        // The result does not count: what a power failure brings back is an archive without entries.
        static_cast<void>(flush_directory_of(path));
}

bool extract_all(const char* path, const char* directory) {
    BufferedStream archive(std::fopen(path, "rb+e"));
    if (!archive || !claim(archive.get()))
        return false;
    BlockList blocks = walk_archive(archive.get());
    if (!blocks)
        return false;
    // From here on extract_block closes the archive when it fails.
    FILE* stream = archive.release();
    for (block_info* block = blocks.release(); block != nullptr;)
        block = extract_block(stream, block, directory);
    if (extractsja_error != 0)
        return false;
    remove_archive(stream, path); // while it is still locked
    static_cast<void>(std::fclose(stream));
    return true;
}

} // namespace

block_info* extract_block(FILE* archive, block_info* block, const char* directory) {
    BlockList blocks(block);
    if (!try_write_entry(archive, *block, directory)) {
        static_cast<void>(std::fclose(archive));
        extractsja_error = 1;
        return nullptr;
    }
    cut_off(archive, block->offset);
    return std::exchange(block->next, nullptr);
}

int do_extract(const char* path, const char* directory) {
    extractsja_error = 0;
    try {
        return extract_all(path, directory) ? 1 : 0;
    } catch (const std::bad_alloc&) {
        return 0;
    }
}
