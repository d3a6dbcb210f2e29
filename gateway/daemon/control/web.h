// HTTP over cpp-httplib, within limits that no client can pass: of the size of a request, of its
// time and of the time that its answer takes, of connections at once, and of streams at once. A
// client that is beyond them is told so, if it can be, and cut off.
//
// Thread: any. Handlers run on threads of this module, several at once.
#ifndef CONTROL_WEB_H
#define CONTROL_WEB_H

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "control/guard.h"

namespace control {

struct WebRequest {
    std::string method;
    std::string path;
    std::vector<std::pair<std::string, std::string>> query;
    std::string body;
};

// Writes a piece of a stream; false when the client has gone, or takes nothing any more.
using WritePiece = std::function<bool(const std::string& piece)>;

struct WebAnswer {
    int status = 200;
    std::string type = "application/json";
    std::string body;
    std::string allow;  // of a 405
    std::string policy; // what a page may do; empty: nothing
    std::function<void(const WritePiece& write)>
        stream; // in place of a body; runs until it is over
};

// What a handler is asked before a body is read: what it would answer to such a request, if that
// can be told already.
struct WebHandler {
    // Nothing to object to: a status of 0.
    std::function<WebAnswer(const std::string& method, const std::string& path)> precheck;
    std::function<WebAnswer(const WebRequest& request)> handle;

    // Whether it may be had without the token, since there is nothing in it.
    std::function<bool(const std::string& path)> isPublic;

    // The answer to what never reaches the handler.
    std::function<std::string(const std::string& problem)> errorBody;
};

class WebServer {
public:
    // Listens at once. Throws std::runtime_error when the address cannot be had.
    WebServer(const std::string& host, std::uint16_t port, std::string token, WebHandler handler);

    // As stop().
    ~WebServer();

    WebServer(const WebServer&) = delete;
    WebServer& operator=(const WebServer&) = delete;

    std::uint16_t port() const { return port_; }

    void start();

    // Ends every connection and every thread. Streams have to end by themselves.
    void stop();

private:
    class Server;
    std::unique_ptr<Server> server_;
    std::uint16_t port_ = 0;
    std::thread thread_;
};

} // namespace control

#endif
