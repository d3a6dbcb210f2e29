#include "control/web.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <deque>
#include <mutex>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <httplib.h>

namespace control {

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using SteadyTime = std::chrono::steady_clock::time_point;

constexpr std::size_t kMostConnections = 32;
constexpr std::size_t kMostStreams = 8;
constexpr std::size_t kMostRequests = 100; // on one connection
constexpr std::size_t kLongestBody = 64 * 1024;
constexpr std::size_t kLongestRequest = 96 * 1024; // the body included
constexpr std::size_t kLongestPath = 512;
constexpr seconds kIdle(5);        // between two requests
constexpr seconds kForRequest(10); // from its first byte to its last
constexpr seconds kForAnswer(30);
constexpr seconds kForPiece(5); // of a stream
constexpr seconds kForRest(2);  // of a request that is not taken
constexpr std::size_t kLongestRest = 1024 * 1024;
constexpr milliseconds kSlice(100);
constexpr int kMostWaiting = 128; // to be accepted

const char* const kBusy =
    "HTTP/1.1 503 Service Unavailable\r\nContent-Type: application/json\r\nConnection: close\r\n"
    "Content-Length: 87\r\n\r\n"
    "{\"error\":\"too many connections at once\",\"help\":\"close some, or try again in a "
    "moment\"}\n";

// Set while a connection is to be turned away on the thread that has accepted it.
thread_local bool turnAway = false;

// The connection cannot go on behind this answer, since its request has not been read to the end.
thread_local bool mustClose = false;

// As poll(); 0 also as soon as everything is to end.
int waitFor(int socket, short what, SteadyTime until, const std::atomic<bool>& stopping)
{
    while (!stopping) {
        const auto left = std::chrono::duration_cast<milliseconds>(
            until - std::chrono::steady_clock::now());
        if (left.count() < 0) return 0;
        pollfd poll{socket, what, 0};
        const int count = ::poll(&poll, 1, static_cast<int>(std::min(left, kSlice).count()));
        if (count != 0 && (count != -1 || errno != EINTR)) return count;
    }
    return 0;
}

// One connection, with what is left of its client's time and bytes.
class Line final : public httplib::Stream {
public:
    Line(int socket, const std::atomic<bool>& stopping) : socket_(socket), stopping_(stopping) {}

    // Waits for a request; false when none comes.
    bool awaitRequest() const { return isReady(POLLIN, std::chrono::steady_clock::now() + kIdle); }

    void beginRequest()
    {
        readUntil_ = std::chrono::steady_clock::now() + kForRequest;
        writeUntil_ = readUntil_ + kForAnswer;
        left_ = kLongestRequest;
        isStream_ = false;
    }

    // What is written from now on is without end.
    void beginStream() { isStream_ = true; }

    // Ends what is written, and throws away what the client still sends: if that were not read, the
    // system would throw away what has been written to him.
    void drain()
    {
        ::shutdown(socket_, SHUT_WR);
        readUntil_ = std::chrono::steady_clock::now() + kForRest;
        left_ = kLongestRest;
        char rest[16384];
        while (read(rest, sizeof rest) > 0) {}
    }

    bool is_readable() const override { return isReady(POLLIN, readUntil_); }
    bool is_writable() const override { return isReady(POLLOUT, writeLimit()); }

    ssize_t read(char* bytes, std::size_t size) override
    {
        if (left_ == 0 || !isReady(POLLIN, readUntil_)) return -1;
        const ssize_t count = ::recv(socket_, bytes, std::min(size, left_), MSG_DONTWAIT);
        if (count > 0) left_ -= static_cast<std::size_t>(count);
        return count;
    }

    ssize_t write(const char* bytes, std::size_t size) override
    {
        if (!isReady(POLLOUT, writeLimit())) return -1;
        return ::send(socket_, bytes, size, MSG_NOSIGNAL | MSG_DONTWAIT);
    }

