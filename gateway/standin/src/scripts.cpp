#include "scripts.h"

#include <csignal>
#include <cstddef>
#include <stdexcept>
#include <utility>

#include "registry/worker.h"
#include "script/script_file.h"

namespace standin {

namespace {

// So many passwords may wait to be looked at.
constexpr std::size_t kMostPasswords = 256;

// Threads that begin while it is there take no signal.
class SignalsBlocked {
public:
    SignalsBlocked()
    {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before_);
    }
    ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;

private:
    sigset_t before_;
};

} // namespace

class Scripts::Impl {
public:
    Impl(Gateway& gateway, LogSink log) : gateway_(gateway), log_(std::move(log)) {}

    void use(const std::string& file)
    {
        const SignalsBlocked blocked;
        auto next = std::make_unique<script::ScriptFile>(file, log_);
        if (worker_ == nullptr) worker_ = std::make_unique<registry::Worker>(kMostPasswords);
        next->serve(gateway_, [this, way = gateway_.wayOntoThread()](std::function<void()> work,
                                                                     std::function<void()> then) {
            return worker_->give([way, work = std::move(work), then = std::move(then)] {
                work();
                way(then);
            });
        });
        script_ = std::move(next);
    }

    void useNone()
    {
        gateway_.setFirstProgram(nullptr);
        script_.reset();
    }

    void abandon()
    {
        if (script_ != nullptr) script_->abandon();
    }

private:
    Gateway& gateway_;
    const LogSink log_;
    std::unique_ptr<registry::Worker> worker_; // outlives what gives work to it
    std::unique_ptr<script::ScriptFile> script_;
};

Scripts::Scripts(Gateway& gateway, LogSink log)
    : impl_(std::make_unique<Impl>(gateway, std::move(log)))
{
}

Scripts::~Scripts() = default;

void Scripts::use(const std::string& file)
{
    try {
        impl_->use(file);
    } catch (const std::runtime_error& problem) {
        throw BadScript(file + ": " + problem.what());
    }
}

void Scripts::useNone()
{
    impl_->useNone();
}

void Scripts::abandon()
{
    impl_->abandon();
}

} // namespace standin
