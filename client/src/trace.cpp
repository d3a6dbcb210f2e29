// qpx trace - what traces of the library tell: calls as a table, one call or connection in time.

#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <memory>

#include <nlohmann/json.hpp>

#include "command.h"
#include "descriptor.h"
#include "trace_calls.h"

namespace qpx {

namespace {

const char* const kFooter = R"(
Shows the calls of an application, from files that the library has written with
its trace at level 3 or above. Level 4 names the programs, too, and whose reply
it was where several calls are on their way. Levels 1 and 2 have failures and
connections. Several files are read in one order, that of their times. A "-"
is standard input.

GATEWAY is the time from the sending of a request until its reply arrives,
LIBRARY what else a call takes. Passwords are never shown.

Examples:
  qpx trace app.trc
  qpx trace --failed app.trc app.trc.1
  qpx trace --slow 100 app.trc
  qpx trace --call 17 --data app.trc
  qpx trace --connection 2 app.trc
  qpx trace --follow app.trc)";

struct TraceOptions {
    std::vector<std::string> files;
    std::optional<std::string> slow, call, connection;
    bool failed = false;
    bool all = false;
    bool data = false;
    bool follow = false;
};

// ---- Files --------------------------------------------------------------------------------------

// A file whose lines come one after the other, in an order of time.
class TraceFile {
public:
    explicit TraceFile(const std::string& name) : name_(name)
    {
        file_ = name == "-" ? STDIN_FILENO : open(name.c_str(), O_RDONLY | O_CLOEXEC);
        if (file_ < 0) throw Failure(kFailed, name + ": " + std::strerror(errno));
        struct stat about = {};
        if (fstat(file_, &about) == 0 && S_ISDIR(about.st_mode))
            throw Failure(kFailed, name + ": " + std::strerror(EISDIR));
    }

    ~TraceFile()
    {
        if (file_ > STDIN_FILENO) close(file_);
    }

    TraceFile(const TraceFile&) = delete;
    TraceFile& operator=(const TraceFile&) = delete;

    const std::string& name() const { return name_; }
    const TraceText& text() const { return text_; }

    // Whether there is a line; reads on until there is one, or until the file ends for now.
    bool hasLine()
    {
        while (!text_.hasNext() && read()) continue;
        return text_.hasNext();
    }

    // A clock that was put back does not change the order of a file.
    std::int64_t time()
    {
        latest_ = std::max(latest_, text_.nextTime());
        return latest_;
    }

    TraceLine take()
    {
        TraceLine line;
        text_.next(line);
        return line;
    }

    void settle() { text_.settle(); }
    void finish() { text_.finish(); }

    // Throws a Failure if it has nothing of a trace in it.
    void check() const;

    // Complaints about what was in it.
    std::vector<std::string> complaints() const;

private:
    bool read()
    {
        struct stat about = {};
        // A file that was emptied in place is filled from its beginning.
        if (fstat(file_, &about) == 0 && S_ISREG(about.st_mode) && about.st_size < position_)
            position_ = lseek(file_, 0, SEEK_SET);
        char piece[65536];
        const ssize_t length = readSome(file_, piece, sizeof piece);
        if (length < 0) throw Failure(kFailed, name_ + ": " + std::strerror(errno));
        position_ += length;
        total_ += static_cast<std::uint64_t>(length);
        text_.feed(piece, static_cast<std::size_t>(length));
        return length > 0;
    }

    std::string name_;
    int file_ = -1;
    off_t position_ = 0;
    std::uint64_t total_ = 0;
    std::int64_t latest_ = 0;
    TraceText text_;
};

void TraceFile::check() const
{
    if (total_ == 0) throw Failure(kFailed, name_ + " is empty");
    if (text_.findings().lines == 0 && text_.findings().level < 0)
        throw Failure(kFailed, name_ + " is no trace of the library");
}

std::vector<std::string> TraceFile::complaints() const
{
    const TraceText::Findings& found = text_.findings();
    std::vector<std::string> lines;
    if (found.foreign == 1)
        lines.push_back("line " + std::to_string(found.firstForeign) + " is of no trace");
    if (found.foreign > 1)
        lines.push_back(std::to_string(found.foreign) +
                        " lines are of no trace, the first is line " +
                        std::to_string(found.firstForeign));
    if (found.lostBytes > 0)
        lines.push_back(std::to_string(found.lostBytes) +
                        " bytes are missing: the library could not write them");
    if (found.cutOff) lines.emplace_back("ends within a line");
    for (std::string& line : lines) line = name_ + ": " + line;
    return lines;
}

using TraceFiles = std::vector<std::unique_ptr<TraceFile>>;

// Adds what the files have for now, in the order of time.
void addLines(TraceFiles& files, TraceCalls& calls)
{
    for (;;) {
        TraceFile* first = nullptr;
        for (const auto& file : files)
            if (file->hasLine() && (first == nullptr || file->time() < first->time()))
                first = file.get();
        if (first == nullptr) return;
        calls.add(first->take());
    }
}

// ---- Tables -------------------------------------------------------------------------------------

std::string milliseconds(std::int64_t time)
{
    return time == kUnknownTime ? "-" : std::to_string(time) + " ms";
}

std::string resultOf(const TracedCall& call)
{
    if (!call.ended) return "no end";
    if (call.function.empty()) return "?";
    if (!call.rc || *call.rc == 0) return "ok";
    return call.rcName + (call.abendCode.empty() || *call.rc != -7 ? "" : " " + call.abendCode);
}

std::string clockOf(std::int64_t time)
{
    return time == kUnknownTime ? "-" : timeText(time).substr(11);
}

std::string numberOrNone(unsigned number)
{
    return number == 0 ? "-" : std::to_string(number);
}

class TraceReport {
public:
    TraceReport(const Settings& settings, const TraceOptions& options)
        : settings_(settings), options_(options),
          slow_(options.slow ? numberFrom(*options.slow, 0, 1000000000, "--slow") : 0)
    {
    }

