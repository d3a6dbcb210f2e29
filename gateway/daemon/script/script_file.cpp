#include "script/script_file.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <filesystem>
#include <system_error>
#include <utility>

#include "standin/wipe.h"

namespace script {

using standin::LogLevel;

namespace {

std::string countOf(std::size_t count)
{
    return std::to_string(count) + (count == 1 ? " [[on]]" : " [[on]]s");
}

} // namespace

ScriptFile::ScriptFile(std::string file, standin::LogSink log)
    : file_(std::move(file)), log_(std::move(log)),
      abandoned_(std::make_shared<std::atomic<bool>>(false)),
      answers_(std::make_shared<Answers>(read(), log_))
{
}

ScriptFile::~ScriptFile()
{
    watch_.reset();
    abandon();
}

std::shared_ptr<const Script> ScriptFile::read() const
{
    std::filesystem::path folder = std::filesystem::path(file_).parent_path();
    if (folder.empty()) folder = ".";
    struct Wiper {
        ~Wiper() { standin::wipeStack(); } // the file may have passwords in clear
    } const wiper;
    return readScript(conf::readFile(file_), {folder.string(), {log_, abandoned_}});
}

void ScriptFile::serve(standin::Gateway& gateway, Answers::Aside aside)
{
    answers_->hashAside(std::move(aside));
    way_ = gateway.wayOntoThread();
    log_(LogLevel::Info, "script " + file_ + ": " + countOf(answers_->rules()));
    gateway.setFirstProgram(answers_);
    try {
        watch_ = std::make_unique<FileWatch>(file_, [this] { reload(); });
    } catch (const std::system_error& error) {
        log_(LogLevel::Warning, "script " + file_ + " cannot be watched (" +
                                    error.code().message() + "); SIGHUP has it read again");
    }
}

void ScriptFile::reload()
{
    const std::lock_guard<std::mutex> guard(lock_);
    std::shared_ptr<const Script> script;
    try {
        script = read();
    } catch (const std::exception& problem) {
        log_(LogLevel::Error, "script " + file_ + ": " + problem.what() +
                                  ". The one that was read before stays in force.");
        return;
    }
    const std::string count = countOf(script->rules.size());
    std::promise<std::shared_ptr<const Script>> before;
    const bool isTaken = way_([&] { before.set_value(answers_->replace(std::move(script))); });
    if (!isTaken) return;
    dispose(before.get_future().get());
    log_(LogLevel::Info, "script " + file_ + " is read again: " + count);
}

// The programs of a script that was in force answer what they have been given. Nobody waits for
// that.
void ScriptFile::dispose(std::shared_ptr<const Script> script)
{
    disposals_.erase(std::remove_if(disposals_.begin(), disposals_.end(),
                                    [](const std::future<void>& disposal) {
                                        return disposal.wait_for(std::chrono::seconds(0)) ==
                                               std::future_status::ready;
                                    }),
                     disposals_.end());
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    disposals_.push_back(
        std::async(std::launch::async, [held = std::move(script)]() mutable { held.reset(); }));
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

} // namespace script
