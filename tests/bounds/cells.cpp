// One cell: the connection is brought into its state, the fault happens, and what becomes of the
// call is looked at. Nothing waits for time to pass but for limits of the application and times of
// the kernel, which are what such a cell is about.
#include <arpa/inet.h>
#include <dirent.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <linux/sockios.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>

#include "bounds/situation.h"
#include "support/channel_script.h"
#include "support/esi_script.h"

namespace bounds {

using namespace script;

// ---- Threads ------------------------------------------------------------------------------------

namespace {

struct Threads {
    std::map<std::string, long> switches; // by number
    bool allSleep = true;                 // but this one
    int receivers = 0;

    bool operator==(const Threads& other) const { return switches == other.switches; }
};

Threads look()
{
    Threads threads;
    std::string self = std::to_string(gettid());
    DIR* listing = opendir("/proc/self/task");
    while (dirent* entry = readdir(listing)) {
        if (entry->d_name[0] == '.' || entry->d_name == self) continue;
        std::ifstream lines(std::string("/proc/self/task/") + entry->d_name + "/status");
        std::string word, rest;
        long switches = 0;
        bool sleeps = false;
        while (lines >> word && std::getline(lines, rest)) {
            if (word == "Name:" && rest.find("qpx-recv") != std::string::npos)
                threads.receivers += 1;
            if (word == "State:") sleeps = rest.find('S') != std::string::npos;
            if (word.find("ctxt_switches:") != std::string::npos) switches += std::stol(rest);
        }
        if (!sleeps) threads.allSleep = false;
        threads.switches[entry->d_name] = switches;
    }
    closedir(listing);
    return threads;
}

// Whether all that the peer has sent is there. Whoever reads it has been woken then.
bool allHasArrived(const Situation& s)
{
    int queued = 0;
    return s.isGone || s.peer.fd() < 0 || ioctl(s.peer.fd(), SIOCOUTQ, &queued) != 0 || queued == 0;
}

// Runs on each processor in turn. A thread that another processor has been told to wake still looks
// asleep; who gets to run there has come behind it.
void visitEveryProcessor()
{
    cpu_set_t all;
    if (sched_getaffinity(0, sizeof all, &all) != 0) return;
    for (int processor = 0; processor < CPU_SETSIZE; processor += 1) {
        if (!CPU_ISSET(processor, &all)) continue;
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(processor, &one);
        sched_setaffinity(0, sizeof one, &one);
    }
    sched_setaffinity(0, sizeof all, &all);
}

// Whether every other thread sleeps, and goes on to.
bool allSleep()
{
    Threads before = look();
    if (!before.allSleep) return false;
    visitEveryProcessor();
    return look() == before;
}

// Waits until the call has ended, or until it cannot go on by itself.
bool settleThreads(const Situation& s, const Running& call)
{
    for (;;) {
        if (call.hasEnded()) return true;
        if (allHasArrived(s) && allSleep()) return call.hasEnded();
        letOthersRun();
    }
}

// Whether a thread is in a call of the system that waits for so long and no longer. These calls
// have these numbers in 32 bits.
bool isInLimitedWait()
{
    constexpr int SELECT = 142, PSELECT = 308, PSELECT_TIME64 = 413, POLL = 168, PPOLL = 309,
                  PPOLL_TIME64 = 414;
    for (const auto& [thread, switches] : look().switches) {
        std::ifstream file("/proc/self/task/" + thread + "/syscall");
        int number = 0;
        file >> number;
        for (int limited : {SELECT, PSELECT, PSELECT_TIME64, POLL, PPOLL, PPOLL_TIME64})
            if (number == limited) return true;
    }
    return false;
}

// Waits for an end that a limit or the kernel brings, of some seconds both.
bool endsByItself(const Running& call, bool hasConnection)
{
    constexpr std::chrono::seconds longest(120);
    auto deadline = std::chrono::steady_clock::now() + longest;
    while (!call.hasEnded() && std::chrono::steady_clock::now() < deadline) {
        letOthersRun();
        // With its connection the kernel has ended what it ends.
        if (hasConnection && look().receivers == 0 && allSleep()) break;
    }
    return call.hasEnded();
}

} // namespace

void letOthersRun()
{
    poll(nullptr, 0, 1);
}

bool Situation::settle(const Running& call) const
{
    return settleThreads(*this, call);
}

// ---- The peer -----------------------------------------------------------------------------------

int listenHere(int backlog, int* port)
{
    int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in here = {};
    here.sin_family = AF_INET;
    here.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof here;
    auto* generic = reinterpret_cast<sockaddr*>(&here);
    if (bind(listener, generic, size) != 0 || listen(listener, backlog) != 0 ||
        getsockname(listener, generic, &size) != 0)
        throw std::runtime_error("no listener");
    *port = ntohs(here.sin_port);
    return listener;
}

Peer acceptFrom(int listener)
{
    int descriptor = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (descriptor < 0) throw std::runtime_error("accept");
    return Peer(descriptor);
}

void Situation::giveToProcess()
{
    pid_t parent = getpid();
    holder = fork();
    if (holder == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) _exit(0);
        for (;;) pause();
    }
    peer.close();
}

