// Drives the scenarios: for each, for each kind of call that the library makes in it, and for each
// such call, a run in which that call fails, and one in which it and all behind it fail; or for
// each a run with all that the library reads and writes cut up, which has to return and to do what
// one does that is not. Each run is a process of its own; its peers are gateways of this one, where
// nothing fails.
//
//     torture [SCENARIO...] [OPTION...]; --help shows what there is
#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <mutex>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "standin/gateway.h"
#include "standin/misbehaviour.h"

extern char** environ;

namespace {

using standin::Fault;

constexpr int LONGEST_RUN = 90000; // milliseconds; the run itself ends long before

// ---- The peers of a run -------------------------------------------------------------------------

// A port that nobody listens on, and nobody else gets.
class UnheardPort {
public:
    UnheardPort() : socket_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        auto* generic = reinterpret_cast<sockaddr*>(&address);
        if (bind(socket_, generic, length) != 0 || getsockname(socket_, generic, &length) != 0)
            std::abort();
        port_ = ntohs(address.sin_port);
    }
    ~UnheardPort() { close(socket_); }
    UnheardPort(const UnheardPort&) = delete;
    UnheardPort& operator=(const UnheardPort&) = delete;

    int port() const { return port_; }

private:
    int socket_;
    int port_ = 0;
};

standin::GatewayOptions quietOptions()
{
    standin::GatewayOptions options;
    options.recording = false;
    options.systems = {{"PROD", "production"}, {"TEST", "for tests"}};
    return options;
}

standin::EsiReply answerPassword(const standin::EsiRequest& request)
{
    standin::EsiReply reply;
    if (request.currentPassword == "WRONG") reply.vornRc = -302;
    reply.expiry.year = 2031;
    reply.expiry.month = 1;
    reply.expiry.day = 2;
    return reply;
}

class Peers {
public:
    Peers() : gateway_(quietOptions()), refusing_(quietOptions()), dropping_(quietOptions())
    {
        const std::pair<const char*, standin::Misbehaviour> programs[] = {
            {"FLOWERR", {Fault::FlowError, 61445}},
            {"FLOWEXC", {Fault::FlowException, "broken"}},
            {"CLOSE", Fault::Close},
            {"DROP", Fault::Drop},
            {"RESET", Fault::Reset},
            {"CUT", {Fault::Truncate, 60}},
            {"GARBAGE", Fault::BadEyecatcher},
            {"PING", Fault::Ping},
            {"TWICE", Fault::Duplicate},
            {"SILENT", Fault::NoAnswer},
        };
        for (const auto& [program, misbehaviour] : programs) {
            gateway_.setProgram(program, standin::makeEcho());
            gateway_.misbehave(misbehaviour, standin::onProgram(program));
        }
        gateway_.setEsiReply(answerPassword);
        refusing_.misbehave({Fault::RefuseHandshake, 61445});
        dropping_.misbehave(Fault::DropAtHandshake);
    }

    std::string ports() const
    {
        return std::to_string(gateway_.port()) + "," + std::to_string(refusing_.port()) + "," +
               std::to_string(dropping_.port()) + "," + std::to_string(unheard_.port());
    }

private:
    standin::Gateway gateway_;
    standin::Gateway refusing_;
    standin::Gateway dropping_;
    UnheardPort unheard_;
};

// ---- One run ------------------------------------------------------------------------------------

struct Outcome {
    int status = 0; // of waitpid; -1: it had to be killed
    std::string output;

    bool exited(int code) const
    {
        return status != -1 && WIFEXITED(status) && WEXITSTATUS(status) == code;
    }
};

// What a run gets of this one's environment, with what it needs itself.
std::vector<std::string> environmentOfRuns()
{
    std::vector<std::string> variables;
    std::string sanitizer;
    for (char** entry = environ; *entry != nullptr; entry += 1) {
        std::string variable = *entry;
        if (variable.compare(0, 4, "QPX_") == 0 || variable.compare(0, 11, "LD_PRELOAD=") == 0)
            continue;
        if (variable.compare(0, 13, "ASAN_OPTIONS=") == 0)
            sanitizer = variable.substr(13) + ":";
        else
            variables.push_back(variable);
    }
    variables.push_back("LD_PRELOAD=" QPX_TORTURE_SHIM);
    variables.push_back("ASAN_OPTIONS=" + sanitizer + "verify_asan_link_order=0:exitcode=99");
    return variables;
}

