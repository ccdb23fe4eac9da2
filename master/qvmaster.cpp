// qvmaster: the deployment-package web service of a machine that is no master server.

#include "master/access_log.h"
#include "master/listening_socket.h"
#include "master/master_server.h"
#include "master/package_store.h"
#include "master/problem.h"
#include "master/service.h"

#include <CLI/CLI.hpp>

#include <chrono>
#include <csignal>
#include <iostream>
#include <memory>
#include <string>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr int WRONG_WORDS = 2;
constexpr int FAILURE = 1;

struct Words {
    std::string database;
    std::string tls;
    std::string address = ALL_ADDRESSES;
    int port = 1556;
    std::string repository = "/usr/ormex/var/global/repo";
    std::string accessLog;
    int patience = 10;
};

void declare_words(CLI::App& app, Words& words) {
    app.set_version_flag("--version", "qvmaster " QVREPO_VERSION);
    app.set_help_flag("--help,-h", "Print this help and exit");
    app.add_option("--db", words.database, "Database file; created when it is missing")->required();
    app.add_option("--tls", words.tls, "Directory of ca.pem, master.pem and master.key")->required();
    app.add_option("--listen", words.address, "Address to listen on")->capture_default_str();
    app.add_option("--port", words.port, "Port to listen on; 0 takes a free one")
        ->check(CLI::Range(0, 65535))
        ->capture_default_str();
    app.add_option("--repo", words.repository, "Repository directory, for the paths of package files")
        ->capture_default_str();
    app.add_option("--access-log", words.accessLog, "File that gets one JSON line per request");
    app.add_option("--patience", words.patience,
                   "Seconds that a client may be silent; other time limits are multiples of it")
        ->check(CLI::Range(1, 3600))
        ->capture_default_str();
}

// Each client takes a descriptor, and each reader of packages some more.
void allow_many_descriptors() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

sigset_t stop_signals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    return signals;
}

// Serves until one of `signals`, which all threads block, arrives.
bool serve_until(const sigset_t& signals, MasterServer& server) {
    bool served = false;
    std::thread serving([&server, &served] {
        served = server.run();
        // Wakes the waiting thread where the service ended by itself.
        kill(getpid(), SIGTERM);
    });
    int signal = 0;
    sigwait(&signals, &signal);
    server.stop_serving();
    serving.join();
    return served;
}

int run(const Words& words) {
    const sigset_t signals = stop_signals();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    allow_many_descriptors();

    PackageStore store(words.database);
    Service service(store, words.repository);
    const auto log = words.accessLog.empty() ? std::make_unique<AccessLog>()
                                             : std::make_unique<AccessLog>(words.accessLog);
    MasterServer server(words.tls, service, *log, TimeLimits(std::chrono::seconds(words.patience)));
    const std::string address = server.listen_on(words.address, words.port);
    std::cout << "qvmaster: accepting connections on " << address << std::endl;
    if (!serve_until(signals, server)) {
        report_problem("no more connections can be accepted");
        return FAILURE;
    }
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    // A file that grows past a limit is an error of its write, not the program's end.
    static_cast<void>(std::signal(SIGXFSZ, SIG_IGN));
    try {
        CLI::App app(
            "Deployment-package web service of a master server, for evaluation, development and tests.",
            "qvmaster");
        Words words;
        declare_words(app, words);
        try {
            app.parse(argc, argv);
        } catch (const CLI::Success& answered) {
            return app.exit(answered);
        } catch (const CLI::ParseError& error) {
            report_problem(std::string(error.what()) + " (qvmaster --help tells the words)");
            return WRONG_WORDS;
        }
        return run(words);
    } catch (const std::exception& error) {
        report_problem(error.what());
        return FAILURE;
    }
}
