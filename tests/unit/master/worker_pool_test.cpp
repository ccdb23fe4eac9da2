#include "master/worker_pool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>

namespace {

TEST(WorkerPool, DoesEverythingBeforeItEnds) {
    std::atomic<int> done = 0;
    WorkerPool pool(3);
    for (int i = 0; i < 1000; ++i)
        pool.enqueue([&done] { ++done; });
    pool.shutdown();
    EXPECT_EQ(done, 1000);
}

TEST(WorkerPool, GrowsWhileAllItsThreadsAreBusy) {
    WorkerPool pool(50);
    std::promise<void> release;
    const std::shared_future<void> released = release.get_future().share();
    std::vector<std::promise<void>> started(50);
    for (std::promise<void>& one : started)
        pool.enqueue([&one, released] {
            one.set_value();
            released.wait();
        });
    for (std::promise<void>& one : started)
        one.get_future().wait();
    release.set_value();
    pool.shutdown();
}

TEST(WorkerPool, LetsTasksBeyondItsLimitWaitForAThread) {
    std::atomic<int> running = 0;
    std::atomic<int> most = 0;
    WorkerPool pool(4);
    for (int i = 0; i < 200; ++i)
        pool.enqueue([&running, &most] {
            const int now = ++running;
            for (int seen = most; now > seen && !most.compare_exchange_weak(seen, now);) {
            }
            std::this_thread::yield();
            --running;
        });
    pool.shutdown();
    EXPECT_GE(most, 1);
    EXPECT_LE(most, 4);
}

TEST(WorkerPool, EndsWithoutEverHavingWorked) {
    WorkerPool pool(4);
    pool.shutdown();
}

} // namespace
