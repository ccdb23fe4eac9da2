// Makes .sja archives byte by byte, and damages files by name. Independent of the archive reader that it
// tests.

#ifndef TESTS_SUPPORT_SJA_BUILDER_H
#define TESTS_SUPPORT_SJA_BUILDER_H

#include "tests/support/temporary_directory.h"

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <string>

inline std::string little_endian(std::uint64_t number, int bytes) {
    std::string text;
    for (int i = 0; i < bytes; ++i)
        text += static_cast<char>(number >> (8 * i) & 0xFF);
    return text;
}

// The header and the name of an entry, without its data.
inline std::string sja_entry_header(const std::string& name, std::uint64_t size, unsigned mode = 0644) {
    return little_endian(name.size(), 1) + little_endian(size, 8) + little_endian(mode, 2) + name;
}

struct SjaEntry {
    std::string name;
    std::string data;
    unsigned mode = 0644;

    std::string bytes() const { return sja_entry_header(name, data.size(), mode) + data; }
};

// An unsigned archive: the magic and the entries.
inline std::string sja_bytes(const std::vector<SjaEntry>& entries) {
    std::string bytes = "JANK";
    for (const SjaEntry& entry : entries)
        bytes += entry.bytes();
    return bytes;
}

// The same after a signature block that is not a signature.
inline std::string sja_bytes_with_signature_block(const std::vector<SjaEntry>& entries) {
    return std::string(512, 's') + sja_bytes(entries);
}

// A sparse file of `size` bytes that holds nothing but zeros.
inline void write_sparse_file(const std::string& path, std::uint64_t size) {
    write_file(path, "");
    std::filesystem::resize_file(path, size);
}

// Writes `bytes` at `offset` into the file, which grows as needed and keeps all else.
inline void overwrite_at(const std::string& path, std::uint64_t offset, const std::string& bytes) {
    std::fstream file(path, std::ios::binary | std::ios::in | std::ios::out);
    file.seekp(static_cast<std::streamoff>(offset));
    file << bytes;
    if (!file.flush())
        throw std::runtime_error("cannot change " + path);
}

inline void flip_byte(const std::string& path, std::uint64_t offset) {
    std::fstream file(path, std::ios::binary | std::ios::in | std::ios::out);
    file.seekg(static_cast<std::streamoff>(offset));
    const int byte = file.get();
    if (byte < 0)
        throw std::runtime_error("no byte to flip in " + path);
    file.seekp(static_cast<std::streamoff>(offset));
    file.put(static_cast<char>(byte ^ 1));
    if (!file.flush())
        throw std::runtime_error("cannot change " + path);
}

inline void cut_last_byte(const std::string& path) {
    std::filesystem::resize_file(path, std::filesystem::file_size(path) - 1);
}

inline void append_byte(const std::string& path) {
    write_file(path, read_file(path) + "x");
}

#endif
