// How fast the library is, told by ratios: each figure stands beside that of something else, taken
// in the same run on the same machine.
#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "measure.h"
#include "qpxclient.h"
#include "qpxclient_eci.h"
#include "standin/gateway.h"

namespace {

using bench::Row;
using bench::Subject;

constexpr int inFlight = 16; // requests at once, and threads that make one each

struct Options {
    int calls = 4000;
    int rounds = 5;
    int size = 100; // of a COMMAREA and of a container
    std::string only;
};

constexpr const char* usage =
    "Measures the library against named peers, and prints the ratios.\n"
    "\n"
    "Usage: qpxbench [options]\n"
    "\n"
    "  --calls N   calls of one measurement (4000), rounded up to whole batches of 16\n"
    "  --rounds N  measurements, of which the median counts (5)\n"
    "  --size N    bytes of a COMMAREA and of a container, 8 to 32000 (100)\n"
    "  --only G    one group: sync, async, container or trace\n"
    "  --help      this text\n"
    "\n"
    "Examples:\n"
    "  qpxbench\n"
    "  qpxbench --size 32000 --only sync\n"
    "  qpxbench --calls 20000 --rounds 9\n";

[[noreturn]] void fail(const std::string& message)
{
    std::fprintf(stderr, "qpxbench: %s\n", message.c_str());
    std::exit(1);
}

void check(int rc, const char* what)
{
    char name[QPX_RC_STRING_SIZE];
    if (rc != 0) fail(std::string(what) + ": " + QPX_getRcString(rc, name));
}

// ---- Calls ----

QPX_ECI_PARMS parmsOf(int callType, std::vector<char>& commarea)
{
    QPX_ECI_PARMS parms;
    std::memset(&parms, 0, sizeof parms);
    parms.eci_version = ECI_VERSION_6;
    parms.eci_call_type = static_cast<short>(callType);
    std::memcpy(parms.eci_program_name, "ECHO    ", 8);
    parms.eci_commarea = commarea.data();
    parms.eci_commarea_length = static_cast<short>(commarea.size());
    return parms;
}

class Connection {
public:
    explicit Connection(const standin::Gateway& gateway)
    {
        char host[] = "127.0.0.1";
        check(QPX_openRemoteGatewayConnection(host, gateway.port(), &token, 0), "open");
    }
    ~Connection() { QPX_closeGatewayConnection(&token); }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    void callSync(int count, std::size_t size) const
    {
        std::vector<char> area(size, 'a');
        for (int call = 0; call < count; ++call) {
            QPX_ECI_PARMS parms = parmsOf(ECI_SYNC, area);
            check(QPX_ECI_Execute(token, &parms), "synchronous call");
        }
    }

    // Batches of requests, each collected before the next is sent.
    void callAsync(int count, std::size_t size) const
    {
        std::vector<char> area(size, 'a');
        for (int batch = 0; batch < count / inFlight; ++batch) {
            for (int call = 0; call < inFlight; ++call) {
                QPX_ECI_PARMS parms = parmsOf(ECI_ASYNC, area);
                check(QPX_ECI_Execute(token, &parms), "asynchronous call");
            }
            for (int call = 0; call < inFlight; ++call) {
                QPX_ECI_PARMS parms = parmsOf(ECI_GET_REPLY_WAIT, area);
                check(QPX_ECI_Execute(token, &parms), "collecting call");
            }
        }
    }

    void callInThreads(int count, std::size_t size) const
    {
        std::vector<std::thread> threads;
        for (int thread = 0; thread < inFlight; ++thread)
            threads.emplace_back([=] { callSync(count / inFlight, size); });
        for (std::thread& thread : threads) thread.join();
    }

private:
    QPX_ConnToken_t token = nullptr;
};

// ---- The floor: the same bytes, by a loop that knows nothing ----

class BareSocket {
public:
    // Takes handshake, one request and the answers to both from what a connection of the library
    // has exchanged.
    explicit BareSocket(standin::Gateway& gateway, std::size_t size)
    {
        const int number = static_cast<int>(gateway.connectionCount()) + 1;
        {
            Connection connection(gateway);
            connection.callSync(1, size);
        }
        gateway.awaitClosed(static_cast<std::size_t>(number));
        const std::vector<standin::Bytes> sent = flowsOf(gateway.received(number));
        const std::vector<standin::Bytes> received = flowsOf(gateway.sent(number));
        request_ = sent.at(1);
        answerSize_ = received.at(1).size();
        connect(gateway.port());
        exchange(sent.at(0), received.at(0).size());
    }
    ~BareSocket() { close(socket_); }
    BareSocket(const BareSocket&) = delete;
    BareSocket& operator=(const BareSocket&) = delete;

