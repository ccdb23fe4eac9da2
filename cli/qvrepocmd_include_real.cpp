// The seam's platform half: each member calls the platform's function of the same name.

#include "platform/admin.h"
#include "platform/debug_log.h"
#include "platform/master_config.h"
#include "seam/T.h"

int T::is_user_admin(user_permission_type_t permission) {
    return ::is_user_admin(permission);
}

void T::open_debug_log(const char* directory, const char* program, const char* logName, int mode,
                       int* status) {
    ::open_debug_log(directory, program, logName, mode, status);
}

int T::lunt_is_master_server(const char* host) {
    return ::lunt_is_master_server(host);
}

int T::QV_read_master_config() {
    return ::QV_read_master_config();
}
