// The peer NATS, its C client: requests through a nats-server to a responder, which is this program
// started with --serve. Threads share connections, as the client allows. A window is requests that
// are published and whose replies are taken from one inbox.

#include "../common/measure.h"
#include "../common/sockets.h"

#include <nats/nats.h>

#include <unistd.h>

#include <cstdio>
#include <deque>

namespace {

using bench::Figures;
using bench::Options;

constexpr const char* usage =
    "Measures the C client of NATS, and prints the figures as a line of JSON.\n"
    "\n"
    "Usage: qpxbench-nats --port N [options]\n"
    "       qpxbench-nats --serve --port N    answers the requests\n"
    "\n"
    "Rows: window, --window requests on their way at once; any other, a request at a time.\n"
    "\n"
    "Examples:\n"
    "  qpxbench-nats --serve --port 4222 &\n"
    "  qpxbench-nats --port 4222 --threads 4\n"
    "  qpxbench-nats --port 4222 --row window --window 256\n"
    "\n"
    "Options:\n";

constexpr const char* subject = "bench.echo";
constexpr std::int64_t millisecondsForReply = 10000;

void check(natsStatus status, const char* what)
{
    if (status != NATS_OK) bench::fail(std::string(what) + ": " + natsStatus_GetText(status));
}

class Connection {
public:
    explicit Connection(std::uint16_t port)
    {
        natsOptions* options = nullptr;
        const std::string url = "nats://127.0.0.1:" + std::to_string(port);
        check(natsOptions_Create(&options), "options");
        check(natsOptions_SetURL(options, url.c_str()), "address");
        check(natsOptions_SetSendAsap(options, true), "send as soon as possible");
        check(natsConnection_Connect(&connection_, options), "connect");
        natsOptions_Destroy(options);
    }
    ~Connection() { natsConnection_Destroy(connection_); }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    natsConnection* get() const { return connection_; }

    void request(const std::string& data) const
    {
        natsMsg* reply = nullptr;
        check(natsConnection_Request(&reply, connection_, subject, data.data(),
                                     static_cast<int>(data.size()), millisecondsForReply),
              "request");
        natsMsg_Destroy(reply);
    }

private:
    natsConnection* connection_ = nullptr;
};

// Requests that are published, and the inbox that their replies come to.
class Inbox {
public:
    explicit Inbox(const Connection& connection) : connection_(connection.get())
    {
        check(natsInbox_Create(&name_), "inbox");
        check(natsConnection_SubscribeSync(&subscription_, connection_, name_), "subscribe");
    }
    ~Inbox()
    {
        natsSubscription_Destroy(subscription_);
        natsInbox_Destroy(name_);
    }
    Inbox(const Inbox&) = delete;
    Inbox& operator=(const Inbox&) = delete;

    void publish(const std::string& data) const
    {
        check(natsConnection_PublishRequest(connection_, subject, name_, data.data(),
                                            static_cast<int>(data.size())),
              "publish");
    }
    void collect() const
    {
        natsMsg* reply = nullptr;
        check(natsSubscription_NextMsg(&reply, subscription_, millisecondsForReply), "collect");
        natsMsg_Destroy(reply);
    }

private:
    natsConnection* connection_;
    natsInbox* name_ = nullptr;
    natsSubscription* subscription_ = nullptr;
};

Figures measure(const Options& options)
{
    const std::string data(options.size, 'a');
    std::deque<Connection> connections;
    for (int number = 0; number < options.connections; ++number)
        connections.emplace_back(options.port);
    if (options.row == "window") {
        const Inbox inbox(connections.front());
        return bench::measureWindow(
            options, [&] { inbox.publish(data); }, [&] { inbox.collect(); });
    }
    return bench::measureCalls(options, [&](int thread) {
        return [&data,
                &connection = connections[static_cast<std::size_t>(thread) % connections.size()]] {
            connection.request(data);
        };
    });
}

void answer(natsConnection* connection, natsSubscription*, natsMsg* request, void*)
{
    natsConnection_Publish(connection, natsMsg_GetReply(request), natsMsg_GetData(request),
                           natsMsg_GetDataLength(request));
    natsMsg_Destroy(request);
}

// Answers until a signal ends the program. The port that it prints says that it is ready.
void serve(const Options& options)
{
    natsSubscription* subscription = nullptr;
    const Connection connection(options.port);
    check(natsConnection_Subscribe(&subscription, connection.get(), subject, answer, nullptr),
          "subscribe");
    check(natsConnection_Flush(connection.get()), "flush");
    std::printf("%d\n", options.port);
    std::fflush(stdout);
    for (;;) pause();
}

} // namespace

int main(int argc, char** argv)
{
    const Options options = bench::readOptions(argc, argv,
                                               std::string(usage) + bench::usageOfOptions);
    if (options.serve) serve(options);
    bench::print(options, measure(options));
    return 0;
}