std::vector<char*> pointersTo(std::vector<std::string>& texts)
{
    std::vector<char*> pointers;
    for (std::string& text : texts) pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
}

struct Pipe {
    int reading = -1;
    int writing = -1;

    Pipe()
    {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) std::abort();
        reading = ends[0];
        writing = ends[1];
    }
    ~Pipe()
    {
        close(reading);
        endWriting();
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    void endWriting()
    {
        if (writing >= 0) close(writing);
        writing = -1;
    }
};

pid_t spawn(std::vector<std::string> arguments, int output)
{
    static std::vector<std::string> variables = environmentOfRuns();
    static const std::vector<char*> environment = pointersTo(variables);

    arguments.insert(arguments.begin(), QPX_TORTURE_SCENARIOS);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, output, 1);
    posix_spawn_file_actions_adddup2(&actions, output, 2);
    pid_t process = -1;
    if (posix_spawn(&process, QPX_TORTURE_SCENARIOS, &actions, nullptr,
                    pointersTo(arguments).data(), environment.data()) != 0)
        std::abort();
    posix_spawn_file_actions_destroy(&actions);
    return process;
}

Outcome run(const std::vector<std::string>& arguments)
{
    Pipe output;
    pid_t process = spawn(arguments, output.writing);
    output.endWriting();

    Outcome outcome;
    bool killed = false;
    pollfd wait = {output.reading, POLLIN, 0};
    while (!killed) {
        if (poll(&wait, 1, LONGEST_RUN) == 0) {
            kill(process, SIGKILL);
            killed = true;
        } else {
            char bytes[4096];
            ssize_t count = read(output.reading, bytes, sizeof bytes);
            if (count <= 0) break;
            outcome.output.append(bytes, static_cast<std::size_t>(count));
        }
    }
    waitpid(process, &outcome.status, 0);
    if (killed) outcome.status = -1;
    return outcome;
}

// ---- What is to be run --------------------------------------------------------------------------

struct Options {
    std::vector<std::string> scenarios; // all if empty
    std::string fault;                  // all if empty
    int k = 0;                          // all if 0
    unsigned sample = 0;                // one run in so many; all if 0
    bool clean = false;
    std::vector<std::string> ways; // of shredding; then nothing fails
    unsigned seeds = 1;
    std::string exports; // the file that names the exported calls
    int jobs = static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));
};

// What a run in which nothing fails has told of a scenario.
struct Story {
    std::string scenario;
    std::map<std::string, int> calls; // how many of each kind
    std::string held;
    std::set<std::string> worked;
    std::multiset<std::string> told; // what the calls of each thread have returned
    long shreds = 0;
};

struct Totals {
    std::mutex guard; // guards what is printed, worked and shreds
    std::set<std::string> worked;
    std::map<std::string, long> shreds; // by way
    std::atomic<long> runs{0};
    std::atomic<long> findings{0};
    std::atomic<long> waits{0}; // runs that end in an open that is known to wait for good
};

std::string nameOf(const std::string& scenario, const std::string& fault, int k, const char* when)
{
    return scenario + ", " + fault + ", " + std::to_string(k) + ", " + when;
}

const char* howItEnded(const Outcome& outcome)
{
    if (outcome.status == -1) return "does not end, not even by itself";
    if (WIFSIGNALED(outcome.status)) return strsignal(WTERMSIG(outcome.status));
    switch (WEXITSTATUS(outcome.status)) {
    case 1: return "is not as it has to be";
    case 4: return "hangs";
    case 99: return "has a report of the sanitizer";
    default: return "ended for no reason that is known";
    }
}

