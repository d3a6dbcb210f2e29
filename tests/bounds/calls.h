// The application of a cell: its connection, its channel, and the calls that wait.
#ifndef BOUNDS_CALLS_H
#define BOUNDS_CALLS_H

#include <atomic>
#include <functional>
#include <memory>
#include <string>

#include "qpxclient_eci.h"
#include "qpxclient_esi.h"

namespace bounds {

struct Application {
    std::string host = "127.0.0.1";
    int port = 0;
    std::atomic<QPX_ConnToken_t> token{nullptr};
    ECI_ChannelToken_t channel = nullptr;
    int qualifier = 0; // of the asynchronous call that is to be collected
};

// The names of two calls that cells make besides those that they are about.
int callProgram(Application& application);
int callWithChannel(Application& application);
int callAsynchronously(Application& application);

// Makes the channel, with so much data.
void makeChannel(Application& application, std::size_t length);

// A call in a thread of its own, which may outlive whoever has started it.
class Running {
public:
    Running() = default;
    explicit Running(const std::function<int()>& call);

    bool hasBegun() const { return state_ != nullptr; }
    bool hasEnded() const { return state_->ended; }
    int result() const { return state_->rc; }

private:
    struct State {
        std::atomic<bool> ended{false};
        std::atomic<int> rc{0};
    };
    std::shared_ptr<State> state_;
};

} // namespace bounds

#endif
