// qpx load - many calls of a server program at once: how many there are in a second, and how long
// each of them takes.

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cinttypes>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <system_error>

#include <nlohmann/json.hpp>

#include "bytes.h"
#include "calling.h"
#include "command.h"
#include "connection.h"
#include "interruption.h"
#include "statistics.h"

namespace qpx {

namespace {

const char* const kFooter = R"(
Each thread has a window of requests on their way, and collects the oldest one
when it is full; a window of 1 makes synchronous calls. Times are those from
the request to its reply. A thread whose connection is lost ends.

The exit code is 0 if every call has succeeded, else that of the last failure.

Examples:
  qpx load ECHO
  qpx load ECHO --threads 16 --duration 60
  qpx load ECHO --threads 4 --connections 4 --window 64 --count 100000 --size 500
  qpx load PRICE --text 100106 --length 80 --json)";

using Clock = std::chrono::steady_clock;

struct LoadOptions {
    CallingOptions calling;
    std::string program;
    std::string threads = "1", window = "1", connections = "1";
    std::optional<std::string> count, text, size, length;
    double duration = 10;
};

// A thread, until its body has ended. Its stack has a size of its own: that of "ulimit -s" does not
// fit into 32 bits as often as --threads allows.
class Thread {
public:
    // Throws where there is no thread to be had.
    explicit Thread(std::function<void()> body) : body_(std::move(body))
    {
        pthread_attr_t attributes;
        pthread_attr_init(&attributes);
        pthread_attr_setstacksize(&attributes, kStackSize);
        const int error = pthread_create(&thread_, &attributes, run, this);
        pthread_attr_destroy(&attributes);
        if (error != 0) throw std::system_error(error, std::generic_category());
    }

    ~Thread() { pthread_join(thread_, nullptr); }

    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

private:
    static constexpr std::size_t kStackSize = 512UL * 1024; // eight times what a call needs

    static void* run(void* self)
    {
        static_cast<Thread*>(self)->body_();
        return nullptr;
    }

    const std::function<void()> body_;
    pthread_t thread_ = {};
};

// What one thread has seen.
struct Tally {
    std::mutex mutex; // of what follows; held for good once it has been told
    Statistics times;
    std::map<int, std::uint64_t> failures; // by return code
};

class Load {
public:
    Load(const Settings& settings, const LoadOptions& options);

    ExitCode run();

    // What there is by now. Nothing is counted behind it.
    int tell();

private:
    struct Request {
        int qualifier;
        Clock::time_point sent;
    };

    using Connections = std::vector<std::unique_ptr<Connection>>;

    // No thread calls before all are there.
    void startThreads(std::deque<Thread>& threads, const Connections& gateways);
    void letThreads(bool call);
    bool mayCall();

    // The work of one thread.
    void work(QPX_ConnToken_t gateway, Tally& tally);
    bool callOnce(QPX_ConnToken_t gateway, std::string& area, Tally& tally);
    bool send(QPX_ConnToken_t gateway, std::string& area, std::deque<Request>& window,
              Tally& tally);
    bool collect(QPX_ConnToken_t gateway, std::string& area, std::deque<Request>& window,
                 Tally& tally);
    bool takeOne();
    bool count(int rc, Clock::time_point begin, Tally& tally);
    QPX_ECI_PARMS recordWith(std::string& area) const;

    void showProgress();
    double secondsSinceBegin();
    void show(const Tally& all, double seconds) const;
    Json asJson(const Tally& all, double seconds) const;

    const Settings settings_;
    const LoadOptions options_;
    Caller caller_;
    int threads_, window_, connections_;
    std::string data_;
    int length_ = 0;