void Situation::awaitEndOfStream() const
{
    for (;;) {
        if (connectionOf(ports.first, ports.second).state != ESTABLISHED) return;
        letOthersRun();
    }
}

void Situation::endConnection()
{
    if (holder != 0) {
        kill(holder, SIGKILL);
        waitpid(holder, nullptr, 0);
        holder = 0;
    }
    peer.close();
}

// ---- The states ---------------------------------------------------------------------------------

namespace {

constexpr std::size_t LARGE = 16 << 20; // more than the system takes

int portOf(int (*name)(int, sockaddr*, socklen_t*), int descriptor)
{
    sockaddr_in address = {};
    socklen_t size = sizeof address;
    name(descriptor, reinterpret_cast<sockaddr*>(&address), &size);
    return ntohs(address.sin_port);
}

void accept(Situation& s)
{
    s.peer = acceptFrom(s.listener);
    s.ports = {portOf(getpeername, s.peer.fd()), portOf(getsockname, s.peer.fd())};
    s.peer.read(handshakeSize);
}

int awaitResult(const Running& call)
{
    while (!call.hasEnded()) letOthersRun();
    return call.result();
}

Running start(Situation& s, int (*call)(Application& application))
{
    Application* application = &s.application;
    return Running([application, call] { return call(*application); });
}

void establish(Situation& s)
{
    Running opening = start(s, allCalls()[0].run);
    accept(s);
    s.peer.send(handshakeAnswer());
    if (awaitResult(opening) != QPX_OK) throw std::runtime_error("the open has failed");
}

Bytes answerTo(const Situation& s, int id)
{
    std::string call = s.cell.call->name;
    if (call == "list") return ListReply().reported(1).data(systemEntry("PROD")).to(id);
    if (call == "verify" || call == "change") return acceptance(id);
    if (s.application.channel != nullptr && call != "close" && call != "purge")
        return ChannelReply(0, Bytes()).to(id);
    return eciReply(id, text("the answer"));
}

void takeRequest(Situation& s)
{
    s.id = readRequest(s.peer).messageId();
    s.answer = answerTo(s, s.id);
}

bool isOrderly(const Call& call)
{
    return std::strcmp(call.name, "close") == 0;
}

bool usesChannel(const Cell& cell)
{
    return cell.state == State::Sending || cell.call->role == Role::Container ||
           std::strncmp(cell.call->name, "channel", 7) == 0;
}

// A close comes to its wait: for calls, or for the answer to its goodbye.
Running startClose(Situation& s)
{
    Running call = start(s, s.cell.call->run);
    if (!isOrderly(*s.cell.call) && s.cell.state != State::Sending) {
        s.peer.read(33);
        s.answer += closeFlow();
    } else {
        s.settle(call);
    }
    return call;
}

Running bringToCalling(Situation& s)
{
    Role role = s.cell.call->role;
    if (role == Role::Work) {
        Running call = start(s, s.cell.call->run);
        takeRequest(s);
        return call;
    }
    s.other = start(s, role == Role::Container ? callWithChannel : callProgram);
    takeRequest(s);
    if (role == Role::Close) return startClose(s);
    Running call = start(s, s.cell.call->run);
    s.settle(call);
    return call;
}

Running bringToSending(Situation& s)
{
    bool closes = s.cell.call->role == Role::Close;
    Running sending = start(s, closes ? callWithChannel : s.cell.call->run);
    s.unread = s.peer.read(32);
    s.id = support::int32At(s.unread, 12);
    s.answer = ChannelReply(0, Bytes()).to(s.id);
    s.settle(sending);
    if (!closes) return sending;
    s.other = sending;
    return startClose(s);
}

Running bringToCollecting(Situation& s)
{
    bool closes = s.cell.call->role == Role::Close;
    bool channel = usesChannel(s.cell);
    for (const Call& call : allCalls()) {
        if (std::strcmp(call.name, channel ? "channelSend" : "send") != 0) continue;
        if (awaitResult(start(s, call.run)) != 0) throw std::runtime_error("nothing is sent");
    }
    takeRequest(s);
    if (closes) return startClose(s);
    Running call = start(s, s.cell.call->run);
    s.settle(call);
    return call;
}

Running bringToClosing(Situation& s)
{
    Running call = start(s, s.cell.call->run);
    s.peer.read(33);
    s.answer = closeFlow();
    return call;
}

// The Gateway listens on the second of the addresses that a name stands for.
void listenOnSecondAddress(Situation& s)
{
    addrinfo hints = {};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(s.application.host.c_str(), nullptr, &hints, &found) != 0 ||
        found->ai_next == nullptr)
        throw std::runtime_error("the name does not stand for two addresses");
    close(s.listener);
    s.listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    auto second = *reinterpret_cast<sockaddr_in*>(found->ai_next->ai_addr);
    freeaddrinfo(found);
    second.sin_port = htons(static_cast<std::uint16_t>(s.application.port));
    if (bind(s.listener, reinterpret_cast<sockaddr*>(&second), sizeof second) != 0 ||
        listen(s.listener, 8) != 0)
        throw std::runtime_error("the second address is not free");
}

