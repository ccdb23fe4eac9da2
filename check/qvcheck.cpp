// qvcheck: is this server set up right, and do its two halves agree? Reads, and changes nothing. This unit
// knows the arguments; what they ask for is elsewhere.

#include "check/package_list.h"
#include "check/report.h"
#include "platform/standard_streams.h"

#include <algorithm>
#include <csignal>
#include <iostream>
#include <optional>
#include <thread>

#include <CLI/CLI.hpp>

namespace {

constexpr Message USAGE = {"TqlChk0080N", "%s (qvcheck --help shows the arguments)"};
constexpr Message CANNOT_WRITE = {"TqlChk0081N", "cannot write to standard output"};

enum exit_status { CLEAN = 0, FOUND = 1, WRONG_ARGUMENTS = 2, NOT_CHECKED = 3 };

constexpr unsigned MAX_JOBS = 1024;

struct Arguments {
    bool json = false;
    bool quiet = false;
    bool signatures = false; // as without it
    bool tsv = false;        // as without it
    RepositoryOptions repository;
    PackageFilter filter;
};

struct Commands {
    CLI::App* setup;
    CLI::App* repository;
    CLI::App* all;
    CLI::App* list;
};

void complain(const Text& text) {
    std::cerr << "qvcheck: " << render(text, Language::USER) << '\n';
}

void add_repository_options(CLI::App* command, Arguments& arguments) {
    RepositoryOptions& options = arguments.repository;
    CLI::Option* wanted =
        command->add_flag("--signatures", arguments.signatures, "Check the files' signatures (the default)");
    command->add_flag("--no-signatures", options.skip_signatures, "Do not check signatures")
        ->excludes(wanted);
    command
        ->add_option("--jobs", options.jobs,
                     "Check so many files at a time; by default one for each processor")
        ->check(CLI::Range(1U, MAX_JOBS))
        ->type_name("N");
    command
        ->add_option(
            "--settle", options.settle,
            "Seconds after its registration for which a package's file may be missing; by default 120")
        ->check(CLI::NonNegativeNumber)
        ->type_name("SECONDS");
}

Commands add_commands(CLI::App& app, Arguments& arguments) {
    app.add_flag("--json", arguments.json, "Print one JSON document");
    app.add_flag("--quiet", arguments.quiet, "Print only what is not in order");
    const Commands commands = {
        app.add_subcommand("setup", "Check the conditions under which qvrepo works"),
        app.add_subcommand("repository", "Compare the service's list with the repository directory"),
        app.add_subcommand("all", "Check the setup, then the repository"),
        app.add_subcommand("list", "Print ID, file name, type, version and OS of the packages")};
    add_repository_options(commands.repository, arguments);
    add_repository_options(commands.all, arguments);
    PackageFilter& filter = arguments.filter;
    commands.list->add_flag("--tsv", arguments.tsv,
                            "Print a line for each package, with tabs between its fields (the default)");
    commands.list->add_option("--type", filter.type, "Only packages of this type")->type_name("TYPE");
    commands.list->add_option("--os", filter.os, "Only packages for this operating system")->type_name("OS");
    commands.list->add_option("--pkg-version", filter.version, "Only packages of this version")
        ->type_name("VERSION");
    return commands;
}

int check(const Commands& commands, Arguments& arguments) {
    arguments.repository.show_progress = !arguments.quiet;
    Report report;
    std::optional<CannotCheck> obstacle;
    if (!commands.repository->parsed())
        report.setup = check_setup();
    // Shown at once: what comes may take long.
    if (!arguments.json)
        print_report(report, arguments.quiet);
    std::cout.flush();
    try {
        if (!commands.setup->parsed())
            report.repository = check_repository(arguments.repository);
    } catch (const CannotCheck& failure) {
        if (commands.repository->parsed())
            throw;
        obstacle = failure;
    }
    if (arguments.json)
        print_json_report(report);
    else
        print_report({std::nullopt, report.repository}, arguments.quiet);
    if (obstacle)
        throw *obstacle;
    return report.has_findings() ? FOUND : CLEAN;
}

int run(const Commands& commands, Arguments& arguments) {
    int status = CLEAN;
    if (commands.list->parsed())
        print_package_list(arguments.filter, arguments.json);
    else
        status = check(commands, arguments);
    if (!std::cout.flush())
        throw CannotCheck({&CANNOT_WRITE});
    return status;
}

int parse_and_run(int argc, char** argv) {
    CLI::App app("Checks the setup of a master server and its package repository. Changes nothing.",
                 "qvcheck");
    app.set_version_flag("--version", "qvcheck " QVREPO_VERSION);
    app.require_subcommand(1);
    app.fallthrough(); // the subcommands take the options of all
    Arguments arguments;
    arguments.repository.jobs = std::clamp(std::thread::hardware_concurrency(), 1U, MAX_JOBS);
    const Commands commands = add_commands(app, arguments);
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& help) {
        return app.exit(help);
    } catch (const CLI::ParseError& wrong) {
        complain({&USAGE, {wrong.what()}});
        return WRONG_ARGUMENTS;
    }
    return run(commands, arguments);
}

} // namespace

int main(int argc, char** argv) {
    reserve_standard_fds();
    // A service or a reader that goes away is an error like others.
    static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
    try {
        return parse_and_run(argc, argv);
    } catch (const CannotCheck& failure) {
        complain(*failure.reason);
    } catch (const std::exception& failure) {
        std::cerr << "qvcheck: " << failure.what() << '\n';
    }
    return NOT_CHECKED;
}
