#include "check/setup.h"

#include "check/package_list.h"
#include "check/remedies.h"
#include "check/signing_key.h"
#include "check/tls_check.h"
#include "files/DiskSpace.h"
#include "model/package_service.h"
#include "platform/admin.h"
#include "platform/catalog_file.h"
#include "platform/local_host.h"
#include "platform/master_config.h"
#include "platform/message_catalog.h"
#include "platform/paths.h"
#include "platform/regular_file.h"
#include "platform/space_rule.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include <jansson.h>
#include <netdb.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace {

constexpr Message PLACE = {"TqlChk0030N", "owner %s, mode %s, file system %s"};
constexpr Message SPACE = {"TqlChk0031N", "%s MB free (%s percent), room for a package of %s MB"};
constexpr Message BY_HOST_NAME = {"TqlChk0032N", "this machine, by its host name"};
constexpr Message BY_QUALIFIED_NAME = {"TqlChk0033N", "this machine, by its fully qualified name"};
constexpr Message BY_ADDRESS = {"TqlChk0034N", "this machine, by one of its addresses"};
constexpr Message DAYS_LEFT = {"TqlChk0035N", "valid for %s days"};
constexpr Message SECURED = {"TqlChk0036N", "%s, certificate valid for %s days"};
constexpr Message PACKAGES = {"TqlChk0037N", "packages listed: %s"};
constexpr Message FINGERPRINT = {"TqlChk0038N", "RSA 4096, SHA-256 %s"};
constexpr Message LOG_OFF = {"TqlChk0039N", "off; a directory of this name turns it on"};
constexpr Message LOG_ON = {"TqlChk0040N", "on"};
constexpr Message ENGLISH_TEXTS = {"TqlChk0041N", "no catalog of this locale, so the texts are English"};
constexpr Message CATALOG_USED = {"TqlChk0042N", "the locale's catalog is used"};

constexpr Message BECOME_ROOT = {"TqlChk0050N", "Run the command as root:"};
constexpr Message MAKE_DIRECTORY = {"TqlChk0051N", "Make the directory, or mount the volume that holds it:"};
constexpr Message KEEP_TO_ROOT = {"TqlChk0052N", "Let nobody but root change it:"};
constexpr Message MAKE_ROOM = {"TqlChk0053N",
                               "Make room: delete packages with qvrepo -delete or enlarge the volume of %s."};
constexpr Message NAME_MASTER = {"TqlChk0054N",
                                 "If this machine is the master server, name it first in the configuration:"};
constexpr Message RESOLVE_NAME = {"TqlChk0055N", "Mend the resolver, or enter the name on this machine:"};
constexpr Message START_SERVICE = {
    "TqlChk0056N",
    "Start the master server's web service, and see that no firewall blocks its port. Where qvmaster is it:"};
constexpr Message PUT_AUTHORITY = {
    "TqlChk0057N", "Put the certificate of the authority that signed the service's certificate into %s."};
constexpr Message PUT_HOST_PAIR = {
    "TqlChk0058N", "Have the authority sign a certificate for this machine; put it into %s and its key, not "
                   "encrypted, into %s."};
constexpr Message MEND_SERVICE_CERTIFICATE = {
    "TqlChk0059N",
    "Give the service a certificate for the name %s that is valid and signed by the authority in "
    "%s."};
constexpr Message READ_SERVICE_LOG = {
    "TqlChk0060N", "Read the service's own log. It may refuse this machine's certificate, or be of another "
                   "release."};
constexpr Message PUT_SIGNING_KEY = {"TqlChk0061N", "Put the publisher's public key into %s."};
constexpr Message MAKE_WRITABLE = {"TqlChk0062N", "Make it a directory that root can write to."};
constexpr Message REINSTALL = {"TqlChk0063N", "Install the catalogs again:"};

constexpr long WARN_DAYS = 30;
constexpr std::size_t MAX_CONFIG_SIZE = 1024UL * 1024;

