// A platform half of the seam in which nobody is administrator. No other platform call may follow that
// answer; one ends the program, so that the test sees it.

#include "seam/T.h"

#include <cstdio>
#include <cstdlib>

namespace {

[[noreturn]] void unexpected(const char* member) {
    std::fprintf(stderr, "unexpected call of T::%s\n", member);
    std::exit(99);
}

} // namespace

int T::is_user_admin(user_permission_type_t) {
    return 0;
}

void T::open_debug_log(const char*, const char*, const char*, int, int*) {
    unexpected("open_debug_log");
}
int T::lunt_is_master_server(const char*) {
    unexpected("lunt_is_master_server");
}
int T::QV_read_master_config() {
    unexpected("QV_read_master_config");
}
