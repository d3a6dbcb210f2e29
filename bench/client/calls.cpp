// Calls through the library, over one connection or many.

#include "../common/measure.h"
#include "../common/sockets.h"
#include "library.h"
#include "rows.h"

#include "qpxclient_esi.h"

#include <deque>
#include <memory>

namespace bench {

namespace {

// The trace that a row asks for, from here to the end of the scope.
class Traced {
public:
    explicit Traced(const Options& options)
    {
        std::string file = options.traceFile;
        check(QPX_setAPITraceFile(file.data()), "trace file");
        check(QPX_setAPITraceLevel(options.trace), "trace level");
    }
    ~Traced() { check(QPX_setAPITraceLevel(0), "trace level"); }
    Traced(const Traced&) = delete;
    Traced& operator=(const Traced&) = delete;
};

// Connections that threads share in turn.
class Connections {
public:
    Connections(int count, std::uint16_t port)
    {
        for (int number = 0; number < count; ++number) all_.emplace_back(port);
    }
    QPX_ConnToken_t of(int thread) const
    {
        return all_[static_cast<std::size_t>(thread) % all_.size()].token();
    }
    QPX_ConnToken_t last() const { return all_.back().token(); }

private:
    std::deque<Connection> all_;
};

} // namespace

Figures syncRow(const Options& options)
{
    const Connections connections(options.connections, options.port);
    const Traced traced(options);
    return measureCalls(options, [&](int thread) {
        return [call = ProgramCall(connections.of(thread), options.program,
                                   options.size)]() mutable { call.sync(); };
    });
}

Figures asyncRow(const Options& options)
{
    const Connection connection(options.port);
    ProgramCall call(connection.token(), options.program, options.size);
    return measureWindow(
        options, [&] { call.begin(); }, [&] { call.collect(); });
}

Figures channelRow(const Options& options)
{
    const Connections connections(options.connections, options.port);
    return measureCalls(options, [&](int thread) {
        auto channel = std::make_shared<Channel>(options.containers, options.size);
        return [channel, token = connections.of(thread), &options] {
            channel->callWith(token, options.program);
        };
    });
}

Figures passwordRow(const Options& options)
{
    const Connections connections(options.connections, options.port);
    return measureCalls(options, [&](int thread) {
        return [token = connections.of(thread)] {
            ESI_DETAILS details;
            check(QPX_ESI_verifyPassword(token, "FRED", "SECRET12", "VORNA", &details),
                  "verify password");
        };
    });
}

Figures connectionsRow(const Options& options)
{
    constexpr int enoughToDivide = 100;   // pages of memory go to few unevenly
    const Connection first(options.port); // what the process needs once is not a connection's
    const long before = residentKilobytes();
    const Connections connections(options.connections, options.port);
    const long after = residentKilobytes();
    Figures figures = measureCalls(options, [&](int) {
        return [call = ProgramCall(connections.last(), options.program, options.size)]() mutable {
            call.sync();
        };
    });
    if (options.connections >= enoughToDivide)
        figures.kilobytesPerConnection = static_cast<double>(after - before) / options.connections;
    return figures;
}

Figures outstandingRow(const Options& options)
{
    const Connection connection(options.port);
    ProgramCall held(connection.token(), "HOLD", options.size);
    for (int number = 0; number < options.outstanding; ++number) held.begin();
    Figures figures = measureCalls(options, [&](int) {
        return [call = ProgramCall(connection.token(), options.program, options.size)]() mutable {
            call.sync();
        };
    });
    ProgramCall(connection.token(), "RELEASE", options.size).sync();
    for (int number = 0; number < options.outstanding; ++number) held.collect();
    return figures;
}

Figures bulkRow(const Options& options)
{
    constexpr double megabyte = 1e6;
    const double size = options.megabytes * megabyte;
    const Connection connection(options.port);
    const Channel channel(1, static_cast<std::size_t>(size));
    const long before = residentKilobytes();
    Figures figures = measureCalls(
        options, [&](int) { return [&] { channel.callWith(connection.token(), "MODIFY"); }; });
    figures.gigabytesPerSecond = 2 * size * figures.calls / figures.seconds / 1e9;
    figures.peakKilobytesOverBefore = static_cast<double>(peakKilobytes() - before);
    return figures;
}

} // namespace bench
