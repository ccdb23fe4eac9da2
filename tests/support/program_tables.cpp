// Prints qvrepo's own tables, one row per line, its fields separated by tabs. Catalogs, completion scripts
// and the manual page are checked against these lines.

#include "cli/commands.h"
#include "cli/dispatch.h"
#include "cli/messages.h"
#include "cli/status.h"
#include "model/QvRepoPackage.h"
#include "model/dunmarel_common.h"
#include "platform/os_names.h"
#include "platform/status_codes.h"

#include <algorithm>
#include <iostream>
#include <string>

#include <curl/curl.h>

namespace {

// option NAME LONG-NAME: LONG-NAME is the first option of the same command.
void print_options() {
    for (const CommandOption& row : COMMAND_OPTIONS) {
        const auto* const first =
            std::find_if(COMMAND_OPTIONS.begin(), COMMAND_OPTIONS.end(),
                         [&row](const CommandOption& other) { return other.command == row.command; });
        std::cout << "option\t" << row.name << "\t" << first->name << "\n";
    }
}

// filter OPTION FIELD
void print_filters() {
    for (const ListFilter& row : LIST_FILTERS)
        std::cout << "filter\t" << row.option << "\t" << row.field << "\n";
}

// status CODE MESSAGE-ID TEXT, and plain-status CODE for one that the program raises without a text of its
// own.
void print_statuses() {
    for (const StatusMessage& row : STATUS_MESSAGES)
        std::cout << "status\t" << row.code << "\t" << row.id << "\t" << english_text(row.id) << "\n";
    std::cout << "plain-status\t" << STATUS_REPOSITORY_FULL << "\n";
}

// message ID TEXT, with \n for a line end.
void print_messages() {
    for (const Message& row : MESSAGES) {
        std::cout << "message\t" << row.id << "\t";
        for (const char c : std::string(row.text))
            std::cout << (c == '\n' ? "\\n" : std::string(1, c));
        std::cout << "\n";
    }
}

// client CODE: a status of the web-service client.
void print_client_statuses() {
    const std::string unknown = curl_easy_strerror(CURL_LAST);
    for (int code = 1; code < CURL_LAST; ++code)
        if (curl_easy_strerror(static_cast<CURLcode>(code)) != unknown)
            std::cout << "client\t" << code << "\n";
}

// What the list of packages shows for a type.
std::string shown_type(const std::string& key) {
    QvRepoPackage package;
    package.packageType = key;
    package.packageName = key + "_8.3_redhat_x64";
    return package.formatPackageType();
}

// os KEY and type KEY SHOWN-AS, in order of their codes.
void print_keys() {
    for (int os = 1; os <= QV_os_count(); ++os)
        std::cout << "os\t" << QV_os_name(os) << "\n";
    for (int type = 1; type <= PACKAGE_TYPE_COUNT; ++type) {
        const std::string key = get_package_type_string(type);
        std::cout << "type\t" << key << "\t" << shown_type(key) << "\n";
    }
}

} // namespace

int main() {
    print_options();
    print_filters();
    print_statuses();
    print_messages();
    print_client_statuses();
    print_keys();
    return std::cout.flush() ? 0 : 1;
}
