#include "publisher/archive_table.h"

#include "files/QvRepoHelper.h"
#include "files/block_list.h"
#include "files/file_stream.h"
#include "publisher/refusal.h"
#include "publisher/source_file.h"

#include <algorithm>
#include <cerrno>
#include <iomanip>
#include <ostream>
#include <sstream>

namespace {

std::string octal(unsigned mode) {
    std::ostringstream text;
    text << std::oct << std::setw(4) << std::setfill('0') << mode;
    return text.str();
}

// The name as a terminal may show it.
std::string printable(const std::string& name) {
    std::ostringstream text;
    for (const char c : name) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7F)
            text << "\\x" << std::hex << std::setw(2) << std::setfill('0') << static_cast<unsigned>(byte);
        else
            text << c;
    }
    return text.str();
}

// Reads the block's name; false when the file does not hold all of it.
bool read_name(FILE* archive, const block_info& block, std::string& name) {
    name.resize(block.name_length);
    return seek_to(archive, block.offset + ENTRY_HEADER_SIZE) &&
           std::fread(name.data(), 1, name.size(), archive) == name.size();
}

// Why the archive does not end where its last entry does; empty when it does.
std::string damage_at_the_end(const block_info& last, std::uint64_t file_size) {
    const std::uint64_t data = last.offset + ENTRY_HEADER_SIZE + last.name_length;
    if (data > file_size || last.data_size > file_size - data)
        return "the last entry runs past the end of the file";
    if (last.data_size < file_size - data)
        return "the last entry is followed by bytes that are no entry";
    return "";
}

// The walk begins at the last entry; the table, at the first.
void fill_table(FILE* archive, const block_info* last, std::uint64_t file_size, ArchiveTable& table) {
    table.damage = damage_at_the_end(*last, file_size);
    for (const block_info* block = last; block != nullptr; block = block->next) {
        std::string name;
        if (read_name(archive, *block, name))
            table.entries.push_back({name, block->data_size, block->mode});
        else
            table.damage = "the name of the last entry is cut off";
    }
    std::reverse(table.entries.begin(), table.entries.end());
}

} // namespace

bool is_envelope(const std::vector<ArchiveEntry>& entries) {
    return !entries.empty() && std::all_of(entries.begin(), entries.end(), [](const ArchiveEntry& entry) {
        return QvRepoHelper::isSjaExtension(entry.name);
    });
}

ArchiveTable read_archive_table(const std::string& path) {
    const SourceFile source = examine_source(path);
    const FileStream archive(std::fopen(path.c_str(), "rbe"));
    if (!archive)
        throw Refusal("cannot read " + path, errno);
    const int form = verify_jank_archive(archive.get());
    if (form == 2)
        throw Refusal(path + " is not an .sja archive");
    ArchiveTable table;
    table.has_signature = form == 1;
    const std::uint64_t base = table.has_signature ? 512 : 0;
    const BlockList last(get_blocks(archive.get(), base));
    if (last)
        fill_table(archive.get(), last.get(), source.size(), table);
    else if (source.size() != base + 4)
        table.damage = "the magic is followed by bytes that are no entry";
    return table;
}

void print_archive_table(const ArchiveTable& table, std::ostream& out) {
    std::size_t width = 4;
    for (const ArchiveEntry& entry : table.entries)
        width = std::max(width, std::to_string(entry.size).size());
    const int columns = static_cast<int>(width);
    out << "MODE    " << std::setw(columns) << "SIZE"
        << "  NAME\n";
    for (const ArchiveEntry& entry : table.entries)
        out << std::left << std::setw(8) << octal(entry.mode) << std::right << std::setw(columns)
            << entry.size << "  " << printable(entry.name) << "\n";
    out << summary_of(table.has_signature, table.entries) << "\n";
}

std::string summary_of(bool has_signature, const std::vector<ArchiveEntry>& entries) {
    const std::size_t count = entries.size();
    std::string text = std::to_string(count) + (count == 1 ? " entry, " : " entries, ");
    text += has_signature ? "signed, " : "unsigned, ";
    if (entries.empty())
        return text + "empty";
    return text + (is_envelope(entries) ? "envelope" : "single package");
}
