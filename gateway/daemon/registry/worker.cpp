#include "registry/worker.h"

#include <utility>

#include "standin/wipe.h"

namespace registry {

Worker::Worker(std::size_t most) : most_(most), thread_([this] { work(); }) {}

Worker::~Worker()
{
    std::deque<Task> dropped;
    {
        const std::lock_guard<std::mutex> guard(lock_);
        ending_ = true;
        dropped.swap(waiting_);
    }
    changed_.notify_all();
    thread_.join();
}

bool Worker::give(Task task)
{
    {
        const std::lock_guard<std::mutex> guard(lock_);
        if (ending_ || waiting_.size() >= most_) return false;
        waiting_.push_back(std::move(task));
    }
    changed_.notify_all();
    return true;
}

void Worker::work()
{
    for (;;) {
        Task task;
        {
            std::unique_lock<std::mutex> guard(lock_);
            changed_.wait(guard, [this] { return ending_ || !waiting_.empty(); });
            if (ending_) return;
            task = std::move(waiting_.front());
            waiting_.pop_front();
        }
        task();
        task = nullptr;
        standin::wipeStack(); // the work is on passwords
    }
}

} // namespace registry