void report(Totals& totals, const std::string& name, const Outcome& outcome)
{
    totals.findings += 1;
    std::lock_guard<std::mutex> hold(totals.guard);
    std::printf("FINDING %s: %s\n", name.c_str(), howItEnded(outcome));
    std::istringstream lines(outcome.output);
    std::string line;
    while (std::getline(lines, line)) std::printf("    %s\n", line.c_str());
    std::fflush(stdout);
}

// What the output of a run in which nothing fails tells.
void readStory(const Outcome& outcome, Story& story)
{
    std::istringstream lines(outcome.output);
    std::string word, name, rest;
    while (lines >> word >> name) {
        if (word == "did") story.worked.insert(name);
        if (word == "told") story.told.insert(name);
        if (word == "did" || word == "told" || !(lines >> rest)) continue;
        if (word == "count") story.calls[name] = std::atoi(rest.c_str());
        if (word == "held") story.held += name + " " + rest + " ";
        if (word == "shreds") story.shreds = std::atol(rest.c_str());
    }
}

// The run in which nothing fails; false if not all was well.
bool tellStory(Peers& peers, Totals& totals, Story& story)
{
    totals.runs += 1;
    Outcome outcome = run({story.scenario, "malloc", "0", "once", peers.ports(), ""});
    if (!outcome.exited(0)) {
        report(totals, story.scenario + " without a failure", outcome);
        return false;
    }
    readStory(outcome, story);
    std::lock_guard<std::mutex> hold(totals.guard);
    totals.worked.insert(story.worked.begin(), story.worked.end());
    return true;
}

// The same runs each time, spread over all that there are.
bool isInSample(const std::string& name, unsigned oneIn)
{
    unsigned sum = 2166136261u;
    for (char letter : name) sum = (sum ^ static_cast<unsigned char>(letter)) * 16777619u;
    return (sum >> 8) % oneIn == 0;
}

// One run; false if there was no k-th call.
bool fail(Peers& peers, Totals& totals, const Story& story, const std::string& fault, int k,
          const char* when)
{
    totals.runs += 1;
    Outcome outcome = run(
        {story.scenario, fault, std::to_string(k), when, peers.ports(), story.held});
    if (outcome.exited(0)) return true;
    if (outcome.exited(5)) {
        totals.waits += 1;
        return true;
    }
    if (outcome.exited(3)) return false;
    report(totals, nameOf(story.scenario, fault, k, when), outcome);
    return true;
}

// Every call of one kind, until there is none any more.
void failEach(Peers& peers, Totals& totals, const Options& options, const Story& story,
              const std::string& fault, int count)
{
    for (int k = options.k == 0 ? 1 : options.k;; k += 1) {
        bool wanted[2];
        for (int i = 0; i < 2; i += 1)
            wanted[i] = options.sample == 0 ||
                        isInSample(nameOf(story.scenario, fault, k, i == 0 ? "once" : "on"),
                                   options.sample);
        bool struck = false;
        if (wanted[0] && fail(peers, totals, story, fault, k, "once")) struck = true;
        if (wanted[1] && fail(peers, totals, story, fault, k, "on")) struck = true;
        // Threads and the network may make it a few more or less than they were the first time.
        if (options.k != 0 || (options.sample != 0 ? k >= count : k > count && !struck)) return;
    }
}

// What a connect that a real signal has ended leaves is known, and no story: such a run is made
// again.
constexpr int MOST_INTERRUPTED_CONNECTS = 100;

Outcome runShredded(Peers& peers, const Story& story, const std::string& way, unsigned seed)
{
    Outcome outcome;
    for (int i = 0; i < MOST_INTERRUPTED_CONNECTS; i += 1) {
        outcome = run(
            {story.scenario, way, std::to_string(seed), "shredded", peers.ports(), story.held});
        if (!outcome.exited(6)) break;
    }
    return outcome;
}

