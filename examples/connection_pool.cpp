// connection_pool.cpp - a few connections for many threads, such as where large messages would hold
// up small ones. Each is opened when it is first needed, and anew when it was lost.
//
//     connection_pool [HOST [PORT]]
#include <condition_variable>
#include <cstdlib>
#include <iostream>
#include <mutex>
#include <thread>

#include "qpxclient.hpp"

class Pool {
public:
    Pool(const char* host, int port, int size) : host_(host), port_(port), idle_(size) {}

    // A call on a connection that is free; waits until there is one.
    qpx::Result<std::string> call(const qpx::Call& call, std::string_view data)
    {
        std::unique_lock lock(mutex_);
        returned_.wait(lock, [this] { return !idle_.empty(); });
        auto gateway = std::move(idle_.back());
        idle_.pop_back();
        lock.unlock(); // nobody else waits while this thread opens and calls

        if (!gateway || !*gateway) gateway = qpx::Connection::open(host_, port_);
        auto reply = *gateway ? (*gateway)->call(call, data) : gateway->failure();
        if (!reply && reply.failure().connectionEnded()) gateway.reset();

        lock.lock();
        idle_.push_back(std::move(gateway));
        returned_.notify_one();
        return reply;
    }

private:
    const std::string host_;
    const int port_;
    std::mutex mutex_;
    std::condition_variable returned_;
    std::vector<std::optional<qpx::Result<qpx::Connection>>> idle_; // empty: none yet, or lost
};

int main(int argc, char** argv)
{
    Pool pool(argc > 1 ? argv[1] : "127.0.0.1", argc > 2 ? std::atoi(argv[2]) : 5770, 2);
    std::vector<std::thread> threads;
    std::atomic<int> failed = 0;

    for (int i = 0; i < 6; ++i)
        threads.emplace_back([&] {
            if (auto reply = pool.call(qpx::Call("ECHO"), "Hello, Gateway!"); !reply)
                std::cerr << reply.failure().text() + '\n', ++failed;
        });
    for (auto& each : threads) each.join();
    std::cout << 6 - failed << " of 6 calls" << std::endl;
    if (!std::cout) std::cerr << "cannot write to standard output\n";
    return failed == 0 && std::cout ? 0 : 1;
}