// The type of the file system, from the mount that has the device.
std::string file_system_of(dev_t device) {
    std::ifstream mounts("/proc/self/mountinfo");
    const std::string wanted = std::to_string(major(device)) + ":" + std::to_string(minor(device));
    for (std::string line; std::getline(mounts, line);) {
        std::istringstream fields(line);
        std::string id;
        std::string parent;
        std::string number;
        fields >> id >> parent >> number;
        const std::size_t dash = line.find(" - ");
        if (number == wanted && dash != std::string::npos)
            return line.substr(dash + 3, line.find(' ', dash + 3) - dash - 3);
    }
    return "?";
}

class Setup {
  public:
    std::vector<Condition> run() {
        administrator();
        directory("product-root", QV_PRODUCT_ROOT, "0755");
        space(directory("repository", REPOSITORY_DIRECTORY, "0750"));
        configuration();
        role();
        resolution();
        connection();
        authority();
        host_certificate();
        host_key();
        service_certificate();
        request();
        signing_key();
        debug_log();
        catalogs();
        return std::move(conditions_);
    }

  private:
    Condition& begin(const char* name, const std::string& subject) {
        conditions_.push_back({name, Outcome::OK, subject});
        return conditions_.back();
    }

    // The condition where those that it needs hold; else null, and it is skipped.
    Condition* begin_if(bool holds, const char* name, const std::string& subject) {
        Condition& condition = begin(name, subject);
        condition.outcome = holds && is_administrator_ ? Outcome::OK : Outcome::SKIP;
        return condition.outcome == Outcome::OK ? &condition : nullptr;
    }

    static void fail(Condition& condition, const std::string& cause, Text remedy,
                     const std::string& command = "") {
        condition.outcome = Outcome::FAIL;
        condition.cause = cause;
        condition.remedy = std::move(remedy);
        condition.command = command;
    }

    void administrator() {
        Condition& condition = begin("administrator", "uid " + std::to_string(geteuid()));
        is_administrator_ = is_user_admin(USER_PERMISSION_ADMINISTRATOR) != 0;
        if (!is_administrator_)
            fail(condition, std::strerror(EPERM), {&BECOME_ROOT}, "sudo qvcheck setup");
    }

    bool directory(const char* name, const char* path, const char* mode) {
        Condition* condition = begin_if(true, name, path);
        if (condition == nullptr)
            return false;
        struct stat status = {};
        const bool found = stat(path, &status) == 0;
        if (!found || !S_ISDIR(status.st_mode)) {
            fail(*condition, std::strerror(found ? ENOTDIR : errno), {&MAKE_DIRECTORY},
                 std::string("install -d -m ") + mode + " " + path);
            return false;
        }
        condition->note = {
            &PLACE,
            {std::to_string(status.st_uid), mode_text(status.st_mode), file_system_of(status.st_dev)}};
        if (const std::string command = tightening(path, status); !command.empty())
            fail(*condition, std::strerror(EPERM), {&KEEP_TO_ROOT}, command);
        return condition->outcome == Outcome::OK;
    }

    void space(bool has_repository) {
        Condition* condition = begin_if(has_repository, "space", REPOSITORY_DIRECTORY);
        float percent = 0;
        unsigned long free = 0;
        if (condition == nullptr || getFileSystemFreespace(REPOSITORY_DIRECTORY, &percent, &free) != 0)
            return;
        const float kept =
            percent > 0 ? 100.0F / percent * static_cast<float>(free) * MIN_SHARE_LEFT_FREE : 0;
        const auto room = std::max(0L, static_cast<long>(free) - static_cast<long>(kept));
        char percentage[32];
        static_cast<void>(std::snprintf(percentage, sizeof percentage, "%.1f", static_cast<double>(percent)));
        condition->note = {&SPACE, {std::to_string(free), percentage, std::to_string(room)}};
        if (percent < MIN_PERCENT_FREE)
            fail(*condition, std::strerror(ENOSPC), {&MAKE_ROOM, {REPOSITORY_DIRECTORY}});
        else if (room == 0)
            warn(*condition, {&MAKE_ROOM, {REPOSITORY_DIRECTORY}});
    }