// A run that is cut up, which has to return and to do what one does that is not.
void shred(Peers& peers, Totals& totals, const Story& story, const std::string& way, unsigned seed)
{
    totals.runs += 1;
    std::string name = story.scenario + ", " + way + ", seed " + std::to_string(seed);
    Outcome outcome = runShredded(peers, story, way, seed);
    Story shredded;
    if (outcome.exited(0)) readStory(outcome, shredded);
    if (outcome.exited(0) && (shredded.told != story.told || shredded.worked != story.worked)) {
        for (const std::string& text : story.told) outcome.output += "without: " + text + "\n";
        outcome.status = 1 << 8; // as it would have ended by itself
    }
    // Whoever reads or sends is cut.
    bool reads = story.calls.count("recv") != 0 && story.calls.at("recv") > 3;
    if (outcome.exited(0) && reads && shredded.shreds == 0 && way.compare(0, 7, "signals") != 0) {
        outcome.output += "nothing has been cut\n";
        outcome.status = 1 << 8;
    }
    if (!outcome.exited(0)) report(totals, name, outcome);
    std::lock_guard<std::mutex> hold(totals.guard);
    totals.shreds[way] += shredded.shreds;
}

void shredEach(Peers& peers, Totals& totals, const Options& options, const Story& story)
{
    for (const std::string& way : options.ways) {
        unsigned seeds = way == "received-at-random" ? options.seeds : 1;
        for (unsigned seed = 1; seed <= seeds; seed += 1) {
            std::string name = story.scenario + ", " + way + ", " + std::to_string(seed);
            if (options.sample != 0 && !isInSample(name, options.sample)) continue;
            shred(peers, totals, story, way, seed);
        }
    }
}

void work(const Options& options, const std::vector<std::string>& scenarios,
          std::atomic<std::size_t>& next, Totals& totals)
{
    Peers peers;
    for (;;) {
        std::size_t index = next.fetch_add(1);
        if (index >= scenarios.size()) return;

        auto start = std::chrono::steady_clock::now();
        long before = totals.findings;
        Story story;
        story.scenario = scenarios[index];
        bool well = tellStory(peers, totals, story);
        if (well) shredEach(peers, totals, options, story);
        for (const auto& [fault, count] : story.calls) {
            if (!well || options.clean || !options.ways.empty() || count == 0) continue;
            if (!options.fault.empty() && fault != options.fault) continue;
            failEach(peers, totals, options, story, fault, count);
        }
        auto spent = std::chrono::duration_cast<std::chrono::seconds>(
            std::chrono::steady_clock::now() - start);
        std::lock_guard<std::mutex> hold(totals.guard);
        std::printf("%3zu of %zu  %-44s %4d s  %7ld runs  %ld findings%s\n", index + 1,
                    scenarios.size(), story.scenario.c_str(), static_cast<int>(spent.count()),
                    totals.runs.load(), totals.findings.load(),
                    totals.findings == before ? "" : "  <-");
        std::fflush(stdout);
    }
}

// ---- The program --------------------------------------------------------------------------------

std::vector<std::string> namesOf(const char* kind)
{
    Outcome outcome = run({});
    std::vector<std::string> names;
    std::istringstream lines(outcome.output);
    std::string word, name;
    while (lines >> word >> name)
        if (word == kind) names.push_back(name);
    return names;
}

// The exported calls are the indented names of the linker's map that end with a semicolon.
bool everyExportHasWorked(const std::string& file, const std::set<std::string>& worked)
{
    std::ifstream lines(file);
    std::string line;
    int count = 0;
    bool all = true;
    while (std::getline(lines, line)) {
        std::size_t begin = line.find_first_not_of(' ');
        std::size_t end = line.find(';');
        if (begin == std::string::npos || end == std::string::npos || end <= begin) continue;
        std::string name = line.substr(begin, end - begin);
        if (std::isupper(static_cast<unsigned char>(name[0])) == 0) continue;
        count += 1;
        if (worked.count(name) != 0) continue;
        all = false;
        std::printf("No scenario makes %s do its work.\n", name.c_str());
    }
    std::printf("%d exported calls.\n", count);
    return all && count > 0;
}