// The application has a name that stands for two addresses.
void nameTwoAddresses(Situation& s)
{
    char name[] = "/tmp/qpx-bounds-XXXXXX";
    int file = mkstemp(name);
    const char hosts[] = "127.0.0.2 gateway.bounds\n127.0.0.1 gateway.bounds\n";
    if (file < 0 || write(file, hosts, sizeof hosts - 1) < 0) throw std::runtime_error(name);
    close(file);
    bool mounted = unshare(CLONE_NEWNS) == 0 &&
                   mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                   mount(name, "/etc/hosts", nullptr, MS_BIND, nullptr) == 0;
    unlink(name);
    if (!mounted) throw std::runtime_error("no hosts of its own");
    s.application.host = "gateway.bounds";
    listenOnSecondAddress(s);
}

Running bringToOpening(Situation& s, std::optional<ScriptedGateway>& full)
{
    std::string fault = s.cell.fault->name;
    if (fault == "refuses") {
        close(s.listener);
        s.listener = -1;
    }
    if (fault == "unanswered") {
        full.emplace(ScriptedGateway::Backlog::Full);
        s.application.port = full->port();
    }
    if (fault == "unreachable") s.application.host = "10.9.0.77";
    if (fault == "several") nameTwoAddresses(s);
    Running call = start(s, s.cell.call->run);
    s.answer = handshakeAnswer();
    if (s.cell.fault->strike != nullptr) accept(s);
    return call;
}

// ---- The Gateway goes on ------------------------------------------------------------------------

void readGoodbye(Situation& s)
{
    s.peer.read(33);
    s.peer.send(closeFlow());
}

void readRest(Situation& s)
{
    auto length = static_cast<std::size_t>(support::int32At(s.unread, 28));
    constexpr std::size_t piece = 4000;
    while (length > 0) length -= s.peer.read(std::min(length, piece)).size();
}