    std::atomic<std::int64_t> left_{-1}; // calls that are not taken yet, if they are counted
    std::atomic<std::uint64_t> done_{0};
    Clock::time_point begin_, end_;
    std::deque<Tally> tallies_;
    std::mutex mutex_;
    std::condition_variable begun_, finished_;
    std::optional<bool> calls_; // whether the threads may call, once that is known; by mutex_
    int working_ = 0;           // guarded by mutex_
};

int commareaLength(const std::string& data, const std::optional<std::string>& given)
{
    const int least = static_cast<int>(data.size());
    return given ? numberFrom(*given, least, 32767, "the length") : least;
}

Load::Load(const Settings& settings, const LoadOptions& options)
    : settings_(settings), options_(options), caller_(settings, options.calling),
      threads_(numberFrom(options.threads, 1, 1000, "--threads")),
      window_(numberFrom(options.window, 1, 100000, "--window")),
      connections_(numberFrom(options.connections, 1, 1000, "--connections"))
{
    checkProgram(options.program);
    if (options.text && options.size) throw Failure(kUsage, "either --text or --size");
    if (options.text) data_ = *options.text;
    if (options.size)
        data_.assign(static_cast<std::size_t>(numberFrom(*options.size, 0, 32767, "--size")), 'x');
    if (!options.text && !options.size) data_.assign(100, 'x');
    if (data_.size() > 32767) throw Failure(kUsage, "a COMMAREA has at most 32767 bytes");
    length_ = commareaLength(data_, options.length);
    if (options.count) left_ = numberFrom(*options.count, 1, 1000000000, "--count");
    if (!(options.duration > 0 && options.duration <= 86400))
        throw Failure(kUsage, "a duration is a number of seconds up to 86400, and more than 0");
    if (connections_ > threads_) throw Failure(kUsage, "there are fewer threads than connections");
    tallies_.resize(static_cast<std::size_t>(threads_));
}

// ---- The calls ----------------------------------------------------------------------------------

QPX_ECI_PARMS Load::recordWith(std::string& area) const
{
    QPX_ECI_PARMS record = caller_.record(options_.program);
    if (length_ > 0) {
        record.eci_commarea = area.data();
        record.eci_commarea_length = static_cast<short>(length_);
        record.commarea_outbound_length = static_cast<short>(data_.size());
    }
    return record;
}

// Whether there is another call to make.
bool Load::takeOne()
{
    if (options_.count) return left_.fetch_sub(1) > 0;
    return Clock::now() < end_;
}

// Counts what came of a call. False if there is no use in going on.
bool Load::count(int rc, Clock::time_point begin, Tally& tally)
{
    const std::chrono::nanoseconds took = Clock::now() - begin;
    const std::lock_guard<std::mutex> hold(tally.mutex);
    if (rc == ECI_NO_ERROR)
        tally.times.add(static_cast<std::uint64_t>(took.count()));
    else
        tally.failures[rc] += 1;
    done_ += 1;
    return exitCodeOf(Phase::Call, rc) != kNoConnection;
}

bool Load::callOnce(QPX_ConnToken_t gateway, std::string& area, Tally& tally)
{
    area.replace(0, data_.size(), data_);
    QPX_ECI_PARMS record = recordWith(area);
    const auto begin = Clock::now();
    return count(QPX_ECI_Execute(gateway, &record), begin, tally);
}

bool Load::send(QPX_ConnToken_t gateway, std::string& area, std::deque<Request>& window,
                Tally& tally)
{
    area.replace(0, data_.size(), data_);
    QPX_ECI_PARMS record = recordWith(area);
    record.eci_call_type = ECI_ASYNC;
    const auto begin = Clock::now();
    const int rc = QPX_ECI_Execute(gateway, &record);
    if (rc != ECI_NO_ERROR) return count(rc, begin, tally);
    window.push_back({record.eci_message_qualifier, begin});
    return true;
}

bool Load::collect(QPX_ConnToken_t gateway, std::string& area, std::deque<Request>& window,
                   Tally& tally)
{
    const Request oldest = window.front();
    QPX_ECI_PARMS record = recordWith(area);
    window.pop_front();
    record.eci_call_type = ECI_GET_SPECIFIC_REPLY_WAIT;
    record.eci_message_qualifier = oldest.qualifier;
    return count(QPX_ECI_Execute(gateway, &record), oldest.sent, tally);
}

void Load::work(QPX_ConnToken_t gateway, Tally& tally)
{
    std::string area(static_cast<std::size_t>(length_), '\0');
    std::deque<Request> window;
    bool good = true;

    while (good && takeOne()) {
        if (window_ == 1) {
            good = callOnce(gateway, area, tally);
            continue;
        }
        good = send(gateway, area, window, tally);
        if (good && window.size() == static_cast<std::size_t>(window_))
            good = collect(gateway, area, window, tally);
    }
    while (!window.empty()) collect(gateway, area, window, tally);
    const std::lock_guard<std::mutex> hold(mutex_);
    working_ -= 1;
    finished_.notify_all();
}

// ---- What is shown ------------------------------------------------------------------------------

// A line on the terminal that is written anew every second, until all threads are done.
void Load::showProgress()
{
    const bool terminal = isatty(STDERR_FILENO) != 0;
    std::uint64_t before = 0;
    std::unique_lock<std::mutex> hold(mutex_);

    while (!finished_.wait_for(hold, std::chrono::seconds(1), [this] { return working_ == 0; })) {
        const std::uint64_t done = done_;
        const std::chrono::duration<double> passed = Clock::now() - begin_;
        hold.unlock(); // the terminal may take nothing
        if (terminal)
            std::fprintf(stderr, "\r%.0f s: %" PRIu64 " calls, %" PRIu64 " a second ",
                         passed.count(), done, done - before);
        before = done;
        hold.lock();
    }
    hold.unlock();
    if (terminal && before > 0) std::fputs("\r\x1b[K", stderr);
}

std::uint64_t failuresOf(const Tally& all)
{
    std::uint64_t failures = 0;
    for (const auto& [rc, count] : all.failures) failures += count;
    return failures;
}

void showHistogram(const Statistics& times)
{
    const auto counts = times.doublings();
    std::uint64_t most = 1;
    for (const std::uint64_t count : counts) most = std::max(most, count);
    for (unsigned i = 0; i < counts.size(); ++i) {
        if (counts[i] == 0) continue;
        const double from = i == 0 ? 0.0 : static_cast<double>(1ULL << i) / 1000;
        const auto width = static_cast<std::size_t>(40 * counts[i] / most);
        std::printf("  %10.3f - %10.3f ms  %-40s %" PRIu64 "\n", from,
                    static_cast<double>(2ULL << i) / 1000,
                    std::string(std::max<std::size_t>(1, width), '#').c_str(), counts[i]);
    }
}

void Load::show(const Tally& all, double seconds) const
{
    const Statistics& times = all.times;
    const std::uint64_t calls = times.count() + failuresOf(all);

    std::printf("%s at %s: threads %d, connections %d, window %d, %zu bytes\n",
                options_.program.c_str(), settings_.place().c_str(), threads_, connections_,
                window_, data_.size());
    std::printf("%" PRIu64 " calls in %.3f s, %.0f a second, %" PRIu64 " failed\n", calls, seconds,
                seconds > 0 ? static_cast<double>(calls) / seconds : 0, failuresOf(all));
    for (const auto& [rc, count] : all.failures)
        std::printf("  %" PRIu64 " of %s\n", count, nameAndNumber(rc).c_str());
    if (times.count() == 0) return;
    std::printf("min %.3f  mean %.3f  max %.3f ms\n", times.least(), times.mean(), times.most());
    std::printf("50 %% %.3f  90 %% %.3f  99 %% %.3f  99.9 %% %.3f ms\n", times.percentile(0.5),
                times.percentile(0.9), times.percentile(0.99), times.percentile(0.999));
    showHistogram(times);
}

Json Load::asJson(const Tally& all, double seconds) const
{
    const Statistics& times = all.times;
    Json failures = Json::array();
    Json histogram = Json::array();
    const auto counts = times.doublings();

    for (const auto& [rc, count] : all.failures)
        failures.push_back({{"code", rc}, {"name", nameOf(rc)}, {"calls", count}});
    for (unsigned i = 0; i < counts.size(); ++i)
        if (counts[i] > 0)
            histogram.push_back(
                {{"below", static_cast<double>(2ULL << i) / 1000}, {"calls", counts[i]}});
    return {{"program", options_.program},
            {"threads", threads_},
            {"connections", connections_},
            {"window", window_},
            {"calls", times.count() + failuresOf(all)},
            {"seconds", seconds},
            {"failures", failures},
            {"milliseconds",
             {{"min", times.least()},
              {"mean", times.mean()},
              {"p50", times.percentile(0.5)},
              {"p90", times.percentile(0.9)},
              {"p99", times.percentile(0.99)},
              {"p999", times.percentile(0.999)},
              {"max", times.most()}}},
            {"histogram", histogram}};
}

// 0 before the calls have begun.
double Load::secondsSinceBegin()
{
    const std::lock_guard<std::mutex> hold(mutex_);
    if (!calls_) return 0;
    return std::chrono::duration<double>(Clock::now() - begin_).count();
}

int Load::tell()
{
    for (Tally& tally : tallies_) tally.mutex.lock(); // for good: this is the end
    const double took = secondsSinceBegin();
    Tally all;
    ExitCode code = kDone;

    for (const Tally& tally : tallies_) {
        all.times.add(tally.times);
        for (const auto& [rc, count] : tally.failures) {
            all.failures[rc] += count;
            code = exitCodeOf(Phase::Call, rc);
        }
    }
    if (settings_.json)
        print(asJson(all, took));
    else
        show(all, took);
    std::fflush(stdout);
    return code;
}

// ---- The threads --------------------------------------------------------------------------------

void Load::letThreads(bool call)
{
    const std::lock_guard<std::mutex> hold(mutex_);
    begin_ = Clock::now();
    end_ = begin_ + std::chrono::duration_cast<Clock::duration>(
                        std::chrono::duration<double>(options_.duration));
    calls_ = call;
    begun_.notify_all();
}

bool Load::mayCall()
{
    std::unique_lock<std::mutex> hold(mutex_);
    begun_.wait(hold, [this] { return calls_.has_value(); });
    return *calls_;
}

void Load::startThreads(std::deque<Thread>& threads, const Connections& gateways)
{
    working_ = threads_;
    try {
        for (Tally& tally : tallies_) {
            QPX_ConnToken_t const gateway = gateways[threads.size() % gateways.size()]->token();
            threads.emplace_back([this, gateway, &tally] {
                if (mayCall()) work(gateway, tally);
            });
        }
    } catch (const std::exception&) {
        const std::size_t count = threads.size();
        letThreads(false);
        threads.clear();
        throw Failure(kFailed, "only " + std::to_string(count) + " of " + std::to_string(threads_) +
                                   " threads could be started; --threads and --connections "
                                   "take fewer, and ulimit -u and -v set how many there can be");
    }
    letThreads(true);
}

ExitCode Load::run()
{
    Connections gateways;
    std::deque<Thread> threads;

    for (int i = 0; i < connections_; ++i)
        gateways.push_back(std::make_unique<Connection>(settings_));
    startThreads(threads, gateways);
    showProgress();
    threads.clear();
    const int code = tell();
    gateways.clear();
    return static_cast<ExitCode>(code);
}

ExitCode runLoad(const Settings& settings, const LoadOptions& options)
{
    // It is never deleted: an interruption may come while the program ends.
    static Load* load = nullptr;
    load = new Load(settings, options);
    onInterruption([] { return load->tell(); });
    return load->run();
}

} // namespace

void declareLoad(CLI::App& app, Command& chosen)
{
    CLI::App* command = nullptr;
    auto options = addCommand(app, command, "load",
                              "Calls a server program many times, and tells how long that takes",
                              chosen, runLoad);
    const auto option = [&](const char* name, auto& value, const char* form, const char* what) {
        return command->add_option(name, value, what)->option_text(form);
    };

    command->footer(kFooter);
    option("program", options->program, "PROGRAM", "The server program, at most 8 characters")
        ->required();
    option("--threads", options->threads, "N", "Threads that call, up to 1000 (1)");
    option("--connections", options->connections, "N", "Connections that they share (1)");
    option("--window", options->window, "N", "Requests of a thread on their way (1)");
    option("--duration", options->duration, "SECONDS", "For so long (10)");
    option("--count", options->count, "N", "So many calls, however long they take");
    option("--size", options->size, "N", "Bytes of the COMMAREA that is sent (100)");
    option("--text", options->text, "TEXT", "The COMMAREA that is sent");
    option("--length", options->length, "N",
           "The length of the COMMAREA, where a longer reply needs room: up to 32767");
    declareCalling(*command, options->calling);
}

} // namespace qpx
