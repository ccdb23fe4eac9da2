#include "master/worker_pool.h"

#include "master/problem.h"

#include <string>
#include <system_error>

void WorkerPool::enqueue(std::function<void()> task) {
    const std::lock_guard<std::mutex> lock(mutex_);
    tasks_.push_back(std::move(task));
    if (tasks_.size() > idle_ && threads_.size() < limit_)
        add_thread();
    news_.notify_one();
}

// Where the system gives no further thread, those that are there do the work.
void WorkerPool::add_thread() {
    try {
        threads_.emplace_back([this] { work(); });
    } catch (const std::system_error& error) {
        report_problem(std::string("cannot start a thread: ") + error.what());
    }
}

void WorkerPool::work() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        ++idle_;
        news_.wait(lock, [this] { return ending_ || !tasks_.empty(); });
        --idle_;
        if (tasks_.empty())
            return;
        const std::function<void()> task = std::move(tasks_.front());
        tasks_.pop_front();
        lock.unlock();
        task();
        lock.lock();
    }
}

void WorkerPool::shutdown() {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        ending_ = true;
    }
    news_.notify_all();
    for (std::thread& thread : threads_)
        thread.join();
}
