#include "cli/startup.h"

#include "cli/message_buffers.h"
#include "platform/bounded.h"
#include "platform/debug_log.h"
#include "platform/master_config.h"
#include "platform/paths.h"
#include "platform/space_rule.h"
#include "platform/status_codes.h"
#include "seam/T.h"

#include <unistd.h>

namespace {

constexpr const char* PROGRAM = "qvrepo";
constexpr int LOG_FILE_MODE = 0666;

// Making the program's directory is how an administrator turns the log on.
void open_log_if_wanted() {
    bounded_format(outline, sizeof outline, "%s/%s", LOG_DIRECTORY, PROGRAM);
    if (access(outline, F_OK) != 0)
        return;
    int status = 0;
    T::open_debug_log(LOG_DIRECTORY, PROGRAM, PROGRAM, LOG_FILE_MODE, &status);
}

int read_master_server(std::string& masterServer) {
    if (T::QV_read_master_config() != 0)
        return STATUS_CONFIGURATION;
    const master_config* config = get_master_config_ptr();
    if (config == nullptr)
        return STATUS_CONFIGURATION;
    const char* const* names = config->server_names;
    if (names == nullptr || names[0] == nullptr || names[0][0] == '\0')
        return STATUS_NO_MASTER_SERVER;
    masterServer = names[0];
    return 0;
}

// Advisory: a volume that cannot be queried passes, and the command itself finds out about its directory.
int check_free_space() {
    float percent_free = 0;
    unsigned long megabytes_free = 0;
    if (T::getFreeSpace(REPOSITORY_DIRECTORY, &percent_free, &megabytes_free) != 0)
        return 0;
    logmsgf(4, "initialize",
            "The volume hosting [%s] has [%lu] MB space available, [%f] percent of the disk.",
            REPOSITORY_DIRECTORY, megabytes_free, static_cast<double>(percent_free));
    if (percent_free < MIN_PERCENT_FREE) {
        logmsg(16, "A minimum of one percent of the disk must be free to manage the repo.", "initialize");
        return STATUS_REPOSITORY_FULL;
    }
    return 0;
}

} // namespace

int initialize(std::string& masterServer) {
    if (T::is_user_admin(USER_PERMISSION_ADMINISTRATOR) == 0)
        return STATUS_NOT_ADMINISTRATOR;
    log_set_pid();
    open_log_if_wanted();
    if (const int status = read_master_server(masterServer); status != 0)
        return status;
    if (T::lunt_is_master_server("localhost") == 0)
        return STATUS_NOT_MASTER_SERVER;
    if (const int status = check_free_space(); status != 0)
        return status;
    logmsgf(4, "initialize", "Initialized qvrepo on master server %s.", masterServer.c_str());
    return 0;
}
