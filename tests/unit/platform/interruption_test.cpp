#include "platform/interruption.h"

#include "tests/support/child_process.h"

#include <gtest/gtest.h>

#include <csignal>

namespace {

constexpr int SURVIVED = 3;

void wait_for_another_event() {
    usleep(300000);
}

TEST(Interruption, IsNotedAndEndsTheProcessByTheSignalWhenTheChangeIsOver) {
    for (int signal : {SIGINT, SIGTERM, SIGHUP}) {
        const int ending = in_child([signal] {
            const DeferredSignals deferred;
            if (interruption_noted() || std::raise(signal) != 0 || !interruption_noted())
                _exit(SURVIVED);
            return SURVIVED;
        });
        EXPECT_EQ(ending, 128 + signal);
    }
}

TEST(Interruption, ThatIsRepeatedEndsTheProcessAtOnce) {
    const int ending = in_child([] {
        const DeferredSignals deferred;
        static_cast<void>(std::raise(SIGINT));
        wait_for_another_event();
        static_cast<void>(std::raise(SIGTERM));
        _exit(SURVIVED);
        return SURVIVED;
    });
    EXPECT_EQ(ending, 128 + SIGTERM);
}

TEST(Interruption, ByOneEventThatSendsSeveralSignalsIsNotedOnce) {
    const int ending = in_child([] {
        const DeferredSignals deferred;
        for (int signal : {SIGHUP, SIGHUP, SIGTERM, SIGHUP})
            static_cast<void>(std::raise(signal));
        _exit(SURVIVED);
        return SURVIVED;
    });
    EXPECT_EQ(ending, SURVIVED);
}

TEST(Interruption, ThatTheCallerIgnoresStaysIgnored) {
    const int ending = in_child([] {
        static_cast<void>(std::signal(SIGHUP, SIG_IGN));
        {
            const DeferredSignals deferred;
            if (std::raise(SIGHUP) != 0 || interruption_noted())
                return 1;
        }
        return std::raise(SIGHUP) == 0 ? SURVIVED : 2;
    });
    EXPECT_EQ(ending, SURVIVED);
}

TEST(Interruption, OutsideAChangeIsObeyedAtOnce) {
    const int ending = in_child([] {
        { const DeferredSignals over; }
        static_cast<void>(std::raise(SIGTERM));
        return SURVIVED;
    });
    EXPECT_EQ(ending, 128 + SIGTERM);
}

TEST(Interruption, IsNotABrokenPipeFromTheChangeOn) {
    const int ending = in_child([] {
        { const DeferredSignals over; }
        static_cast<void>(std::raise(SIGPIPE));
        return SURVIVED;
    });
    EXPECT_EQ(ending, SURVIVED);
}

} // namespace
