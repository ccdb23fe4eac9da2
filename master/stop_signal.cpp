#include "master/stop_signal.h"

#include "master/problem.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <poll.h>
#include <string>
#include <sys/eventfd.h>
#include <unistd.h>

StopSignal::StopSignal() : event_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!event_.is_open())
        throw StartFailure(std::string("cannot make an event descriptor: ") + std::strerror(errno));
}

void StopSignal::give() {
    const std::uint64_t one = 1;
    // It fails only when the counter is full, and then the signal has been given long since.
    static_cast<void>(!write(descriptor(), &one, sizeof one));
}

bool StopSignal::given() const {
    pollfd state{descriptor(), POLLIN, 0};
    return poll(&state, 1, 0) > 0;
}
