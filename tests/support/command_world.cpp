#include "tests/support/command_world.h"

#include "cli/message_buffers.h"

namespace {

const char* const SERVER_NAMES[] = {"master.example.com", "other.example.com", nullptr};
const master_config HEALTHY_CONFIG = {SERVER_NAMES};
const master_config* current_config = &HEALTHY_CONFIG;

constexpr std::size_t STARTUP_CALLS = 4; // administrator, configuration, role, free space

} // namespace

const std::string HELP_TEXT = "\nUsage: Quorvelle package repository utility\n\n"
                              "qvrepo -a | -add <package_path>\n"
                              "qvrepo -d | -delete <package_identifier>\n"
                              "qvrepo -l | -list\n"
                              "qvrepo -p | -pkgDetails <package_identifier>\n"
                              "qvrepo -h | -help\n";

const master_config* get_master_config_ptr() {
    return current_config;
}

void set_master_config(const master_config* config) {
    current_config = config;
}

void CommandWorld::SetUp() {
    seam().reset();
    service().reset();
    current_config = &HEALTHY_CONFIG;
    lc_messages[0] = '\0';
    seam().is_user_admin = [](user_permission_type_t) { return 1; };
    seam().QV_read_master_config = [] { return 0; };
    seam().lunt_is_master_server = [](const char*) { return 1; };
    seam().getFreeSpace = [](const char*, float* percent, unsigned long* megabytes) {
        *percent = 50.0F;
        *megabytes = 5000;
        return 0;
    };
    seam().pathExists = [](const char*) { return true; };
}

void CommandWorld::TearDown() {
    EXPECT_TRUE(service().answers.empty()) << "an answer that was lined up was never asked for";
    EXPECT_EQ(service().alive, 0) << "a client was not destroyed";
    seam().reset();
}

std::vector<LogRecord> CommandWorld::records_after_startup() const {
    const std::vector<LogRecord> startup = {
        {4, "initialize",
         "The volume hosting [/usr/ormex/var/global/repo] has [5000] MB space available, [50.000000] percent of the disk."},
        {4, "initialize", "Initialized qvrepo on master server master.example.com."}};
    std::vector<LogRecord> all = log_.records();
    if (all.size() < startup.size() || !std::equal(startup.begin(), startup.end(), all.begin())) {
        ADD_FAILURE() << "the log does not begin with the start-up records: " << testing::PrintToString(all);
        return all;
    }
    all.erase(all.begin(), all.begin() + static_cast<std::ptrdiff_t>(startup.size()));
    return all;
}

std::vector<std::string> CommandWorld::calls_after_startup() const {
    const std::vector<std::string>& calls = seam().calls;
    if (calls.size() < STARTUP_CALLS) {
        ADD_FAILURE() << "the start-up checks were not made: " << testing::PrintToString(calls);
        return calls;
    }
    return {calls.begin() + STARTUP_CALLS, calls.end()};
}

std::vector<LogRecord> exchange_records(const std::string& uri, const std::string& requestBody,
                                        const std::string& responseBody, long code, long expected) {
    std::vector<LogRecord> records = {{2, "curlSendRequest", "Sending curl request with URI : " + uri + "."}};
    if (!requestBody.empty())
        records.push_back({2, "curlSendRequest", "Request body: " + requestBody + "."});
    records.push_back({2, "curlSendRequest", "Http response body: " + responseBody});
    records.push_back({2, "curlSendRequest",
                       "Actual http response code: " + std::to_string(code) +
                           " , expected http response code: " + std::to_string(expected)});
    return records;
}

std::vector<LogRecord> operator+(std::vector<LogRecord> first, const std::vector<LogRecord>& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}