    void get_remote_ip_and_port(std::string&, int&) const override {}
    void get_local_ip_and_port(std::string&, int&) const override {}
    socket_t socket() const override { return socket_; }

private:
    bool isReady(short what, SteadyTime until) const
    {
        return waitFor(socket_, what, until, stopping_) > 0;
    }

    SteadyTime writeLimit() const
    {
        return isStream_ ? std::chrono::steady_clock::now() + kForPiece : writeUntil_;
    }

    const int socket_;
    const std::atomic<bool>& stopping_;
    SteadyTime readUntil_;
    SteadyTime writeUntil_;
    std::size_t left_ = 0;
    bool isStream_ = false;
};

thread_local Line* lineOfThread = nullptr;

// A thread for each connection, as many as there may be. One more is turned away at once.
class Threads final : public httplib::TaskQueue {
public:
    Threads()
    {
        for (std::size_t i = 0; i < kMostConnections; ++i)
            threads_.emplace_back([this] { work(); });
    }

    void enqueue(std::function<void()> task) override
    {
        {
            const std::lock_guard<std::mutex> guard(lock_);
            if (free_ > 0) {
                --free_;
                tasks_.push_back(std::move(task));
                wake_.notify_one();
                return;
            }
        }
        turnAway = true;
        task();
        turnAway = false;
    }

    void shutdown() override
    {
        {
            const std::lock_guard<std::mutex> guard(lock_);
            ended_ = true;
        }
        wake_.notify_all();
        for (std::thread& thread : threads_) thread.join();
    }

private:
    void work()
    {
        std::unique_lock<std::mutex> guard(lock_);
        for (;;) {
            wake_.wait(guard, [this] { return ended_ || !tasks_.empty(); });
            if (tasks_.empty()) return;
            const std::function<void()> task = std::move(tasks_.front());
            tasks_.pop_front();
            guard.unlock();
            task();
            guard.lock();
            ++free_;
        }
    }

    std::mutex lock_;
    std::condition_variable wake_;
    std::deque<std::function<void()>> tasks_;
    std::size_t free_ = kMostConnections; // threads that have nothing to do
    bool ended_ = false;
    std::vector<std::thread> threads_;
};

// The system would else let two daemons listen on one port.
void setSocketOptions(int socket)
{
    const int yes = 1;
    ::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
}

const char* const kNothingAllowed = "default-src 'none'; frame-ancestors 'none'";

} // namespace

class WebServer::Server final : public httplib::Server {
public:
    Server(std::string host, std::string token, WebHandler handler)
        : guard_(std::move(host), std::move(token)), handler_(std::move(handler))
    {
        new_task_queue = [] { return new Threads; };
        set_socket_options(setSocketOptions);
        set_payload_max_length(kLongestBody);
        set_default_headers({{"X-Content-Type-Options", "nosniff"},
                             {"Cross-Origin-Resource-Policy", "same-origin"},
                             {"Referrer-Policy", "no-referrer"},
                             {"Cache-Control", "no-store"}});
        set_pre_routing_handler(
            [this](const httplib::Request& request, httplib::Response& response) {
                if (!check(request, response)) return HandlerResponse::Handled;
                if (hasBody(request)) return HandlerResponse::Unhandled;
                answer(request, response);
                return HandlerResponse::Handled;
            });
        Post(".*", [this](const httplib::Request& request, httplib::Response& response) {
            answer(request, response);
        });
        set_error_handler(
            HandlerWithResponse([this](const httplib::Request&, httplib::Response& response) {
                if (!response.body.empty()) return HandlerResponse::Handled;
                mustClose = true;
                response.set_content(handler_.errorBody(problemOf(response.status)),
                                     "application/json");
                return HandlerResponse::Handled;
            }));
        set_post_routing_handler([](const httplib::Request&, httplib::Response& response) {
            if (!response.has_header("Content-Security-Policy"))
                response.set_header("Content-Security-Policy", kNothingAllowed);
        });
        set_exception_handler([this](const httplib::Request&, httplib::Response& response,
                                     const std::exception_ptr& failure) {
            response.status = 500;
            response.set_content(handler_.errorBody(textOf(failure)), "application/json");
        });
    }

