#include "publisher/archive_table.h"

#include "files/QvRepoHelper.h"
#include "files/block_list.h"
#include "publisher/name_check.h"
#include "publisher/refusal.h"
#include "publisher/signature_source.h"
#include "publisher/source_file.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <iomanip>
#include <ostream>
#include <sstream>
#include <string_view>

namespace {

constexpr std::uint64_t MAX_LISTED_ENTRIES = 15;
constexpr std::uint64_t MAX_NAME_WARNINGS = 1000;
constexpr std::size_t MAGIC_SIZE = 4;
// A file that ends inside the two bytes of the mode still holds the entry, as it does for a repository.
constexpr std::size_t MIN_HEADER_SIZE = ENTRY_HEADER_SIZE - 2;

std::string octal(unsigned mode) {
    std::ostringstream text;
    text << std::oct << std::setw(4) << std::setfill('0') << mode;
    return text.str();
}

std::string warning_about_name(const std::string& name) {
    const std::string fault = package_name_fault(name);
    return fault.empty() ? "" : name + " is no name for a package: " + fault;
}

// The length of the UTF-8 character that `text` begins with, where a terminal may show it; 0 for a control
// character and for bytes that are not UTF-8.
std::size_t printable_length(std::string_view text) {
    const auto first = static_cast<unsigned char>(text[0]);
    if (first < 0x80)
        return first >= 0x20 && first != 0x7F ? 1 : 0;
    const std::size_t length = first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
    if (first < 0xC0 || first > 0xF7 || text.size() < length)
        return 0;
    char32_t character = first & 0x7FU >> length;
    for (const char c : text.substr(1, length - 1)) {
        if ((static_cast<unsigned char>(c) & 0xC0U) != 0x80U)
            return 0;
        character = character << 6U | (static_cast<unsigned char>(c) & 0x3FU);
    }
    // Of two bytes, what comes after the control characters up to U+009F; of more, no longer form than
    // needed, as some terminals would decode it.
    static constexpr std::array<char32_t, 5> MIN_CHARACTER = {0, 0, 0xA0, 0x800, 0x10000};
    const bool is_surrogate = character >= 0xD800 && character <= 0xDFFF;
    return character >= MIN_CHARACTER[length] && character <= 0x10FFFF && !is_surrogate ? length : 0;
}

} // namespace

std::string printable(const std::string& text) {
    std::ostringstream shown;
    for (std::string_view rest = text; !rest.empty();) {
        const std::size_t length = printable_length(rest);
        if (length > 0)
            shown << rest.substr(0, length);
        else
            shown << "\\x" << std::hex << std::setw(2) << std::setfill('0')
                  << static_cast<unsigned>(static_cast<unsigned char>(rest[0]));
        rest.remove_prefix(std::max<std::size_t>(length, 1));
    }
    return shown.str();
}

Archive::Archive(const std::string& path) : path_(path) {
    struct stat status = {};
    file_ = open_stream(path, status);
    const int form = verify_jank_archive(file_.get());
    if (form == 2)
        throw Refusal(path + " is not an .sja archive");
    size_ = static_cast<std::uint64_t>(status.st_size);
    is_signed_ = form == 1;
}

ArchiveSummary Archive::walk(const std::function<void(const ArchiveEntry&)>& visit) const {
    ArchiveSummary summary;
    summary.is_signed = is_signed_;
    ArchiveEntry entry = {};
    for (std::uint64_t offset = (is_signed_ ? SIGNATURE_SIZE : 0) + MAGIC_SIZE; offset < size_;) {
        std::array<unsigned char, ENTRY_HEADER_SIZE> header = {};
        if (!seek_to(file_.get(), offset) ||
            std::fread(header.data(), 1, header.size(), file_.get()) < MIN_HEADER_SIZE) {
            summary.damage = std::string(summary.entry_count > 0 ? "the last entry" : "the magic") +
                             " is followed by bytes that are no entry";
            break;
        }
        entry.name.resize(header[0]);
        if (std::fread(entry.name.data(), 1, entry.name.size(), file_.get()) != entry.name.size()) {
            summary.damage = "the name of the last entry is cut off";
            break;
        }
        entry.size = little_endian_qword(&header[1]);
        entry.mode = little_endian_word(header[9], header[10]);
        summary.add(entry);
        visit(entry);
        offset += header.size() + entry.name.size();
        if (offset > size_ || entry.size > size_ - offset) {
            summary.damage = "the last entry runs past the end of the file";
            break;
        }
        offset += entry.size;
    }
    if (std::ferror(file_.get()) != 0)
        throw Refusal("cannot read " + path_, errno);
    return summary;
}

ArchiveSummary Archive::print(std::ostream& out) const {
    std::size_t width = 4;
    walk([&](const ArchiveEntry& entry) { width = std::max(width, std::to_string(entry.size).size()); });
    const int columns = static_cast<int>(width);
    out << "MODE    " << std::setw(columns) << "SIZE"
        << "  NAME\n";
    const ArchiveSummary summary = walk([&](const ArchiveEntry& entry) {
        out << std::left << std::setw(8) << octal(entry.mode) << std::right << std::setw(columns)
            << entry.size << "  " << printable(entry.name) << "\n";
    });
    out << summary.text() << "\n";
    return summary;
}

void ArchiveSummary::add(const ArchiveEntry& entry) {
    is_envelope = (entry_count == 0 || is_envelope) && QvRepoHelper::isSjaExtension(entry.name);
    ++entry_count;
    // An envelope's entries become files of the repository; those of a single package stay inside.
    if (!is_envelope) {
        unfit_name_count = 0;
        name_warnings.clear();
    } else if (const std::string warning = warning_about_name(entry.name); !warning.empty()) {
        if (++unfit_name_count <= MAX_NAME_WARNINGS)
            name_warnings.push_back(warning);
    }
}

std::vector<std::string> ArchiveSummary::warnings(const std::string& path) const {
    std::vector<std::string> all = name_warnings;
    if (const std::string warning = warning_about_name(path.substr(path.rfind('/') + 1)); !warning.empty())
        all.insert(all.begin(), warning);
    if (unfit_name_count > name_warnings.size())
        all.push_back("so it is with the names of " +
                      std::to_string(unfit_name_count - name_warnings.size()) + " more entries");
    if (entry_count > MAX_LISTED_ENTRIES)
        all.push_back(
            "a repository lists only the first entries of an archive of more than 15; this one has " +
            std::to_string(entry_count));
    return all;
}

std::string ArchiveSummary::text() const {
    const std::string text = std::to_string(entry_count) + (entry_count == 1 ? " entry, " : " entries, ") +
                             (is_signed ? "signed, " : "unsigned, ");
    if (entry_count == 0)
        return text + "empty";
    return text + (is_envelope ? "envelope" : "single package");
}
