// A thread for work that takes too long for the Gateway's own: one task after the other, in the
// order in which they are given.
//
// Thread: any.
#ifndef REGISTRY_WORKER_H
#define REGISTRY_WORKER_H

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace registry {

class Worker {
public:
    using Task = std::function<void()>;

    // So many tasks may wait.
    explicit Worker(std::size_t most);

    // Waits for the task that is being done, and drops those that wait.
    ~Worker();

    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    // False, and the task is dropped, when too many wait already.
    bool give(Task task);

private:
    void work();

    const std::size_t most_;
    std::mutex lock_;
    std::condition_variable changed_;
    std::deque<Task> waiting_; // guarded by lock_, as is the next one
    bool ending_ = false;
    std::thread thread_;
};

} // namespace registry

#endif