    static void warn(Condition& condition, Text remedy) {
        condition.outcome = Outcome::WARNING;
        condition.remedy = std::move(remedy);
    }

    void configuration() {
        Condition* condition = begin_if(true, "configuration", MASTER_CONFIG_FILE);
        if (condition == nullptr)
            return;
        const int error = QV_read_master_config();
        const master_config* config = error == 0 ? get_master_config_ptr() : nullptr;
        if (config != nullptr && config->server_names != nullptr)
            master_ = config->server_names[0];
        if (master_.empty())
            fail(*condition, error != 0 && error != EINVAL ? std::strerror(error) : malformation(),
                 {&NAME_MASTER}, naming_command());
    }

    // What is wrong with a configuration that can be read.
    static std::string malformation() {
        std::string text;
        json_error_t error{};
        read_regular_file(MASTER_CONFIG_FILE, MAX_CONFIG_SIZE, text);
        json_t* document = json_loadb(text.data(), text.size(), 0, &error);
        json_decref(document);
        return document != nullptr ? "\"servers\": []" : std::to_string(error.line) + ": " + error.text;
    }

    static std::string naming_command() {
        return std::string("printf '{\"servers\": [\"%s\"]}\\n' \"$(hostname)\" > ") + MASTER_CONFIG_FILE;
    }

    void role() {
        Condition* condition = begin_if(!master_.empty(), "role", master_);
        if (condition == nullptr)
            return;
        const HostMatch match = match_this_host(master_);
        is_master_ = match != HostMatch::NONE;
        if (match == HostMatch::HOST_NAME)
            condition->note = {&BY_HOST_NAME};
        else if (match == HostMatch::QUALIFIED_NAME)
            condition->note = {&BY_QUALIFIED_NAME};
        else if (match == HostMatch::ADDRESS)
            condition->note = {&BY_ADDRESS};
        else
            fail(*condition, "hostname: " + host_name(), {&NAME_MASTER}, naming_command());
    }

    static std::string host_name() {
        char name[256] = "";
        static_cast<void>(gethostname(name, sizeof name - 1));
        return name;
    }

    void resolution() {
        Condition* condition = begin_if(is_master_, "resolution", master_);
        if (condition == nullptr)
            return;
        addrinfo* found = nullptr;
        const int error = getaddrinfo(master_.c_str(), nullptr, nullptr, &found);
        resolves_ = error == 0;
        if (resolves_)
            freeaddrinfo(found);
        else
            fail(*condition, gai_strerror(error), {&RESOLVE_NAME},
                 "echo " + shell_word("127.0.0.1 " + master_) + " >> /etc/hosts");
    }

    void connection() {
        Condition* condition = begin_if(resolves_, "connection", master_ + ":1556");
        if (condition == nullptr)
            return;
        const int error = connect_to(master_, connection_);
        is_connected_ = error == 0;
        if (!is_connected_)
            fail(*condition, std::strerror(error), {&START_SERVICE}, "systemctl start qvmaster");
    }

    // Whether the certificates can be used.
    static bool judge(Condition& condition, const TlsFacts& facts, Text remedy) {
        if (!facts.problem.empty()) {
            fail(condition, facts.problem, std::move(remedy));
            return false;
        }
        condition.note = facts.protocol.empty()
                             ? Text{&DAYS_LEFT, {std::to_string(facts.days_left)}}
                             : Text{&SECURED, {facts.protocol, std::to_string(facts.days_left)}};
        if (facts.days_left < WARN_DAYS)
            warn(condition, std::move(remedy));
        return true;
    }

    void authority() {
        if (Condition* condition = begin_if(true, "authority", TLS_AUTHORITY_FILE))
            has_authority_ = judge(*condition, look_at_authority(), {&PUT_AUTHORITY, {TLS_AUTHORITY_FILE}});
    }

    void host_certificate() {
        if (Condition* condition = begin_if(true, "host-certificate", TLS_HOST_CERTIFICATE_FILE))
            has_host_pair_ = judge(*condition, look_at_host_pair(),
                                   {&PUT_HOST_PAIR, {TLS_HOST_CERTIFICATE_FILE, TLS_HOST_KEY_FILE}});
    }