    bool shows(const TracedCall& call) const
    {
        const std::int64_t took = std::max(call.total(), call.atGateway());
        if (options_.failed && !call.failed()) return false;
        if (options_.slow && took < slow_) return false;
        return call.talks || call.failed() || options_.all;
    }

    void head() const
    {
        if (settings_.json) return;
        std::cout << bold(settings_, "CALL  TIME          PROCESS  THREAD      CONN  "
                                     "   TOTAL   GATEWAY   LIBRARY  RESULT  WHAT")
                  << '\n';
    }

    void row(const TracedCall& call) const;
    void end(const TraceCalls& calls, const TraceFiles& files) const;
    void showCall(const TraceCalls& calls) const;
    void showConnection(const TraceCalls& calls) const;

private:
    static Json asJson(const TracedCall& call);
    static Json asJson(const TracedConnection& connection);
    static Json timeJson(std::int64_t time) { return time < 0 ? Json() : Json(time); }
    void line(const TracedEvent& event, std::int64_t since) const;
    void connections(const TraceCalls& calls) const;

    const Settings settings_;
    const TraceOptions options_;
    const int slow_;
};

Json TraceReport::asJson(const TracedCall& call)
{
    Json json = {{"call", call.number},
                 {"time", call.begin < 0 ? Json() : Json(timeText(call.begin))},
                 {"process", call.process},
                 {"thread", threadText(call.thread)},
                 {"connection", call.connection == 0 ? Json() : Json(call.connection)},
                 {"function", call.function},
                 {"what", call.what},
                 {"ended", call.ended}};
    json["code"] = call.rc ? Json(*call.rc) : Json();
    json["name"] = call.rc ? Json(call.rcName) : Json();
    json["milliseconds"] = timeJson(call.total());
    json["gateway"] = timeJson(call.atGateway());
    json["library"] = timeJson(call.inLibrary());
    if (!call.failures.empty()) json["failures"] = call.failures;
    return json;
}

Json TraceReport::asJson(const TracedConnection& connection)
{
    return {{"connection", connection.number},
            {"process", connection.process},
            {"token", connection.token},
            {"place", connection.place},
            {"receiver", connection.receiver == 0 ? Json() : Json(threadText(connection.receiver))},
            {"opened", connection.opened < 0 ? Json() : Json(timeText(connection.opened))},
            {"closed", connection.closed < 0 ? Json() : Json(timeText(connection.closed))},
            {"closing", connection.closing},
            {"calls", connection.calls},
            {"failed", connection.failed}};
}

void TraceReport::row(const TracedCall& call) const
{
    if (!shows(call)) return;
    if (settings_.json) return print(asJson(call));
    char text[160];
    std::snprintf(text, sizeof text, "%4u  %-12s  %7lu  %s  %4s  %8s  %8s  %8s  ", call.number,
                  clockOf(call.begin).c_str(), call.process, threadText(call.thread).c_str(),
                  numberOrNone(call.connection).c_str(), milliseconds(call.total()).c_str(),
                  milliseconds(call.atGateway()).c_str(), milliseconds(call.inLibrary()).c_str());
    const std::string result = resultOf(call);
    std::cout << text << (result == "ok" ? result : red(settings_, result))
              << std::string(result.size() < 6 ? 6 - result.size() : 0, ' ') << "  " << call.what
              << '\n';
    if (options_.failed)
        for (const std::string& failure : call.failures) std::cout << "        " << failure << '\n';
}

void TraceReport::connections(const TraceCalls& calls) const
{
    for (const TracedConnection& at : calls.connections()) {
        std::cout << "connection " << at.number << ": process " << at.process << ", "
                  << (at.place.empty() ? "opened before the trace" : at.place) << ", token "
                  << at.token;
        if (at.receiver != 0) std::cout << ", receiver " << threadText(at.receiver);
        std::cout << ", " << at.calls << (at.calls == 1 ? " call" : " calls");
        if (at.failed > 0) std::cout << ", " << at.failed << " failed";
        if (at.closed >= 0) std::cout << ", closed " << at.closing;
        std::cout << '\n';
    }
}

void TraceReport::end(const TraceCalls& calls, const TraceFiles& files) const
{
    std::size_t failed = 0;
    std::size_t unended = 0;
    std::size_t lines = 0;
    int level = -1;
    for (const TracedCall& call : calls.calls()) {
        failed += call.failed() ? 1 : 0;
        unended += call.ended ? 0 : 1;
    }
    for (const auto& file : files) {
        lines += file->text().findings().lines;
        level = std::max(level, file->text().findings().level);
    }
    if (settings_.json) {
        Json known = Json::array();
        for (const TracedConnection& at : calls.connections()) known.push_back(asJson(at));
        Json strays = Json::array();
        for (const TracedEvent& stray : calls.strays())
            strays.push_back({{"time", timeText(stray.time)},
                              {"thread", threadText(stray.thread)},
                              {"line", stray.what}});
        print({{"calls", calls.calls().size()},
               {"failed", failed},
               {"unended", unended},
               {"lines", lines},
               {"level", level < 0 ? Json() : Json(level)},
               {"connections", known},
               {"strays", strays}});
        return;
    }
    if (!calls.strays().empty()) std::cout << "failures outside of calls:\n";
    for (const TracedEvent& stray : calls.strays())
        std::cout << "  " << clockOf(stray.time) << "  " << threadText(stray.thread) << "  "
                  << stray.what << '\n';
    connections(calls);
    std::cout << calls.calls().size() << " calls, " << failed << " failed, " << unended
              << " without an end; " << lines << " lines"
              << (level < 0 ? "" : ", level " + std::to_string(level)) << '\n';
    if (level >= 0 && level < 3)
        std::cout
            << "At this level calls are not named, and have no results: that takes level 3.\n";
}

void TraceReport::line(const TracedEvent& event, std::int64_t since) const
{
    if (settings_.json) {
        Json json = {{"time", timeText(event.time)},
                     {"milliseconds", event.time - since},
                     {"thread", threadText(event.thread)},
                     {"what", event.what}};
        if (options_.data && !event.dump.empty()) json["dump"] = event.dump;
        return print(json);
    }
    char text[64];
    std::snprintf(text, sizeof text, "%8lld  %s  ", static_cast<long long>(event.time - since),
                  threadText(event.thread).c_str());
    const bool bad = event.what.find("*EXC*") != std::string::npos;
    std::cout << text << (bad ? red(settings_, event.what) : event.what) << '\n';
    if (!options_.data) return;
    for (const std::string& dumped : event.dump) std::cout << "          " << dumped << '\n';
}

void TraceReport::showCall(const TraceCalls& calls) const
{
    const auto number = static_cast<std::size_t>(
        numberFrom(*options_.call, 1, 2000000000, "--call"));
    if (number > calls.calls().size())
        throw Failure(kFailed, "there is no call " + *options_.call + ", the last is " +
                                   std::to_string(calls.calls().size()));
    const TracedCall& call = calls.calls()[number - 1];
    if (!settings_.json) {
        std::cout << bold(settings_, call.what) << ", process " << call.process << ", thread "
                  << threadText(call.thread) << ", connection " << numberOrNone(call.connection)
                  << ": " << resultOf(call) << ", total " << milliseconds(call.total())
                  << ", Gateway " << milliseconds(call.atGateway()) << ", library "
                  << milliseconds(call.inLibrary()) << '\n';
    }
    const std::vector<TracedEvent>& lines = calls.timeLine();
    for (const TracedEvent& event : lines) line(event, lines.front().time);
}

void TraceReport::showConnection(const TraceCalls& calls) const
{
    const auto number = static_cast<std::size_t>(
        numberFrom(*options_.connection, 1, 2000000000, "--connection"));
    if (number > calls.connections().size())
        throw Failure(kFailed, "there is no connection " + *options_.connection + ", the last is " +
                                   std::to_string(calls.connections().size()));
    const TracedConnection& at = calls.connections()[number - 1];
    if (!settings_.json)
        std::cout << bold(settings_, at.place.empty() ? "opened before the trace" : at.place)
                  << ", process " << at.process << ", token " << at.token << '\n';
    for (const TracedEvent& event : at.events)
        if (options_.data || event.dump.empty()) line(event, at.events.front().time);
}

// ---- Following ----------------------------------------------------------------------------------

// Waits until a file changes; false if it is to end.
class Changes {
public:
    explicit Changes(const TraceFiles& files)
    {
        sigset_t signals;
        sigemptyset(&signals);
        sigaddset(&signals, SIGINT);
        sigaddset(&signals, SIGTERM);
        sigprocmask(SIG_BLOCK, &signals, nullptr);
        ends_ = signalfd(-1, &signals, SFD_CLOEXEC);
        changes_ = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
        if (ends_ < 0 || changes_ < 0) throw Failure(kFailed, std::strerror(errno));
        for (const auto& file : files)
            if (inotify_add_watch(changes_, file->name().c_str(), IN_MODIFY) < 0)
                throw Failure(kFailed, file->name() + ": " + std::strerror(errno));
    }

