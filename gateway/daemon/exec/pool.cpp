#include "exec/pool.h"

#include <unistd.h>

#include <csignal>
#include <exception>
#include <filesystem>
#include <system_error>
#include <utility>

#include "exec/exec_json.h"
#include "log/log_text.h"

namespace exec {

using standin::EciReply;
using standin::LogLevel;

namespace {

constexpr std::size_t kMostWaiting = 1000;

} // namespace

std::string complaintAbout(const Command& command)
{
    const std::string& program = command.words.front();
    if (program.empty()) return "the program has no name";
    if (program.find('/') == std::string::npos) return ""; // found when it is started, or not
    const std::string path = (std::filesystem::path(command.folder) / program).string();
    std::error_code unknown;
    if (!std::filesystem::is_regular_file(path, unknown)) return "there is no such program";
    return ::access(path.c_str(), X_OK) == 0 ? "" : "this program may not be run";
}

Pool::Pool(Command command, Options options)
    : command_(std::move(command)), options_(std::move(options))
{
}

Pool::~Pool()
{
    {
        const std::lock_guard<std::mutex> guard(lock_);
        ending_ = true;
    }
    changed_.notify_all();
    for (std::thread& thread : threads_) thread.join();
}

bool Pool::give(Call call, Done done)
{
    {
        const std::lock_guard<std::mutex> guard(lock_);
        if (waiting_.size() >= kMostWaiting) return false;
        const bool isThreadMissing = idle_ < waiting_.size() + 1 &&
                                     threads_.size() < command_.workers;
        if (isThreadMissing && !startThread() && threads_.empty()) return false;
        waiting_.push_back({std::move(call), std::move(done)});
    }
    changed_.notify_one();
    return true;
}

// Needs the lock.
bool Pool::startThread()
{
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    bool isStarted = true;
    try {
        threads_.emplace_back([this, number = threads_.size() + 1] { work(number); });
    } catch (const std::system_error& error) {
        isStarted = false;
        log(LogLevel::Error, std::string("no thread for it: ") + error.what());
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return isStarted;
}

void Pool::work(std::size_t number)
{
    Process process(command_.words, command_.folder, options_.abandoned,
                    [this, number](const std::string& text) {
                        log(LogLevel::Warning, "worker " + std::to_string(number) + ": " + text);
                    });
    std::unique_lock<std::mutex> guard(lock_);
    for (;;) {
        ++idle_;
        changed_.wait(guard, [this] { return ending_ || !waiting_.empty(); });
        --idle_;
        if (waiting_.empty()) return;
        const Job job = std::move(waiting_.front());
        waiting_.pop_front();
        guard.unlock();
        EciReply reply;
        try {
            reply = answer(process, job.call);
        } catch (const std::exception& failure) {
            reply = fail(job.call, kCannotStart, failure.what());
        }
        job.done(std::move(reply));
        guard.lock();
    }
}

EciReply Pool::answer(Process& process, const Call& call) const
{
    if (*options_.abandoned) return EciReply::abend(call.request, kTooLate);
    std::string answer;
    switch (process.ask(lineFor(call), command_.limit, answer)) {
    case Outcome::Answered: break;
    case Outcome::CannotStart: return fail(call, kCannotStart, answer);
    case Outcome::Ended: return fail(call, kEnded, answer);
    case Outcome::TooLate: return fail(call, kTooLate, answer);
    case Outcome::TooLong: return fail(call, kBadAnswer, answer);
    }
    try {
        return replyFrom(answer, call.request);
    } catch (const BadAnswer& problem) {
        return fail(call, kBadAnswer, problem.what());
    }
}

EciReply Pool::fail(const Call& call, const char* abend, const std::string& why) const
{
    log(LogLevel::Error, "connection " + std::to_string(call.connection) + ", request " +
                             std::to_string(call.message) + " abends with " + abend + ": " + why);
    return EciReply::abend(call.request, abend);
}

void Pool::log(LogLevel level, const std::string& text) const
{
    if (!options_.log) return;
    options_.log(level, "exec " + log_text::printable(command_.words.front()) + ": " +
                            log_text::printable(text));
}

} // namespace exec
