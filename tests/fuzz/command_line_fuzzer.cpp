// Any arguments on the command line, with any answers of the machine and the web service: the table picks the
// command, and the command keeps its promises: what it asks for, in which order, what it touches, and what
// the user is told.
//
// An input is lines: a switch per answer of the machine ("n" refuses, see Switch), the arguments up to an empty
// line, then the service's answers, each "CODE BODY", or "!NUMBER" for a client that fails.

#include "cli/dispatch.h"
#include "model/QvRepoPackage.h"
#include "platform/debug_log.h"
#include "platform/master_config.h"
#include "tests/fuzz/support/files.h"
#include "tests/fuzz/support/property.h"
#include "tests/support/fake_seam.h"
#include "tests/support/scripted_service.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>

#include <gtest/gtest.h>

namespace {

const char* const SERVER_NAMES[] = {"master.example.com", nullptr};
const master_config CONFIG = {SERVER_NAMES};
const std::string PACKAGES = "quorvelle/deployment/packages";
const std::string REPOSITORY = "/usr/ormex/var/global/repo";
constexpr std::size_t MAX_ARGUMENTS = 8;

// Which answer of the machine each switch turns into a refusal.
enum Switch {
    ADMINISTRATOR,
    CONFIGURATION,
    ROLE,
    SPACE,
    PATHS,
    SIGNATURE,
    CONTENTS,
    PLACING,
    CONFIRMATION,
    FILES
};

struct Scenario {
    std::string switches;
    std::vector<std::string> arguments;
    std::vector<ScriptedAnswer> answers;

    bool healthy(Switch which) const { return switches.size() <= which || switches[which] != 'n'; }
    bool ready() const {
        return healthy(ADMINISTRATOR) && healthy(CONFIGURATION) && healthy(ROLE) && healthy(SPACE);
    }
};

ScriptedAnswer read_answer(const std::string& line) {
    if (line[0] == '!')
        return {0, "", std::atoi(line.c_str() + 1)}; // NOLINT(cert-err34-c): any number will do
    const std::size_t blank = std::min(line.find(' '), line.size());
    return {std::atol(line.c_str()), line.substr(std::min(blank + 1, line.size()))}; // NOLINT(cert-err34-c)
}

Scenario read_scenario(const std::string& text) {
    Scenario scenario;
    std::istringstream lines(text);
    std::getline(lines, scenario.switches);
    std::string line;
    while (std::getline(lines, line) && !line.empty())
        scenario.arguments.push_back(up_to_nul(line));
    while (std::getline(lines, line))
        if (!line.empty())
            scenario.answers.push_back(read_answer(line));
    return scenario;
}

void set_up_startup(const Scenario& scenario) {
    FakeSeam& fake = seam();
    fake.is_user_admin = [&scenario](user_permission_type_t) {
        return scenario.healthy(ADMINISTRATOR) ? 1 : 0;
    };
    fake.QV_read_master_config = [&scenario] { return scenario.healthy(CONFIGURATION) ? 0 : 2; };
    fake.lunt_is_master_server = [&scenario](const char*) { return scenario.healthy(ROLE) ? 1 : 0; };
    fake.getFreeSpace = [&scenario](const char*, float* percent, unsigned long* megabytes) {
        *percent = scenario.healthy(SPACE) ? 50.0F : 0.5F;
        *megabytes = 5000;
        return 0;
    };
    // What the log needs is tested elsewhere; here it is open already.
    fake.open_debug_log = [](const char*, const char*, const char*, int, int* status) { *status = 0; };
}

void set_up_repository(const Scenario& scenario) {
    FakeSeam& fake = seam();
    fake.pathExists = [&scenario](const char*) { return scenario.healthy(PATHS); };
    fake.verifySja = [&scenario](const char*) { return scenario.healthy(SIGNATURE) ? 0 : 7236; };
    fake.readSjaContents = [&scenario](const char*, std::vector<QvRepoPackageItem>& items) {
        items = {{"first.sja", 5}, {"second.sja", 7}};
        return scenario.healthy(CONTENTS) ? 0 : 7215;
    };
    fake.copySja = [&scenario](const char*) { return scenario.healthy(PLACING) ? 0 : 7214; };
    fake.extractSja = [&scenario](const char*) { return scenario.healthy(PLACING) ? 0 : 7252; };
    fake.confirmAction = [&scenario](const std::string& prompt, std::ostream&, std::istream&) {
        require(prompt.compare(0, 26, "qvrepo: delete package ID ") == 0,
                "the user is asked about a package");
        return scenario.healthy(CONFIRMATION) ? 1 : 0;
    };
    fake.deletePackageItems = [&scenario](const std::vector<std::string>&) {
        return scenario.healthy(FILES) ? 1 : 0;
    };
}

// What the program wrote, and how it ended.
struct Run {
    int status = 0;
    std::string out;
    std::string err;
};

// Puts a buffer in a standard stream's place as long as it lives.
class Redirection {
  public:
    Redirection(std::ios& stream, std::streambuf* buffer) : stream_(stream), before_(stream.rdbuf(buffer)) {}
    Redirection(const Redirection&) = delete;
    Redirection& operator=(const Redirection&) = delete;
    ~Redirection() { stream_.rdbuf(before_); }

