// Signals that ask the program to end while it must not stop where it is.

#ifndef PLATFORM_INTERRUPTION_H
#define PLATFORM_INTERRUPTION_H

#include <array>
#include <csignal>

// While it lives, SIGINT, SIGTERM and SIGHUP are only noted; its destructor ends the program by the
// signal that was noted. A second signal ends the program at once, unless it comes so soon (0.2 s) that it
// belongs to the same event. A signal that the program was started to ignore stays ignored. SIGPIPE is
// ignored from the constructor to the program's end, as what cannot be printed undoes nothing. One object at
// a time.
class DeferredSignals {
  public:
    DeferredSignals();
    DeferredSignals(const DeferredSignals&) = delete;
    DeferredSignals& operator=(const DeferredSignals&) = delete;
    ~DeferredSignals();

  private:
    static constexpr std::array<int, 3> SIGNALS = {SIGINT, SIGTERM, SIGHUP};
    std::array<struct sigaction, SIGNALS.size()> before_ = {};
};

// Whether a signal was noted: a long operation that can be undone then fails early.
bool interruption_noted();

#endif
