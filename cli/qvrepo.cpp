// The program: one command per run.

#include "cli/dispatch.h"
#include "cli/message_buffers.h"
#include "platform/message_catalog.h"
#include "platform/standard_streams.h"

#include <csignal>
#include <cstdint>

#include <sys/stat.h>

namespace {

void look_up_locale() {
    static std::int64_t errsts;
    char scratch[256];
    mxgetlocaleEx(lc_messages, sizeof lc_messages, scratch, sizeof scratch, scratch, sizeof scratch, scratch,
                  sizeof scratch, scratch, sizeof scratch, &errsts);
}

} // namespace

int main(int argc, char** argv) {
    umask(022);
    reserve_standard_fds();
    // A file that grows past a limit is an error of its write, not the program's end.
    static_cast<void>(std::signal(SIGXFSZ, SIG_IGN));
    look_up_locale();
    return run_command(argc, argv);
}
