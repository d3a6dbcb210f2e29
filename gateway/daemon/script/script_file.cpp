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

// A pipe may be a script at the start. Later nobody need be there who writes to it, and whoever
// reads would wait for that, even at the end.
void expectNoPipe(const std::string& file)
{
    std::error_code unknown;
    if (std::filesystem::is_fifo(file, unknown))
        throw conf::Unreadable("it is a pipe, which is read at the start only");
}

std::string countOf(std::size_t count)
{
    return std::to_string(count) + (count == 1 ? " [[on]]" : " [[on]]s");
}

} // namespace

ScriptFile::ScriptFile(std::string file, standin::LogSink log)
    : log_(std::move(log)), abandoned_(std::make_shared<std::atomic<bool>>(false)),
      file_(std::move(file)), answers_(std::make_shared<Answers>(read(file_), log_))
{
}

ScriptFile::~ScriptFile()
{
    watch_.reset();
    abandon();
}

std::shared_ptr<const Script> ScriptFile::read(const std::string& file) const
{
    std::filesystem::path folder = std::filesystem::path(file).parent_path();
    if (folder.empty()) folder = ".";
    struct Wiper {
        ~Wiper() { standin::wipeStack(); } // the file may have passwords in clear
    } const wiper;
    return readScript(conf::readFile(file), {folder.string(), {log_, abandoned_}});
}

void ScriptFile::serve(standin::Gateway& gateway, Answers::Aside aside)
{
    answers_->hashAside(std::move(aside));
    way_ = gateway.wayOntoThread();
    log_(LogLevel::Info, "script " + file_ + ": " + countOf(answers_->rules()));
    gateway.setFirstProgram(answers_);
    watch(file_);
}

void ScriptFile::watch(const std::string& file)
{
    try {
        watch_ = std::make_unique<FileWatch>(file, [this] { reload(); });
    } catch (const std::system_error& error) {
        log_(LogLevel::Warning, "script " + file + " cannot be watched (" + error.code().message() +
                                    "); SIGHUP has it read again");
    }
}

std::string ScriptFile::reload()
{
    const std::lock_guard<std::mutex> guard(lock_);
    try {
        expectNoPipe(file_);
        std::shared_ptr<const Script> script = read(file_);
        const std::string count = countOf(script->rules.size());
        if (!putInForce(std::move(script))) return {};
        problem_.clear();
        log_(LogLevel::Info, "script " + file_ + " is read again: " + count);
    } catch (const std::exception& problem) {
        problem_ = problem.what();
        log_(LogLevel::Error, "script " + file_ + ": " + problem_ +
                                  ". The one that was read before stays in force.");
    }
    return problem_;
}

void ScriptFile::load(const std::string& file)
{
    const std::lock_guard<std::mutex> oneAtATime(loading_);
    std::shared_ptr<const Script> script = read(file);
    const std::string count = countOf(script->rules.size());
    {
        const std::lock_guard<std::mutex> guard(lock_);
        putInForce(std::move(script));
        file_ = file;
        problem_.clear();
    }
    log_(LogLevel::Info, "script " + file + ": " + count);
    watch_.reset(); // what it is doing may need the lock
    watch(file);
}

ScriptFile::State ScriptFile::state()
{
    const std::lock_guard<std::mutex> guard(lock_);
    std::packaged_task<std::vector<Answers::RuleState>()> rules(
        [this] { return answers_->state(); });
    std::future<std::vector<Answers::RuleState>> found = rules.get_future();
    State state{file_, problem_, {}};
    if (way_([&rules] { rules(); })) state.rules = found.get();
    return state;
}

// False when the Gateway has stopped.
bool ScriptFile::putInForce(std::shared_ptr<const Script> script)
{
    std::packaged_task<std::shared_ptr<const Script>()> replace(
        [&] { return answers_->replace(std::move(script)); });
    std::future<std::shared_ptr<const Script>> before = replace.get_future();
    const bool isTaken = way_([&replace] { replace(); });
    if (isTaken) dispose(before.get());
    return isTaken;
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