void mendLink(Situation& s)
{
    for (;;) {
        Connection connection = connectionOf(s.ports.first, s.ports.second);
        if (connection.timer != RETRANSMISSION || connection.retransmits > 0) break;
        letOthersRun();
    }
    s.far->mend();
    s.isGone = false;
}

void goOn(Situation& s)
{
    const Call& call = *s.cell.call;
    if (s.isGone) mendLink(s);
    if (s.cell.state == State::Idle) {
        if (call.role == Role::Close) return readGoodbye(s);
        takeRequest(s);
        if (call.role == Role::Send) return;
    }
    if (s.cell.state == State::Sending) {
        readRest(s);
        if (call.role == Role::Send) return;
    }
    if (!s.answer.empty()) s.peer.send(s.answer);
    bool saysGoodbyeLater = isOrderly(call) && s.cell.state == State::Calling;
    if (call.role == Role::Close && (s.cell.state == State::Sending || saysGoodbyeLater))
        readGoodbye(s);
}

// ---- The outcome --------------------------------------------------------------------------------

bool isOneOf(const char* name, std::initializer_list<const char*> names)
{
    return std::any_of(names.begin(), names.end(),
                       [name](const char* each) { return std::strcmp(name, each) == 0; });
}

// Whether the wait has an end that the other side does not bring about.
bool hasLimit(const Situation& s)
{
    return isInLimitedWait() ||
           isOneOf(s.cell.fault->name, {"dead", "back", "halfOpen", "unreachable", "unanswered"});
}

// What has ended the wait of a call that has settled without an end.
std::string findBound(Situation& s, const Running& call)
{
    int timer = connectionOf(s.ports.first, s.ports.second).timer;
    if (hasLimit(s) && endsByItself(call, s.ports.first != 0)) {
        if (call.result() == QPX_ERR_CONNECTTIMEOUT) return "limit";
        if (s.peer.fd() < 0 && s.ports.first == 0) return "connecting";
        if (isOneOf(s.cell.fault->name, {"back"})) return "event";
        return timer == KEEPALIVE ? "keepalive" : "retransmission";
    }
    s.endConnection();
    while (!call.hasEnded() && look().receivers > 0) letOthersRun();
    if (s.settle(call)) return "end";
    Running all = start(s, [](Application&) { return QPX_closeAllGatewayConnections(); });
    return s.settle(call) ? "application" : "never";
}

// ---- The next call ------------------------------------------------------------------------------

int openCallAndClose(Application& application)
{
    QPX_ConnToken_t token = nullptr;
    char host[] = "127.0.0.1";
    int rc = QPX_openRemoteGatewayConnection(host, application.port, &token, 0);
    application.token = token;
    if (rc == QPX_OK) rc = callProgram(application);
    if (rc == QPX_OK) rc = QPX_closeGatewayConnection(&token);
    return rc;
}

bool worksOnNewConnection(Situation& s)
{
    Application fresh;
    int listener = listenHere(8, &fresh.port);
    Running all([&fresh] { return openCallAndClose(fresh); });
    Peer peer = acceptFrom(listener);
    peer.read(handshakeSize);
    peer.send(handshakeAnswer());
    peer.send(eciReply(readRequest(peer).messageId(), text("the answer")));
    peer.read(33);
    peer.send(closeFlow());
    close(listener);
    static_cast<void>(s);
    return awaitResult(all) == QPX_OK;
}

bool worksOnSameConnection(Situation& s)
{
    if (s.application.token == nullptr || s.cell.call->role == Role::Close) return false;
    if (s.peer.fd() < 0 || connectionOf(s.ports.first, s.ports.second).state != ESTABLISHED)
        return false;
    if (isOneOf(s.cell.fault->name,
                {"silent", "short", "stallHeader", "stallBody", "pings", "halfOpen", "dead"}))
        return false;
    Running call = start(s, callProgram);
    if (s.settle(call)) return call.result() == QPX_OK;
    s.peer.send(eciReply(readRequest(s.peer).messageId(), text("the answer")));
    return awaitResult(call) == QPX_OK;
}

