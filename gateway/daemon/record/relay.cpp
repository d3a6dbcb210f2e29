#include "record/relay.h"

#include <chrono>
#include <exception>
#include <future>
#include <map>
#include <thread>
#include <utility>

#include <asio/io_context.hpp>
#include <asio/ip/tcp.hpp>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>

#include "log/log_text.h"
#include "record/misbehaving.h"
#include "record/passage.h"

namespace record {

using asio::ip::tcp;
using standin::LogLevel;

namespace {

constexpr auto kAcceptRetry = std::chrono::milliseconds(200);

std::unique_ptr<Folder> openFolder(const RelayOptions& options)
{
    try {
        return std::make_unique<Folder>(options.folder, options.log);
    } catch (const std::system_error& error) {
        throw BadFolder(error.code());
    }
}

} // namespace

struct Relay::Impl {
    explicit Impl(const RelayOptions& given)
        : log(given.log), gateway{given.gatewayHost, given.gatewayPort}, folder(openFolder(given)),
          misbehaving(
              given.misbehaviours,
              [this](int connection, const standin::Answer& answer) { give(connection, answer); }),
          acceptor(context), retry(context)
    {
        listen(given);
        log(LogLevel::Info,
            "listening on " + given.host + ":" + std::to_string(acceptor.local_endpoint().port()));
        acceptNext();
        thread = std::thread([this] { run(); });
    }

    void listen(const RelayOptions& given)
    {
        tcp::resolver resolver(context);
        const auto found = resolver.resolve(given.host, std::to_string(given.port),
                                            tcp::resolver::passive);
        const tcp::endpoint endpoint = *found.begin();
        acceptor.open(endpoint.protocol());
        acceptor.set_option(tcp::acceptor::reuse_address(true));
        acceptor.bind(endpoint);
        acceptor.listen();
    }

    void run()
    {
        for (;;) {
            try {
                context.run();
                return;
            } catch (const std::exception& failure) {
                log(LogLevel::Error, "a failure: " + log_text::printable(failure.what()));
            }
        }
    }

    void acceptNext()
    {
        acceptor.async_accept([this](const asio::error_code& error, tcp::socket socket) {
            if (!acceptor.is_open()) return;
            if (error) return acceptLater(error);
            try {
                onAccepted(std::move(socket));
            } catch (const std::exception& failure) {
                log(LogLevel::Error, "a failure: " + log_text::printable(failure.what()));
            }
            acceptNext();
        });
    }

    // Running out of descriptors ends by itself when connections close.
    void acceptLater(const asio::error_code& error)
    {
        log(LogLevel::Error, "cannot accept a connection: " + error.message());
        retry.expires_after(kAcceptRetry);
        retry.async_wait([this](const asio::error_code& stopped) {
            if (!stopped && acceptor.is_open()) acceptNext();
        });
    }

    void onAccepted(tcp::socket socket)
    {
        const int place = ++accepted;
        const auto passage = std::make_shared<Passage>(
            context, std::move(socket), *folder, log,
            [this, place](const std::shared_ptr<Passage>&) { passages.erase(place); });
        passages[place] = passage;
        if (misbehaving.isAny()) passage->endanger(misbehaving, place);
        passage->start(gateway);
    }

    void give(int connection, const standin::Answer& answer)
    {
        const auto found = passages.find(connection);
        if (found == passages.end()) return;
        const std::shared_ptr<Passage> passage = found->second; // it may end by this
        passage->give(answer);
    }

    std::size_t release()
    {
        std::packaged_task<std::size_t()> release([this] { return misbehaving.release(); });
        std::future<std::size_t> released = release.get_future();
        asio::post(context, [&release] { release(); });
        return released.get();
    }

    void stop()
    {
        if (!thread.joinable()) return;
        asio::post(context, [this] {
            asio::error_code ignored;
            acceptor.close(ignored);
            retry.cancel();
            const std::map<int, std::shared_ptr<Passage>> open = passages;
            for (const auto& [place, passage] : open) passage->stop();
        });
        thread.join();
    }

    const standin::LogSink log;
    const Passage::Gateway gateway;
    std::unique_ptr<Folder> folder;
    Misbehaving misbehaving; // outlives the passages
    asio::io_context context{1};
    tcp::acceptor acceptor;
    asio::steady_timer retry;
    std::map<int, std::shared_ptr<Passage>> passages; // by the order in which they were accepted
    int accepted = 0;
    std::thread thread;
};

Relay::Relay(const RelayOptions& options) : impl_(std::make_unique<Impl>(options)) {}

Relay::~Relay()
{
    stop();
}

std::uint16_t Relay::port() const
{
    return impl_->acceptor.local_endpoint().port();
}

std::size_t Relay::release()
{
    return impl_->release();
}

void Relay::stop()
{
    impl_->stop();
}

} // namespace record
