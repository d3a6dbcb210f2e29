// qpx ping - how long the Gateway, or a server program behind it, takes to answer, again and again.

#include <chrono>
#include <cstdio>
#include <iostream>
#include <memory>
#include <mutex>
#include <thread>

#include <nlohmann/json.hpp>

#include "calling.h"
#include "command.h"
#include "connection.h"
#include "interruption.h"
#include "statistics.h"

namespace qpx {

namespace {

const char* const kFooter = R"(
Without --program the Gateway itself is asked, for its list of servers. With
it, that program is called, without data. A connection that is lost is opened
anew for the next request. Ctrl-C ends it and shows the statistics, a second
Ctrl-C ends it at once.

The exit code is 0 if every request was answered, else that of the last failure;
1 if a line could not be written, which ends it.

Examples:
  qpx ping
  qpx ping --count 10 --interval 0.2
  qpx ping --program ECHO --count 3 --json)";

using Clock = std::chrono::steady_clock;

struct PingOptions {
    CallingOptions calling;
    std::optional<std::string> program, count;
    double interval = 1;
};

class Ping {
public:
    Ping(const Settings& settings, const PingOptions& options)
        : settings_(settings), options_(options), caller_(settings, options.calling),
          begin_(Clock::now())
    {
    }

    // One request, and a line about it.
    void ask();

    void close() { gateway_.reset(); }

    // False once a line could not be written: nobody reads any more, and there is no use in asking.
    bool canWrite() const { return canWrite_; }

    // What there is to tell at the end; nothing may be asked any more. Gives the exit code.
    int tell();

private:
    void send();
    void answered(std::uint64_t nanoseconds);
    void failed(const CallFailure& failure);
    void writeOut();

    const Settings settings_;
    const PingOptions options_;
    Caller caller_;
    Clock::time_point begin_;
    std::unique_ptr<Connection> gateway_;
    std::mutex mutex_; // guards what follows, and the output
    unsigned requests_ = 0;
    Statistics answers_;
    ExitCode code_ = kDone;
    bool canWrite_ = true; // of the asking thread
};

void Ping::send()
{
    if (options_.program) {
        QPX_ECI_PARMS record = caller_.record(*options_.program);
        execute(gateway_->token(), record, *options_.program);
        return;
    }
    QPX_listSystem_t list[1];
    unsigned short count = 1;
    const int rc = QPX_listSystems(gateway_->token(), &count, list);
    if (rc != QPX_OK && rc != QPX_ERR_MORE_SYSTEMS && rc != QPX_ERR_NO_SYSTEMS)
        throw CallFailure(Phase::Systems, "ping", rc);
}

void Ping::ask()
{
    {
        const std::lock_guard<std::mutex> hold(mutex_);
        requests_ += 1;
    }
    try {
        // No answer's time has that of connecting in it.
        if (!gateway_) gateway_ = std::make_unique<Connection>(settings_);
        const auto begin = Clock::now();
        send();
        const std::chrono::nanoseconds took = Clock::now() - begin;
        answered(static_cast<std::uint64_t>(took.count()));
    } catch (const CallFailure& failure) {
        failed(failure);
    }
}

void Ping::answered(std::uint64_t nanoseconds)
{
    const std::lock_guard<std::mutex> hold(mutex_);
    const double milliseconds = static_cast<double>(nanoseconds) / 1e6;
    answers_.add(nanoseconds);
    if (settings_.json)
        print({{"request", requests_}, {"milliseconds", milliseconds}});
    else
        std::printf("answer from %s: request=%u time=%.3f ms\n", settings_.place().c_str(),
                    requests_, milliseconds);
    writeOut();
}

void Ping::failed(const CallFailure& failure)
{
    if (failure.exitCode() == kNoConnection) gateway_.reset();
    const std::lock_guard<std::mutex> hold(mutex_);
    code_ = failure.exitCode();
    if (settings_.json)
        print({{"request", requests_}, {"error", failure.json()}});
    else
        std::printf("no answer from %s: request=%u %s\n", settings_.place().c_str(), requests_,
                    nameAndNumber(failure.rc()).c_str());
    writeOut();
}

void Ping::writeOut()
{
    std::fflush(stdout);
    std::cout.flush();
    canWrite_ = std::ferror(stdout) == 0 && std::cout;
}

int Ping::tell()
{
    mutex_.lock(); // for good: this is the end
    const std::chrono::duration<double, std::milli> took = Clock::now() - begin_;
    const auto answered = static_cast<unsigned>(answers_.count());
    const double lost = requests_ == 0 ? 0 : 100.0 * (requests_ - answered) / requests_;

    if (settings_.json) {
        print({{"requests", requests_},
               {"answers", answered},
               {"lostpercent", lost},
               {"milliseconds", took.count()},
               {"least", answers_.least()},
               {"mean", answers_.mean()},
               {"most", answers_.most()},
               {"deviation", answers_.deviation()}});
        return code_;
    }
    std::printf("\n--- %s ping statistics ---\n"
                "%u requests, %u answers, %.4g%% lost, time %.0f ms\n",
                settings_.place().c_str(), requests_, answered, lost, took.count());
    if (answered > 0)
        std::printf("min/avg/max/mdev = %.3f/%.3f/%.3f/%.3f ms\n", answers_.least(),
                    answers_.mean(), answers_.most(), answers_.deviation());
    std::fflush(stdout);
    return code_;
}

ExitCode runPing(const Settings& settings, const PingOptions& options)
{
    const int count = options.count ? numberFrom(*options.count, 1, 1000000000, "--count") : 0;
    if (options.program) checkProgram(*options.program);
    if (!(options.interval >= 0 && options.interval <= 86400))
        throw Failure(kUsage, "an interval is a number of seconds from 0 to 86400");
    // It is never deleted: an interruption may come while the program ends.
    static Ping* ping = nullptr;
    ping = new Ping(settings, options);
    onInterruption([] { return ping->tell(); });

    auto next = Clock::now();
    for (int i = 0; (count == 0 || i < count) && ping->canWrite(); ++i) {
        std::this_thread::sleep_until(next);
        next = std::max(next, Clock::now()) + std::chrono::duration_cast<Clock::duration>(
                                                  std::chrono::duration<double>(options.interval));
        ping->ask();
    }
    ping->close();
    return static_cast<ExitCode>(ping->tell());
}

} // namespace

void declarePing(CLI::App& app, Command& chosen)
{
    CLI::App* command = nullptr;
    auto options = addCommand(app, command, "ping", "Tells how long the Gateway takes to answer",
                              chosen, runPing);
    command->footer(kFooter);
    command->add_option("-c,--count", options->count, "So many requests (until Ctrl-C)")
        ->option_text("N");
    command->add_option("-i,--interval", options->interval, "Seconds from one to the next (1)")
        ->option_text("SECONDS");
    command->add_option("--program", options->program, "Call this server program")
        ->option_text("PROGRAM");
    declareCalling(*command, options->calling);
}

} // namespace qpx
