#include "platform/os_names.h"

#include <iterator>

namespace {

// The code is the place in this table, counted from 1; packages on disk carry the keys and the service the
// codes, so neither order nor spelling may change.
constexpr const char* OS_KEYS[] = {
    "aix_rs6000",    "debian_x64",  "hpux_ia64",    "redhat_ppc64le", "redhat_x64",   "redhat_zseries",
    "solaris_sparc", "solaris_x64", "suse_ppc64le", "suse_x64",       "suse_zseries", "windows_x64",
};

} // namespace

const char* QV_os_name(int os) {
    return os < 1 || os > QV_os_count() ? "INVALID" : OS_KEYS[os - 1];
}

int QV_os_count() {
    return static_cast<int>(std::size(OS_KEYS));
}