    void exchange(int count)
    {
        for (int call = 0; call < count; ++call) exchange(request_, answerSize_);
    }

private:
    static std::vector<standin::Bytes> flowsOf(standin::Bytes stream)
    {
        std::vector<standin::Bytes> flows;
        while (auto split = standin::splitFlow(stream)) {
            const auto end = stream.begin() + static_cast<std::ptrdiff_t>(split->size);
            flows.emplace_back(stream.begin(), end);
            stream.erase(stream.begin(), end);
        }
        return flows;
    }

    void connect(std::uint16_t port)
    {
        sockaddr_in address = {};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socket_ = socket(AF_INET, SOCK_STREAM, 0);
        if (::connect(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
            fail("no bare connection");
    }

    void exchange(const standin::Bytes& out, std::size_t backSize)
    {
        if (send(socket_, out.data(), out.size(), 0) != static_cast<ssize_t>(out.size()))
            fail("bare send");
        back_.resize(backSize);
        if (recv(socket_, back_.data(), backSize, MSG_WAITALL) != static_cast<ssize_t>(backSize))
            fail("bare receive");
    }

    int socket_ = -1;
    standin::Bytes request_;
    std::size_t answerSize_ = 0;
    standin::Bytes back_;
};

// ---- Containers ----

class Containers {
public:
    Containers() { check(ECI_createChannel("BENCH", &channel_), "create channel"); }
    ~Containers() { ECI_deleteChannel(&channel_); }
    Containers(const Containers&) = delete;
    Containers& operator=(const Containers&) = delete;

    void createGetDelete(int count, std::size_t size)
    {
        const std::string data(size, 'd');
        std::vector<char> back(size);
        for (int turn = 0; turn < count; ++turn) {
            const std::string name = "ITEM" + std::to_string(turn % 8);
            std::size_t length = 0;
            check(ECI_createContainer(channel_, name.c_str(), ECI_BIT, 0, data.data(), size),
                  "create");
            check(ECI_getContainerData(channel_, name.c_str(), back.data(), size, 0, &length),
                  "get");
            check(ECI_deleteContainer(channel_, name.c_str()), "delete");
        }
    }

private:
    ECI_ChannelToken_t channel_ = nullptr;
};

class MapUnderMutex {
public:
    void createGetDelete(int count, std::size_t size)
    {
        const std::string data(size, 'd');
        std::vector<char> back(size);
        for (int turn = 0; turn < count; ++turn) {
            const std::string name = "ITEM" + std::to_string(turn % 8);
            locked([&] { map_.emplace(name, data); });
            locked([&] { std::memcpy(back.data(), map_.at(name).data(), size); });
            locked([&] { map_.erase(name); });
        }
    }

private:
    template <typename Work>
    void locked(Work work)
    {
        const std::lock_guard<std::mutex> guard(mutex_);
        work();
    }

    std::mutex mutex_;
    std::map<std::string, std::string> map_;
};

// ---- Groups ----

class Bench {
public:
    explicit Bench(const Options& options)
        : options_(options), size_(static_cast<std::size_t>(options.size))
    {
    }

    std::vector<Row> run()
    {
        const std::vector<std::pair<std::string, void (Bench::*)()>> groups = {
            {"sync", &Bench::compareSync},
            {"async", &Bench::compareAsync},
            {"container", &Bench::compareContainers},
            {"trace", &Bench::compareTraceLevels}};
        for (const auto& [name, group] : groups)
            if (options_.only.empty() || options_.only == name) (this->*group)();
        if (rows_.empty()) fail("no group " + options_.only + "; --help names them");
        return rows_;
    }

private:
    void add(const Subject& subject, const Subject& peer)
    {
        rows_.push_back(bench::compare(subject, peer, options_.rounds));
    }

    void compareSync()
    {
        standin::Gateway gateway;
        BareSocket bare(gateway, size_);
        gateway.forget();
        Connection connection(gateway);
        const int calls = options_.calls;
        add({"synchronous call", calls,
             [&] { connection.callSync(calls, size_), gateway.forget(); }},
            {"bare socket, the same bytes", calls,
             [&] { bare.exchange(calls), gateway.forget(); }});
    }

    void compareAsync()
    {
        standin::GatewayOptions silent;
        silent.recording = false;
        standin::Gateway gateway(silent);
        Connection connection(gateway);
        const int calls = (options_.calls + inFlight - 1) / inFlight * inFlight;
        add({"16 asynchronous calls at once", calls, [&] { connection.callAsync(calls, size_); }},
            {"16 threads, a synchronous call each", calls,
             [&] { connection.callInThreads(calls, size_); }});
        add({"16 asynchronous calls at once", calls, [&] { connection.callAsync(calls, size_); }},
            {"synchronous calls in a row", calls, [&] { connection.callSync(calls, size_); }});
    }

    void compareContainers()
    {
        Containers containers;
        MapUnderMutex map;
        const int turns = options_.calls * 10;
        add({"container: create, get, delete", turns,
             [&] { containers.createGetDelete(turns, size_); }},
            {"std::map under a mutex", turns, [&] { map.createGetDelete(turns, size_); }});
    }

    // Into a file that throws everything away.
    void compareTraceLevels()
    {
        standin::GatewayOptions silent;
        silent.recording = false;
        standin::Gateway gateway(silent);
        Connection connection(gateway);
        char nowhere[] = "/dev/null";
        check(QPX_setAPITraceFile(nowhere), "trace file");
        const int calls = options_.calls;
        const auto callAt = [&](int level) {
            return [&, level] {
                QPX_setAPITraceLevel(level);
                connection.callSync(calls, size_);
                QPX_setAPITraceLevel(0);
            };
        };
        const Subject untraced = {"synchronous call, trace level 0", calls, callAt(0)};
        add({"synchronous call, trace level 3", calls, callAt(3)}, untraced);
        add({"synchronous call, trace level 4", calls, callAt(4)}, untraced);
    }

    const Options options_;
    const std::size_t size_;
    std::vector<Row> rows_;
};

// ---- The command line ----

int numberOf(const char* text, int least, int most)
{
    char* end = nullptr;
    const long number = std::strtol(text, &end, 10);
    if (*text == '\0' || *end != '\0' || number < least || number > most)
        fail(std::string(text) + " is not a number from " + std::to_string(least) + " to " +
             std::to_string(most));
    return static_cast<int>(number);
}

Options optionsOf(int argc, char** argv)
{
    Options options;
    for (int at = 1; at < argc; at += 2) {
        const std::string name = argv[at];
        if (name == "--help" || name == "-h") {
            std::fputs(usage, stdout);
            std::exit(0);
        }
        if (at + 1 == argc) fail(name + " needs a value; --help shows the options");
        const char* value = argv[at + 1];
        if (name == "--calls")
            options.calls = numberOf(value, inFlight, 1000000);
        else if (name == "--rounds")
            options.rounds = numberOf(value, 1, 1000);
        else if (name == "--size")
            options.size = numberOf(value, 8, 32000);
        else if (name == "--only")
            options.only = value;
        else
            fail("unknown option " + name + "; --help shows what there is");
    }
    return options;
}

} // namespace

int main(int argc, char** argv)
{
    const Options options = optionsOf(argc, argv);
    std::printf("%s\n", bench::machine().c_str());
    std::printf("%d calls of %d bytes, median of %d rounds\n\n", options.calls, options.size,
                options.rounds);
    bench::printTable(Bench(options).run());
    return 0;
}
