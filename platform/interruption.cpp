#include "platform/interruption.h"

#include "platform/debug_log.h"

#include <atomic>
#include <chrono>

namespace {

using Clock = std::chrono::steady_clock;

// The kernel and the shell both report a lost terminal, and timeout(1) signals the program and its group.
constexpr Clock::rep ONE_EVENT = Clock::duration(std::chrono::milliseconds(200)).count();

// Atomic, as libcurl's resolver thread may be the one that a signal meets.
std::atomic<int> noted = 0;
std::atomic<Clock::rep> noted_at = 0;
static_assert(std::atomic<Clock::rep>::is_always_lock_free && std::atomic<int>::is_always_lock_free);

} // namespace

extern "C" {
static void note_signal(int signal) {
    const Clock::rep now = Clock::now().time_since_epoch().count();
    Clock::rep first = 0;
    if (noted_at.compare_exchange_strong(first, now)) {
        noted = signal;
    } else if (now - first > ONE_EVENT) {
        static_cast<void>(std::signal(signal, SIG_DFL));
        static_cast<void>(std::raise(signal)); // takes effect on return
    }
}
}

DeferredSignals::DeferredSignals() {
    static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
    struct sigaction note = {};
    note.sa_handler = note_signal;
    note.sa_flags = SA_RESTART;
    for (std::size_t i = 0; i < SIGNALS.size(); ++i) {
        sigaction(SIGNALS[i], nullptr, &before_[i]);
        if (before_[i].sa_handler != SIG_IGN)
            sigaction(SIGNALS[i], &note, nullptr);
    }
}

DeferredSignals::~DeferredSignals() {
    for (std::size_t i = 0; i < SIGNALS.size(); ++i)
        sigaction(SIGNALS[i], &before_[i], nullptr);
    if (noted == 0)
        return;
    logmsgf(16, "DeferredSignals", "qvrepo ends by signal %d.", noted.load());
    static_cast<void>(std::raise(noted));
}

bool interruption_noted() {
    return noted != 0;
}
