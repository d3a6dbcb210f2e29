// The one thread on which a Gateway does everything, and the way onto it.
#ifndef STANDIN_EVENT_LOOP_H
#define STANDIN_EVENT_LOOP_H

#include <functional>
#include <memory>
#include <mutex>
#include <thread>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>

namespace standin {

class EventLoop {
public:
    using Task = std::function<void()>;

    EventLoop();
    ~EventLoop();

    EventLoop(const EventLoop&) = delete;
    EventLoop& operator=(const EventLoop&) = delete;

    asio::io_context& context() { return context_; }

    // What is done about a task or handler that throws; the loop goes on.
    using Complain = std::function<void(const char* failure)>;

    // Starts the thread, with all signals blocked in it.
    void start(Complain complain);

    // Runs the task on the thread, behind what has been given before. False when the loop has
    // stopped; the task is then dropped.
    bool post(Task task);

    // The same, but on the thread itself the task runs at once.
    bool dispatch(const Task& task);

    // As post(), and waits until it has run; runs it at once when called on the thread itself. What
    // the task throws, this throws.
    bool runAndWait(const Task& task);

    // Runs `last`, which must end everything that the context still waits for, and joins the
    // thread. Later calls do nothing. Not to be called on the thread itself.
    void stop(Task last);

private:
    void run(const Complain& complain);

    asio::io_context context_{1};
    asio::executor_work_guard<asio::io_context::executor_type> work_;
    std::mutex lock_;
    bool running_ = false; // guarded by lock_
    std::thread thread_;
    std::thread::id threadId_; // set by start(), before anything can run on the thread
};

// Brings a task onto the loop's thread. False, and the task is dropped, when it has stopped or is
// gone.
std::function<bool(EventLoop::Task)> wayOnto(const std::shared_ptr<EventLoop>& loop);

} // namespace standin

#endif
