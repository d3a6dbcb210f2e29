// Things that are to be done later on the Gateway's thread.
//
// Thread: the Gateway's thread only.
#ifndef STANDIN_TIMERS_H
#define STANDIN_TIMERS_H

#include <chrono>
#include <functional>
#include <list>

#include <asio/io_context.hpp>
#include <asio/steady_timer.hpp>

namespace standin {

class Timers {
public:
    // The context must outlive this.
    explicit Timers(asio::io_context& context) : context_(context) {}

    void after(std::chrono::microseconds delay, std::function<void()> task);

    // Drops all that has not been done; nothing more is taken.
    void end();

private:
    asio::io_context& context_;
    std::list<asio::steady_timer> waiting_;
    bool ended_ = false;
};

} // namespace standin

#endif