  private:
    std::ios& stream_;
    std::streambuf* before_;
};

Run run_program(const Scenario& scenario) {
    std::ostringstream out;
    std::ostringstream err;
    const Redirection of_out(std::cout, out.rdbuf());
    const Redirection of_err(std::cerr, err.rdbuf());
    std::vector<std::string> arguments = scenario.arguments;
    arguments.insert(arguments.begin(), "qvrepo");
    std::vector<char*> argv;
    for (std::string& argument : arguments)
        argv.push_back(argument.data());
    argv.push_back(nullptr);
    const int status = run_command(static_cast<int>(arguments.size()), argv.data());
    return {status, out.str(), err.str()};
}

bool begins_with(const std::string& text, const std::string& beginning) {
    return text.compare(0, beginning.size(), beginning) == 0;
}

// Where the first call that begins so stands among the seam's calls; their number when there is none.
std::size_t place_of_call(const std::string& beginning) {
    const std::vector<std::string>& calls = seam().calls;
    return static_cast<std::size_t>(
        std::find_if(calls.begin(), calls.end(),
                     [&beginning](const std::string& call) { return begins_with(call, beginning); }) -
        calls.begin());
}

bool was_called(const std::string& beginning) {
    return place_of_call(beginning) < seam().calls.size();
}

std::string methods_sent() {
    std::string methods;
    for (const SentRequest& request : service().requests)
        methods += (methods.empty() ? "" : " ") + request.method;
    return methods;
}

// The option that chooses the command, its short form written out.
std::string command_of(const Scenario& scenario) {
    const std::string option = scenario.arguments.empty() ? "" : scenario.arguments[0];
    for (const char* command : {"-add", "-delete", "-getPkg", "-list", "-pkgDetails", "-validate"})
        if (option == command || option == std::string(command).substr(0, 2))
            return command;
    return "";
}

bool has_right_arguments(const std::string& command, const std::vector<std::string>& arguments) {
    if (command == "-list")
        return arguments.size() == 1 ||
               (arguments.size() == 3 &&
                (arguments[1] == "-version" || arguments[1] == "-os" || arguments[1] == "-type"));
    return (command == "-add" || command == "-delete" || command == "-pkgDetails") && arguments.size() == 2;
}

void check_error_line(const Scenario& scenario, const Run& run) {
    const bool help = scenario.arguments.empty();
    if (run.status == 0 || help) {
        require(run.err.empty(), "success and help say nothing on standard error");
        return;
    }
    require(run.err.size() > 1 && run.err.find('\n') == run.err.size() - 1, "a failure is one line");
    require(begins_with(run.err, "Error: ") == (run.status != 7221), "a failure is reported as an error");
}

void check_requests() {
    for (const SentRequest& request : service().requests) {
        const std::string rest = begins_with(request.uri, PACKAGES) ? request.uri.substr(PACKAGES.size())
                                                                    : std::string("elsewhere");
        require(rest.empty() || rest[0] == '/' || begins_with(rest, "?filter="),
                "every request goes to the packages");
        require(request.method == "POST" || request.body.empty(), "only a creation sends a body");
        require(request.method != "DELETE" || rest.size() > 1, "a deletion names a package");
    }
    if (service().requests.empty())
        return;
    require(service().host == "master.example.com" && service().port == 1556 &&
                service().accept == "Accept: application/vnd.quorvelle+json;version=6.0" &&
                service().connectTimeout == 30,
            "every request goes to the master server in the program's own terms");
}

void check_untouched() {
    require(seam().calls.empty() && service().requests.empty(), "wrong arguments touch nothing");
}

void check_reading(const Run& run) {
    const std::string methods = methods_sent();
    require(methods.empty() || methods == "GET", "reading asks once and changes nothing");
    require(run.status != 0 || methods == "GET", "what is shown was asked for");
    for (const char* change : {"copySja", "extractSja", "deletePackageItems", "verifySja", "fileDELETE"})
        require(!was_called(change), "reading touches no file");
}

void check_addition(const Scenario& scenario, const Run& run) {
    const std::string methods = methods_sent();
    require(methods.empty() || methods == "POST" || methods == "POST DELETE",
            "an addition registers, and at most takes that back");
    if (!methods.empty())
        require(scenario.healthy(SIGNATURE) && scenario.healthy(CONTENTS) && was_called("verifySja"),
                "nothing is registered before its signature was verified and its contents read");
    const bool placed = was_called("copySja") || was_called("extractSja");
    require(!(was_called("copySja") && was_called("extractSja")), "a package is copied or extracted");
    require(!placed || !methods.empty(), "files come into the repository after their registration");
    require((methods == "POST DELETE") == (placed && !scenario.healthy(PLACING)),
            "a registration is taken back exactly when the files did not arrive");
    require((run.status == 0) == (placed && scenario.healthy(PLACING)),
            "success means that the files are there");
}

void check_deletion(const Scenario& scenario, const Run& run) {
    const std::string methods = methods_sent();
    require(methods.empty() || methods == "GET" || methods == "GET DELETE", "a deletion looks, then deletes");
    if (methods == "GET DELETE")
        require(was_called("confirmAction") && scenario.healthy(CONFIRMATION),
                "nothing is deleted without the user's consent");
    require(!was_called("deletePackageItems") || methods == "GET DELETE",
            "files are deleted after their registration");
    require((run.status == 0) == was_called("deletePackageItems"), "success means that the files were tried");
}

void check_promises(const Scenario& scenario, const Run& run) {
    const std::string command = command_of(scenario);
    check_error_line(scenario, run);
    check_requests();
    if (!has_right_arguments(command, scenario.arguments)) {
        check_untouched();
        return;
    }
    if (!scenario.ready()) {
        require(run.status == 132 || run.status == 110 || run.status == 153 || run.status == 7263,
                "a machine that is not ready is reported as such");
        require(service().requests.empty(), "a machine that is not ready asks for nothing");
    }
    if (command == "-add")
        check_addition(scenario, run);
    else if (command == "-delete")
        check_deletion(scenario, run);
    else
        check_reading(run);
    require(service().alive == 0, "every client is gone");
}

// The real debug log, in a directory of its own.
class Log {
  public:
    Log() : directory_(make_scratch_directory("log")) {
        std::filesystem::create_directory(directory_ + "/qvrepo");
        int status = 0;
        open_debug_log(directory_.c_str(), "qvrepo", "qvrepo", 0666, &status);
        require(status == 0, "the log can be opened");
    }

