// The threads that serve connections, one connection each at a time.

#ifndef MASTER_WORKER_POOL_H
#define MASTER_WORKER_POOL_H

#include <httplib.h>

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

// Grows while every thread is busy, so that silent clients do not keep others waiting, up to a limit; what
// comes then waits for a thread.
class WorkerPool : public httplib::TaskQueue {
  public:
    explicit WorkerPool(std::size_t limit) : limit_(limit) {}

    void enqueue(std::function<void()> task) override;

    // Waits until all tasks are done and ends all threads. To be called once, before the pool goes.
    void shutdown() override;

  private:
    void add_thread();
    void work();

    const std::size_t limit_;
    std::mutex mutex_;
    std::condition_variable news_;
    std::deque<std::function<void()>> tasks_;
    std::vector<std::thread> threads_;
    std::size_t idle_ = 0;
    bool ending_ = false;
};

#endif