int usage()
{
    std::puts("Makes each call that the library makes of the system fail, in every scenario.\n"
              "\n"
              "Usage: torture [SCENARIO...] [options]    every scenario unless some are named\n"
              "\n"
              "  --fault NAME    only calls of this kind\n"
              "  --call NUMBER   only the one of that number\n"
              "  --sample NUMBER one run in so many, always the same\n"
              "  --clean         only the runs in which nothing fails\n"
              "  --shred WAY     nothing fails, but all that is read and sent is cut up in this\n"
              "                  way, or \"all\"\n"
              "  --seeds NUMBER  so many runs with random sizes instead of one\n"
              "  --exports FILE  fails unless each call that the linker's map FILE exports has\n"
              "                  done its work in some scenario\n"
              "  --jobs NUMBER   so many runs at once; as many as there are processors\n"
              "  --list          the names of scenarios, kinds and ways\n"
              "  --help          this text\n"
              "\n"
              "Exit code 1 if a run was not as it has to be.");
    return 0;
}

int refuse(const std::string& problem)
{
    std::fprintf(stderr, "torture: %s; --help shows what there is\n", problem.c_str());
    return 2;
}

// The options; an exit code, or -1.
int readArguments(int argc, char** argv, Options& options)
{
    for (int i = 1; i < argc; i += 1) {
        std::string word = argv[i];
        const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
        if (word == "--help") return usage();
        if (word == "--clean") {
            options.clean = true;
        } else if (word == "--list") {
            for (const char* kind : {"scenario", "fault", "way"})
                for (const std::string& name : namesOf(kind))
                    std::printf("%s %s\n", kind, name.c_str());
            return 0;
        } else if (word == "--fault" || word == "--call" || word == "--exports" ||
                   word == "--jobs" || word == "--sample" || word == "--shred" ||
                   word == "--seeds") {
            if (value == nullptr) return refuse(word + " takes a value");
            i += 1;
            if (word == "--fault") options.fault = value;
            if (word == "--exports") options.exports = value;
            if (word == "--call") options.k = std::atoi(value);
            if (word == "--sample")
                options.sample = static_cast<unsigned>(std::max(1, std::atoi(value)));
            if (word == "--shred") options.ways.push_back(value);
            if (word == "--seeds")
                options.seeds = static_cast<unsigned>(std::max(1, std::atoi(value)));
            if (word == "--jobs") options.jobs = std::max(1, std::atoi(value));
        } else if (word[0] == '-') {
            return refuse("unknown option " + word);
        } else {
            options.scenarios.push_back(word);
        }
    }
    return -1;
}

bool contains(const std::vector<std::string>& names, const std::string& name)
{
    return std::find(names.begin(), names.end(), name) != names.end();
}

} // namespace

int main(int argc, char** argv)
{
    Options options;
    int code = readArguments(argc, argv, options);
    if (code >= 0) return code;

    std::vector<std::string> scenarios = namesOf("scenario");
    if (scenarios.empty()) return refuse("the scenarios do not run");
    for (const std::string& name : options.scenarios)
        if (!contains(scenarios, name)) return refuse("no scenario \"" + name + "\"");
    if (!options.fault.empty() && !contains(namesOf("fault"), options.fault))
        return refuse("no kind of call \"" + options.fault + "\"");
    if (!options.scenarios.empty()) scenarios = options.scenarios;
    if (contains(options.ways, "all")) options.ways = namesOf("way");
    for (const std::string& name : options.ways)
        if (!contains(namesOf("way"), name)) return refuse("no way \"" + name + "\"");

    Totals totals;
    std::atomic<std::size_t> next{0};
    std::vector<std::thread> workers;
    for (int i = 0; i < options.jobs; i += 1)
        workers.emplace_back([&] { work(options, scenarios, next, totals); });
    for (std::thread& worker : workers) worker.join();

    bool well = totals.findings == 0;
    if (!options.exports.empty() && !everyExportHasWorked(options.exports, totals.worked))
        well = false;
    for (const std::string& way : options.ways) {
        std::printf("%-22s %9ld cuts or signals\n", way.c_str(), totals.shreds[way]);
        if (totals.shreds[way] != 0) continue;
        std::printf("FINDING nothing has been cut up in this way: name more scenarios\n");
        well = false;
    }
    std::printf("%zu scenarios, %ld runs, %ld of them to a wait that is known, %ld findings\n",
                scenarios.size(), totals.runs.load(), totals.waits.load(), totals.findings.load());
    return well ? 0 : 1;
}
