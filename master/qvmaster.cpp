// qvmaster: the deployment-package web service for machines other than master servers.

#include "master/access_log.h"
#include "master/http_server.h"
#include "master/log_error.h"
#include "master/package_store.h"
#include "master/service.h"

#include <CLI/CLI.hpp>

#include <csignal>
#include <iostream>
#include <string>
#include <sys/resource.h>

namespace {

constexpr int USAGE_ERROR = 2;
constexpr int FAILURE = 1;

struct Options {
    std::string database;
    std::string repository = "/usr/ormex/var/global/repo";
    std::string access_log;
    HttpServerOptions http;
};

void declare_options(CLI::App& app, Options& options) {
    app.set_version_flag("--version", "qvmaster " QVREPO_VERSION);
    app.set_help_flag("--help,-h", "Print this help and exit");
    app.add_option("--db", options.database, "Database file; created when it is missing")->required();
    app.add_option("--tls", options.http.tls, "Directory of ca.pem, master.pem and master.key")->required();
    app.add_option("--listen", options.http.address, "Address to listen on")->capture_default_str();
    app.add_option("--port", options.http.port, "Port to listen on; 0 takes a free one")
        ->check(CLI::Range(0, 65535))
        ->capture_default_str();
    app.add_option("--repo", options.repository, "Repository directory, for the paths of package files")
        ->capture_default_str();
    app.add_option("--access-log", options.access_log, "File that gets one JSON line per request");
    const CLI::Range seconds(1, 3600);
    app.add_option("--timeout", options.http.timeout,
                   "Seconds that a client may be silent; other time limits are multiples of it")
        ->check(seconds)
        ->capture_default_str();
    // The name that --timeout had up to version 0.1.
    app.add_option("--patience", options.http.timeout)->check(seconds)->group("");
}

// Each client takes a descriptor, and each reader of packages some more.
void allow_many_descriptors() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

void run(const Options& options) {
    allow_many_descriptors();
    PackageStore store(options.database);
    Service service(store, options.repository);
    AccessLog log(options.access_log);
    serve_http(options.http, service, log, [](const std::string& address) {
        std::cout << "qvmaster: accepting connections on " << address << std::endl;
    });
}

} // namespace

int main(int argc, char** argv) {
    // A file that grows past a limit is an error of its write, not the program's end.
    static_cast<void>(std::signal(SIGXFSZ, SIG_IGN));
    try {
        CLI::App app(
            "Deployment-package web service of a master server, for evaluation, development and tests.",
            "qvmaster");
        Options options;
        declare_options(app, options);
        try {
            app.parse(argc, argv);
        } catch (const CLI::Success& answered) {
            return app.exit(answered);
        } catch (const CLI::ParseError& error) {
            log_error(std::string(error.what()) + " (see qvmaster --help)");
            return USAGE_ERROR;
        }
        run(options);
        return 0;
    } catch (const std::exception& error) {
        log_error(error.what());
        return FAILURE;
    }
}
