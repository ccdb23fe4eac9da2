#include "cli/dispatch.h"

#include "cli/commands.h"
#include "cli/help.h"
#include "cli/placeholders.h"
#include "cli/status.h"
#include "platform/status_codes.h"

#include <cstring>
#include <iostream>

namespace {

int add(int argc, const char** argv) {
    return addPackagesCmd(argc, argv, std::cout);
}
int remove(int argc, const char** argv) {
    return deletePackageCmd(argc, argv, std::cout, std::cin);
}
int list(int argc, const char** argv) {
    return listPackagesCmd(argc, argv, std::cout);
}
int details(int argc, const char** argv) {
    return getPackageDetailsCmd(argc, argv, std::cout);
}

} // namespace

const std::array<CommandOption, 12> COMMAND_OPTIONS = {{
    {"-add", add},
    {"-a", add},
    {"-delete", remove},
    {"-d", remove},
    {"-getPkg", getPackageCmd},
    {"-g", getPackageCmd},
    {"-list", list},
    {"-l", list},
    {"-pkgDetails", details},
    {"-p", details},
    {"-validate", validatePackagesCmd},
    {"-v", validatePackagesCmd},
}};

namespace {

const CommandOption* find_option(const char* name) {
    for (const CommandOption& row : COMMAND_OPTIONS)
        if (std::strcmp(name, row.name) == 0)
            return &row;
    return nullptr;
}

// Help is handled among the unknown options, as these print it, too, before their error line.
int unknown_option(const char* name) {
    showHelp(std::cout);
    if (std::strcmp(name, "-help") == 0 || std::strcmp(name, "-h") == 0)
        return 0;
    showCommandStatus(STATUS_INVALID_PARAMETER, "main", std::cerr);
    return STATUS_INVALID_PARAMETER;
}

} // namespace

int run_command(int argc, char** argv) {
    if (argc <= 1) {
        showHelp(std::cout);
        return 1;
    }
    const CommandOption* chosen = find_option(argv[1]);
    if (chosen == nullptr)
        return unknown_option(argv[1]);
    const int status = chosen->command(argc - 2, const_cast<const char**>(argv + 2));
    if (status != 0)
        showCommandStatus(status, "main", std::cerr);
    return status;
}