    void endConnections() { stopping_ = true; }

    // More than the library has wait to be accepted.
    void lengthenQueue() { ::listen(svr_sock_, kMostWaiting); }

private:
    static std::string textOf(const std::exception_ptr& failure)
    {
        try {
            std::rethrow_exception(failure);
        } catch (const std::exception& known) {
            return std::string("the gateway has failed: ") + known.what();
        } catch (...) {
            return "the gateway has failed";
        }
    }

    static std::string problemOf(int status)
    {
        switch (status) {
        case 413: return "the body is longer than " + std::to_string(kLongestBody) + " bytes";
        case 414: return "the address is too long";
        default: return "this is no request in HTTP/1.1 that can be read";
        }
    }

    bool refuse(httplib::Response& response, int status, const std::string& problem) const
    {
        mustClose = true;
        response.status = status;
        response.set_header("Connection", "close");
        response.set_content(handler_.errorBody(problem), "application/json");
        return false;
    }

    // Everything that can be told before a body is read. Also keeps regular expressions off what is
    // long, and bodies that would grow while they are read.
    bool check(const httplib::Request& request, httplib::Response& response) const
    {
        if (request.path.size() > kLongestPath) return refuse(response, 414, problemOf(414));
        const Credentials credentials{oneOf(request, "Host"), oneOf(request, "Origin"),
                                      handler_.isPublic(request.path)
                                          ? std::string() // somebody has followed a link to it
                                          : oneOf(request, "Sec-Fetch-Site"),
                                      oneOf(request, "Authorization")};
        const std::string refusal = guard_.refusalOfPlace(credentials);
        if (!refusal.empty()) return refuse(response, 403, refusal);
        if (!handler_.isPublic(request.path) && !guard_.isKnown(credentials)) {
            response.set_header("WWW-Authenticate", "Bearer");
            return refuse(response, 401,
                          "the token is missing or wrong; send it as Authorization: Bearer TOKEN");
        }
        const std::string method = request.method == "HEAD" ? "GET" : request.method;
        const WebAnswer objection = handler_.precheck(method, request.path);
        if (objection.status != 0) {
            if (!objection.allow.empty()) response.set_header("Allow", objection.allow);
            mustClose = true;
            response.set_header("Connection", "close");
            response.status = objection.status;
            response.set_content(objection.body, objection.type);
            return false;
        }
        return checkBody(request, response);
    }

    bool checkBody(const httplib::Request& request, httplib::Response& response) const
    {
        if (request.has_header("Transfer-Encoding"))
            return refuse(response, 411, "a body needs a Content-Length, and comes as it is");
        if (request.has_header("Content-Encoding"))
            return refuse(response, 415, "a body is not to be compressed");
        if (request.has_header("Range"))
            return refuse(response, 416, "no parts of an answer can be had; leave Range out");
        if (request.get_header_value_count("Content-Length") > 1)
            return refuse(response, 400, "there is more than one Content-Length");
        if (!hasBody(request)) return true;
        const std::string length = oneOf(request, "Content-Length");
        if (length.find_first_not_of("0123456789") != std::string::npos)
            return refuse(response, 400, "the Content-Length is no number");
        if (length.size() > 9 || std::stoul(length) > kLongestBody)
            return refuse(response, 413, problemOf(413));
        if (request.method != "POST")
            return refuse(response, 400, request.method + " takes no body");
        const std::string type = oneOf(request, "Content-Type");
        if (type.compare(0, 16, "application/json") != 0)
            return refuse(response, 415, "a body has to be Content-Type: application/json");
        return true;
    }

    static bool hasBody(const httplib::Request& request)
    {
        const std::string length = oneOf(request, "Content-Length");
        return !length.empty() && length != "0";
    }