    ~Changes()
    {
        if (ends_ >= 0) close(ends_);
        if (changes_ >= 0) close(changes_);
    }

    Changes(const Changes&) = delete;
    Changes& operator=(const Changes&) = delete;

    bool await() const
    {
        pollfd waits[2] = {{ends_, POLLIN, 0}, {changes_, POLLIN, 0}};
        while (poll(waits, 2, -1) < 0 && errno == EINTR) continue;
        if (waits[0].revents != 0) return false;
        char events[4096];
        while (read(changes_, events, sizeof events) > 0) continue;
        return true;
    }

private:
    int ends_ = -1;
    int changes_ = -1;
};

void follow(TraceFiles& files, TraceCalls& calls, const TraceReport& report)
{
    const Changes changes(files);
    calls.onEnd([&report](const TracedCall& call) { report.row(call); });
    do {
        addLines(files, calls);
        for (const auto& file : files) file->settle();
        addLines(files, calls);
        std::cout.flush();
    } while (std::cout && changes.await());
}

// ---- The command --------------------------------------------------------------------------------

void checkOptions(const TraceOptions& options)
{
    if (options.call && options.connection) throw Failure(kUsage, "either --call or --connection");
    if (options.follow && (options.call || options.connection))
        throw Failure(kUsage, "--follow shows the table, neither --call nor --connection");
    if (options.follow &&
        std::find(options.files.begin(), options.files.end(), "-") != options.files.end())
        throw Failure(kUsage, "--follow takes files, not standard input");
    if (options.data && !options.call && !options.connection)
        throw Failure(kUsage, "--data is for --call and --connection");
}

ExitCode runTrace(const Settings& settings, const TraceOptions& options)
{
    checkOptions(options);
    const TraceReport report(settings, options);
    TraceCalls calls;
    if (options.call)
        calls.watchCall(static_cast<unsigned>(numberFrom(*options.call, 1, 2000000000, "--call")));
    if (options.connection)
        calls.watchConnection(
            static_cast<unsigned>(numberFrom(*options.connection, 1, 2000000000, "--connection")));
    TraceFiles files;
    for (const std::string& name : options.files)
        files.push_back(std::make_unique<TraceFile>(name));

    const bool table = !options.call && !options.connection;
    if (options.follow) {
        report.head();
        follow(files, calls, report);
    }
    addLines(files, calls);
    for (const auto& file : files) file->finish();
    addLines(files, calls);
    calls.finish();
    for (const auto& file : files) file->check();
    if (table && !options.follow) {
        report.head();
        for (const TracedCall& call : calls.calls()) report.row(call);
    }
    if (options.call) report.showCall(calls);
    if (options.connection) report.showConnection(calls);
    if (table) report.end(calls, files);
    std::cout.flush();
    for (const auto& file : files)
        for (const std::string& complaint : file->complaints())
            std::cerr << "qpx: " << complaint << '\n';
    return kDone;
}

} // namespace

void declareTrace(CLI::App& app, Command& chosen)
{
    CLI::App* command = nullptr;
    auto options = addCommand(app, command, "trace", "Reads traces that the library has written",
                              chosen, runTrace);
    command->footer(kFooter);
    command->add_option("files", options->files, "The files")->option_text("FILE...")->required();
    command->add_option("--slow", options->slow, "Calls that took so long, or longer")
        ->option_text("MILLISECONDS");
    command->add_flag("--failed", options->failed, "Calls that failed, and why");
    command->add_flag("--all", options->all, "Also calls that are of the library alone");
    command->add_option("--call", options->call, "The lines of this call")->option_text("NUMBER");
    command->add_flag("--data", options->data, "With the dumps of these");
    command->add_option("--connection", options->connection, "What happened to this connection")
        ->option_text("NUMBER");
    command->add_flag("-f,--follow", options->follow, "Go on as the files grow, until Ctrl-C");
}

} // namespace qpx
