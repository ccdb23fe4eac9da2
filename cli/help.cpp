#include "cli/help.h"

#include "cli/message_buffers.h"
#include "platform/message_catalog.h"

#include <array>
#include <ostream>

namespace {

struct help_line {
    const char* id;
    const char* text;
};

constexpr std::array<help_line, 6> HELP_LINES = {{
    {"TqlRpo0029N", "\nUsage: Quorvelle package repository utility\n\n"},
    {"TqlRpo0030N", "qvrepo -a | -add <package_path>\n"},
    {"TqlRpo0031N", "qvrepo -d | -delete <package_identifier>\n"},
    {"TqlRpo0032N", "qvrepo -l | -list\n"},
    {"TqlRpo0033N", "qvrepo -p | -pkgDetails <package_identifier>\n"},
    {"TqlRpo0034N", "qvrepo -h | -help\n"},
}};

} // namespace

void showHelp(std::ostream& out) {
    for (const help_line& line : HELP_LINES) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security" // the texts are the table's own and hold no conversion
        mxgetmsg(line.id, lc_messages, sizeof outline, outline, nullptr, 0, nullptr, line.text);
#pragma GCC diagnostic pop
        out << outline;
    }
}