    // A header that is there twice is no header.
    static std::string oneOf(const httplib::Request& request, const char* name)
    {
        const std::size_t count = request.get_header_value_count(name);
        return count == 1 ? request.get_header_value(name) : count == 0 ? "" : "given twice";
    }

    void answer(const httplib::Request& request, httplib::Response& response)
    {
        WebRequest given{request.method == "HEAD" ? "GET" : request.method, request.path, {}, {}};
        given.query.assign(request.params.begin(), request.params.end());
        given.body = request.body;
        WebAnswer answer = handler_.handle(given);
        response.status = answer.status;
        if (!answer.policy.empty()) response.set_header("Content-Security-Policy", answer.policy);
        if (!answer.stream) return response.set_content(answer.body, answer.type);
        if (request.method == "HEAD") return response.set_content("", answer.type);
        if (streams_.fetch_add(1) >= kMostStreams) {
            --streams_;
            refuse(response, 503,
                   std::to_string(kMostStreams) + " watch already; close one of their pages");
            return;
        }
        mustClose = true;
        response.set_chunked_content_provider(
            answer.type,
            [stream = std::move(answer.stream)](std::size_t, httplib::DataSink& sink) {
                if (lineOfThread != nullptr) lineOfThread->beginStream();
                stream([&sink](const std::string& piece) {
                    return sink.write(piece.data(), piece.size());
                });
                sink.done();
                return true;
            },
            [this](bool) { --streams_; });
    }

    bool process_and_close_socket(socket_t socket) override
    {
        if (turnAway) {
            const std::string busy = kBusy;
            ::send(socket, busy.data(), busy.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
            char request[4096];
            ::shutdown(socket, SHUT_WR);
            while (::recv(socket, request, sizeof request, MSG_DONTWAIT) > 0) {}
            ::close(socket);
            return false;
        }
        const int yes = 1;
        ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
        Line line(socket, stopping_);
        lineOfThread = &line;
        const bool good = answerRequests(line);
        lineOfThread = nullptr;
        if (mustClose) line.drain();
        endSocket(socket);
        return good;
    }

    // What fails behind the beginning of an answer, as a stream may, ends the connection only: the
    // library catches nothing there.
    bool answerRequests(Line& line)
    {
        bool good = true;
        try {
            for (std::size_t count = 1; good && count <= kMostRequests; ++count) {
                if (!line.awaitRequest()) break;
                line.beginRequest();
                mustClose = false;
                bool closed = false;
                good = process_request(line, count == kMostRequests, closed,
                                       [](httplib::Request&) {}) &&
                       !closed && !mustClose;
            }
        } catch (const std::exception&) {
            mustClose = false;
            good = false;
        }
        return good;
    }

    static void endSocket(int socket)
    {
        ::shutdown(socket, SHUT_RDWR);
        ::close(socket);
    }

    const Guard guard_;
    const WebHandler handler_;
    std::atomic<std::size_t> streams_{0};
    std::atomic<bool> stopping_{false};
};

WebServer::WebServer(const std::string& host, std::uint16_t port, std::string token,
                     WebHandler handler)
    : server_(std::make_unique<Server>(host, std::move(token), std::move(handler)))
{
    const std::string name = host == "localhost" ? "127.0.0.1" : host;
    errno = 0;
    const int bound = port == 0 ? server_->bind_to_any_port(name)
                                : (server_->bind_to_port(name, port) ? port : -1);
    if (bound <= 0) {
        throw std::runtime_error(errno == 0 ? "there is no such address on this machine"
                                            : std::generic_category().message(errno));
    }
    port_ = static_cast<std::uint16_t>(bound);
    server_->lengthenQueue();
}

WebServer::~WebServer()
{
    stop();
}

void WebServer::start()
{
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    thread_ = std::thread([this] { server_->listen_after_bind(); });
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    while (!server_->is_running()) std::this_thread::yield();
}

void WebServer::stop()
{
    if (!thread_.joinable()) return;
    server_->endConnections();
    server_->stop();
    thread_.join();
}

} // namespace control