std::string findNext(Situation& s)
{
    if (worksOnSameConnection(s)) return "same";
    s.endConnection();
    Running all = start(s, [](Application&) { return QPX_closeAllGatewayConnections(); });
    // A host that is gone has left the closing nothing to wait for, or the kernel ends it.
    if (!s.settle(all) && !endsByItself(all, true)) return "none";
    return worksOnNewConnection(s) ? "new" : "none";
}

void bring(Situation& s, Running& call, std::optional<ScriptedGateway>& full)
{
    switch (s.cell.state) {
    case State::Opening: call = bringToOpening(s, full); break;
    case State::Idle: break;
    case State::Calling: call = bringToCalling(s); break;
    case State::Sending: call = bringToSending(s); break;
    case State::Collecting: call = bringToCollecting(s); break;
    case State::Closing: call = bringToClosing(s); break;
    }
}

// What has come in is looked at before the call is made.
void settleIdle(const Situation& s)
{
    Running nothing([] { return 0; });
    awaitResult(nothing);
    while (!allHasArrived(s) || !allSleep()) letOthersRun();
}

Result play(Situation& s)
{
    std::optional<ScriptedGateway> full;
    Running call;
    if (s.cell.state != State::Opening) establish(s);
    if (usesChannel(s.cell))
        makeChannel(s.application, s.cell.state == State::Sending ? LARGE : 100);
    bring(s, call, full);
    if (s.cell.fault->strike != nullptr) s.cell.fault->strike(s);
    if (s.cell.state == State::Idle) {
        settleIdle(s);
        call = start(s, s.cell.call->run);
        if (s.isGone && s.cell.fault->isPolite) s.settle(call);
    }
    if (s.cell.fault->isPolite) goOn(s);

    Result result;
    result.call = s.cell.call->name;
    result.state = nameOf(s.cell.state);
    result.fault = s.cell.fault->name;
    result.bound = s.settle(call) ? "event" : findBound(s, call);
    result.rc = call.hasEnded() ? call.result() : 0;
    result.next = call.hasEnded() ? findNext(s) : "none";
    return result;
}

} // namespace

// ---- Cells --------------------------------------------------------------------------------------

const char* nameOf(State state)
{
    constexpr const char* names[] = {"opening", "idle",       "calling",
                                     "sending", "collecting", "closing"};
    return names[static_cast<int>(state)];
}

template <class Value>
static bool contains(const std::vector<Value>& values, Value value)
{
    return std::find(values.begin(), values.end(), value) != values.end();
}

std::vector<Cell> allCells()
{
    // A link takes a moment to come back, of which a limit of a second leaves too little.
    auto comesToNothing = [](const Call& call, const Fault& fault) {
        return isOneOf(call.name, {"openLimited", "openApplidLimited"}) &&
               isOneOf(fault.name, {"back"});
    };
    std::vector<Cell> cells;
    for (const Call& call : allCalls())
        for (State state : call.states)
            for (const Fault& fault : allFaults())
                if (contains(fault.states, state) && !comesToNothing(call, fault) &&
                    (fault.roles.empty() || contains(fault.roles, call.role)))
                    cells.push_back({&call, state, &fault});
    return cells;
}

int runCell(const Cell& cell)
{
    try {
        Situation s(cell);
        if (cell.fault->isOfTheHost) {
            if (!enterOwnNetwork()) return 3;
            if (!cell.fault->isPolite) lowerTimes();
            s.far.emplace();
            s.listener = s.far->listener();
            s.application.host = FarHost::address;
            s.application.port = FarHost::port;
        } else {
            s.listener = listenHere(8, &s.application.port);
        }
        Result result = play(s);
        std::printf("%s\n", result.text().c_str());
        std::fflush(stdout);
        if (s.holder != 0) kill(s.holder, SIGKILL);
    } catch (const std::exception& problem) {
        std::printf("%s failed: %s\n", cell.key().c_str(), problem.what());
        std::fflush(stdout);
        _exit(1);
    }
    _exit(0); // a call may wait for good
}

} // namespace bounds
