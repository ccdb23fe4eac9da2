#include "platform/standard_streams.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

void reserve_standard_fds() {
    for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream) {
        if (fcntl(stream, F_GETFD) >= 0 || errno != EBADF)
            continue;
        // open() returns the lowest free number, which is this one; the wrong direction keeps it unusable.
        const int direction = stream == STDIN_FILENO ? O_WRONLY : O_RDONLY;
        static_cast<void>(open("/dev/null", direction | O_NOCTTY));
    }
}
