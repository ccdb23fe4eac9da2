#include "platform/standard_streams.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

void occupy_standard_streams() {
    for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream) {
        if (fcntl(stream, F_GETFD) >= 0 || errno != EBADF)
            continue;
        // The lowest number that is free is this one, and the wrong direction keeps it from being used.
        const int direction = stream == STDIN_FILENO ? O_WRONLY : O_RDONLY;
        static_cast<void>(open("/dev/null", direction | O_NOCTTY));
    }
}