    void host_key() {
        Condition* condition = begin_if(has_host_pair_, "host-key", TLS_HOST_KEY_FILE);
        struct stat status = {};
        if (condition == nullptr || stat(TLS_HOST_KEY_FILE, &status) != 0)
            return;
        condition->note = {
            &PLACE,
            {std::to_string(status.st_uid), mode_text(status.st_mode), file_system_of(status.st_dev)}};
        if (status.st_uid != 0 || (status.st_mode & (S_IRWXG | S_IRWXO)) != 0)
            fail(*condition, std::strerror(EPERM), {&KEEP_TO_ROOT},
                 std::string("chown root:root ") + TLS_HOST_KEY_FILE + " && chmod 0600 " + TLS_HOST_KEY_FILE);
    }

    void service_certificate() {
        if (Condition* condition = begin_if(is_connected_ && has_authority_ && has_host_pair_,
                                            "service-certificate", master_ + ":1556"))
            is_secured_ = judge(*condition, handshake(connection_, master_),
                                {&MEND_SERVICE_CERTIFICATE, {master_, TLS_AUTHORITY_FILE}});
        connection_.close();
    }

    void request() {
        Condition* condition = begin_if(is_secured_, "request", "GET " + std::string(PACKAGES_URI));
        if (condition == nullptr)
            return;
        std::vector<QvRepoPackage> packages;
        if (const std::string reason = request_packages(master_, packages); !reason.empty())
            fail(*condition, reason, {&READ_SERVICE_LOG});
        else
            condition->note = {&PACKAGES, {std::to_string(packages.size())}};
    }

    void signing_key() {
        Condition* condition = begin_if(true, "signing-key", SIGNING_KEY_FILE);
        if (condition == nullptr)
            return;
        const SigningKey key = read_signing_key();
        if (key.problem.empty())
            condition->note = {&FINGERPRINT, {key.fingerprint}};
        else
            fail(*condition, key.problem, {&PUT_SIGNING_KEY, {SIGNING_KEY_FILE}});
    }

    void debug_log() {
        const std::string directory = std::string(LOG_DIRECTORY) + "/qvrepo";
        Condition* condition = begin_if(true, "debug-log", directory);
        if (condition == nullptr)
            return;
        struct stat status = {};
        const bool exists = stat(directory.c_str(), &status) == 0;
        condition->note = {exists ? &LOG_ON : &LOG_OFF};
        if (exists && !S_ISDIR(status.st_mode))
            fail(*condition, std::strerror(ENOTDIR), {&MAKE_WRITABLE});
        else if (exists && access(directory.c_str(), W_OK | X_OK) != 0)
            fail(*condition, std::strerror(errno), {&MAKE_WRITABLE});
    }

    void catalogs() {
        char locale[256];
        mxgetlocaleEx(locale, sizeof locale, nullptr, 0, nullptr, 0, nullptr, 0, nullptr, 0, nullptr);
        Condition* condition = begin_if(true, "catalogs", locale);
        if (condition == nullptr)
            return;
        condition->note = {&ENGLISH_TEXTS};
        for (const std::string& name : catalog_locales(locale)) {
            const std::string path = std::string(MESSAGE_DIRECTORY) + "/" + name + "/qvrepo.cat";
            if (access(path.c_str(), F_OK) != 0)
                continue;
            condition->note = {&CATALOG_USED};
            condition->subject = path;
            // The text that every failure without one of its own ends with.
            if (!catalog_text(path, 24))
                fail(*condition, std::strerror(EINVAL), {&REINSTALL}, "apt-get install --reinstall qvrepo");
            return;
        }
    }

    std::vector<Condition> conditions_;
    std::string master_;
    FileDescriptor connection_;
    bool is_administrator_ = false;
    bool is_master_ = false;
    bool resolves_ = false;
    bool is_connected_ = false;
    bool has_authority_ = false;
    bool has_host_pair_ = false;
    bool is_secured_ = false;
};

} // namespace

std::vector<Condition> check_setup() {
    return Setup().run();
}
