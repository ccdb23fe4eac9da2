#include "publisher/archive.h"

#include "files/QvRepoHelper.h"
#include "files/block_list.h"
#include "model/dunmarel_common.h"
#include "platform/bounded.h"
#include "publisher/user_error.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <iomanip>
#include <memory>
#include <ostream>
#include <string_view>
#include <utility>

namespace {

constexpr std::uint64_t MAX_LISTED_ENTRIES = 15;
constexpr std::uint64_t MAX_NAME_WARNINGS = 1000;
constexpr std::size_t MAGIC_SIZE = 4;
// A file that ends inside the two bytes of the mode still holds the entry, as it does for a repository.
constexpr std::size_t MIN_HEADER_SIZE = ENTRY_HEADER_SIZE - 2;

void add_name_warning(const std::string& name, std::vector<std::string>& warnings) {
    if (const std::string fault = package_name_fault(name); !fault.empty())
        warnings.push_back(name + " is not a package name: " + fault);
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

Archive::Archive(const std::string& path) : path_(path) {
    struct stat status = {};
    file_ = open_stream(path, status);
    const int form = verify_jank_archive(file_.get());
    if (form == 2)
        throw UserError(path + " is not an .sja archive");
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
                             " is followed by bytes that are not an entry";
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
        throw UserError("cannot read " + path_, errno);
    return summary;
}

ArchiveSummary Archive::print(std::ostream& out) const {
    std::size_t width = 4;
    walk([&](const ArchiveEntry& entry) { width = std::max(width, std::to_string(entry.size).size()); });
    const int columns = static_cast<int>(width);
    out << "MODE    " << std::setw(columns) << "SIZE"
        << "  NAME\n";
    ArchiveSummary summary = walk([&](const ArchiveEntry& entry) {
        std::array<char, 16> mode = {};
        static_cast<void>(std::snprintf(mode.data(), mode.size(), "%04o", entry.mode));
        out << std::left << std::setw(8) << mode.data() << std::right << std::setw(columns) << entry.size
            << "  " << printable(entry.name) << "\n";
    });
    out << summary.text() << "\n";
    return summary;
}

void ArchiveSummary::add(const ArchiveEntry& entry) {
    is_envelope = (entry_count == 0 || is_envelope) && QvRepoHelper::isSjaExtension(entry.name);
    ++entry_count;
    // An envelope's entries become files of the repository; those of a single package stay inside.
    if (!is_envelope)
        name_warnings.clear();
    else if (name_warnings.size() < MAX_NAME_WARNINGS)
        add_name_warning(entry.name, name_warnings);
}

std::vector<std::string> ArchiveSummary::warnings(const std::string& path) const {
    std::vector<std::string> all;
    add_name_warning(base_name(path), all);
    all.insert(all.end(), name_warnings.begin(), name_warnings.end());
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

SignableArchive examine_signable(const std::string& path) {
    // A symbolic link to an archive stays one.
    const std::unique_ptr<char, decltype(&std::free)> real_path(realpath(path.c_str(), nullptr), &std::free);
    if (!real_path)
        throw UserError("cannot read " + path, errno);
    SourceFile source = examine_source(real_path.get());
    ArchiveSummary summary = Archive(path).walk([](const ArchiveEntry&) {});
    if (!summary.damage.empty())
        throw UserError(path + " is damaged: " + summary.damage);
    if (summary.entry_count == 0)
        throw UserError(path + " has no entry");
    const std::uint64_t content = summary.is_signed ? SIGNATURE_SIZE : 0;
    return {std::move(source), content, std::move(summary)};
}

std::string package_name_fault(const std::string& name) {
    static const std::string prefix = "dunmarel_";
    pkg_details details = {};
    const std::string package =
        name.compare(0, prefix.size(), prefix) == 0 ? name.substr(prefix.size()) : name;
    if (package.size() >= sizeof details.name)
        return "it is longer than 127 bytes";
    bounded_copy(details.name, sizeof details.name, package.c_str());
    switch (extract_package_details_from_name(&details)) {
    case 0:
        return "";
    case PACKAGE_NAME_TYPE:
        return "its package type is unknown";
    case PACKAGE_NAME_VERSION:
        return "its version is missing or lower than 7.7";
    case PACKAGE_NAME_OS:
        return "its operating system is unknown";
    case PACKAGE_NAME_EEB_VERSION:
        return "its EEB version is not up to 12 digits and dots";
    default:
        return "it is not of the form dunmarel_TYPE_VERSION_OS.sja or "
               "dunmarel_TYPE_EEBVERSION_VERSION_OS.sja";
    }
}

std::string printable(const std::string& text) {
    std::string shown;
    for (std::string_view rest = text; !rest.empty();) {
        const std::size_t length = printable_length(rest);
        std::array<char, 8> escape = {};
        if (length == 0)
            static_cast<void>(
                std::snprintf(escape.data(), escape.size(), "\\x%02x", static_cast<unsigned char>(rest[0])));
        shown.append(rest.substr(0, length)).append(escape.data());
        rest.remove_prefix(std::max<std::size_t>(length, 1));
    }
    return shown;
}
