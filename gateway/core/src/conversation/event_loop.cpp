#include "conversation/event_loop.h"

#include <csignal>
#include <exception>
#include <future>
#include <utility>

#include <asio/post.hpp>

namespace standin {

EventLoop::EventLoop() : work_(asio::make_work_guard(context_)) {}

EventLoop::~EventLoop()
{
    stop([] {});
}

void EventLoop::start(Complain complain)
{
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    thread_ = std::thread([this, complain = std::move(complain)] { run(complain); });
    pthread_sigmask(SIG_SETMASK, &before, nullptr);

    const std::lock_guard<std::mutex> guard(lock_);
    threadId_ = thread_.get_id();
    running_ = true;
}

void EventLoop::run(const Complain& complain)
{
    for (;;) {
        try {
            context_.run();
            return;
        } catch (const std::exception& failure) {
            complain(failure.what());
        }
    }
}

bool EventLoop::post(Task task)
{
    // Posting under the lock keeps every task in front of the last one of stop().
    const std::lock_guard<std::mutex> guard(lock_);
    if (!running_) return false;
    asio::post(context_, std::move(task));
    return true;
}

bool EventLoop::dispatch(const Task& task)
{
    if (std::this_thread::get_id() != threadId_) return post(task);
    task();
    return true;
}

bool EventLoop::runAndWait(const Task& task)
{
    if (std::this_thread::get_id() == threadId_) {
        task();
        return true;
    }
    std::promise<void> done;
    const bool posted = post([&task, &done] {
        try {
            task();
            done.set_value();
        } catch (...) {
            done.set_exception(std::current_exception());
        }
    });
    if (posted) done.get_future().get();
    return posted;
}

void EventLoop::stop(Task last)
{
    {
        const std::lock_guard<std::mutex> guard(lock_);
        if (!running_) return;
        running_ = false;
        asio::post(context_, std::move(last));
        work_.reset();
    }
    thread_.join();
}

std::function<bool(EventLoop::Task)> wayOnto(const std::shared_ptr<EventLoop>& loop)
{
    return [weak = std::weak_ptr<EventLoop>(loop)](EventLoop::Task task) {
        const std::shared_ptr<EventLoop> alive = weak.lock();
        return alive != nullptr && alive->post(std::move(task));
    };
}

} // namespace standin
