// The peer hiredis with redis-server: ECHO of a text, over connections that threads share under a
// mutex, since one of hiredis serves one thread at a time. A window is a pipeline.

#include "../common/measure.h"
#include "../common/sockets.h"

#include <hiredis.h>

#include <deque>
#include <mutex>

namespace {

using bench::Figures;
using bench::Options;

constexpr const char* usage =
    "Measures hiredis against a redis-server, and prints the figures as a line of JSON.\n"
    "\n"
    "Usage: qpxbench-hiredis --port N [options]\n"
    "\n"
    "Rows: window, a pipeline of --window commands; any other, a command at a time.\n"
    "\n"
    "Examples:\n"
    "  qpxbench-hiredis --port 6379 --threads 4 --connections 4\n"
    "  qpxbench-hiredis --port 6379 --row window --window 256\n"
    "\n"
    "Options:\n";

class Connection {
public:
    explicit Connection(std::uint16_t port) : context_(redisConnect("127.0.0.1", port))
    {
        if (context_ == nullptr || context_->err != 0) bench::fail("cannot connect");
    }
    ~Connection() { redisFree(context_); }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    void echo(const std::string& text)
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        begin(text);
        collect(text.size());
    }
    void begin(const std::string& text)
    {
        if (redisAppendCommand(context_, "ECHO %b", text.data(), text.size()) != REDIS_OK)
            bench::fail("cannot add a command");
        int sent = 0;
        while (sent == 0)
            if (redisBufferWrite(context_, &sent) != REDIS_OK) bench::fail("cannot send");
    }
    void collect(std::size_t size)
    {
        void* reply = nullptr;
        if (redisGetReply(context_, &reply) != REDIS_OK ||
            static_cast<redisReply*>(reply)->len != size)
            bench::fail("no echo");
        freeReplyObject(reply);
    }

private:
    redisContext* context_;
    std::mutex mutex_;
};

Figures measure(const Options& options)
{
    const std::string text(options.size, 'a');
    std::deque<Connection> connections;
    for (int number = 0; number < options.connections; ++number)
        connections.emplace_back(options.port);
    if (options.row == "window")
        return bench::measureWindow(
            options, [&] { connections.front().begin(text); },
            [&] { connections.front().collect(text.size()); });
    return bench::measureCalls(options, [&](int thread) {
        return [&text,
                &connection = connections[static_cast<std::size_t>(thread) % connections.size()]] {
            connection.echo(text);
        };
    });
}

} // namespace

int main(int argc, char** argv)
{
    const Options options = bench::readOptions(argc, argv,
                                               std::string(usage) + bench::usageOfOptions);
    bench::print(options, measure(options));
    return 0;
}