    // Checks that each line is a record, and empties the log.
    void check() const {
        for (const auto& file : std::filesystem::directory_iterator(directory_ + "/qvrepo")) {
            std::ifstream lines(file.path(), std::ios::binary);
            for (std::string line; std::getline(lines, line);)
                require(is_record(line), "every line of the log is one record");
            std::filesystem::resize_file(file.path(), 0);
        }
    }

  private:
    static bool is_record(const std::string& line) {
        static const std::string form = "dddd-dd-ddTdd:dd:dd.dddZ [";
        if (line.size() < form.size())
            return false;
        for (std::size_t i = 0; i < form.size(); ++i)
            if (form[i] == 'd' ? std::isdigit(static_cast<unsigned char>(line[i])) == 0 : line[i] != form[i])
                return false;
        return std::none_of(line.begin(), line.end(), [](unsigned char c) { return c < 0x20 || c == 0x7f; });
    }

    std::string directory_;
};

void prepare_process() {
    // An unexpected call of a fake ends the process.
    testing::GTEST_FLAG(throw_on_failure) = true;
    require(std::freopen("/dev/null", "w", stdout) != nullptr,
            "what is printed past the streams goes nowhere");
    for (const char* variable : {"LC_ALL", "LC_MESSAGES", "LANG"})
        unsetenv(variable);
}

} // namespace

const master_config* get_master_config_ptr() {
    return &CONFIG;
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool prepared = (prepare_process(), true);
    static const Log log;
    const Scenario scenario = read_scenario(as_text(data, size));
    if (!prepared || scenario.arguments.size() > MAX_ARGUMENTS)
        return -1;
    seam().reset();
    service().reset();
    set_up_startup(scenario);
    set_up_repository(scenario);
    service().answers.assign(scenario.answers.begin(), scenario.answers.end());
    // A service that has no more to say is out of reach.
    service().answers.insert(service().answers.end(), 4, {0, "", 7});
    check_promises(scenario, run_program(scenario));
    log.check();
    return 0;
}
