// cplusplus_channel.cpp - a channel in C++: containers go out, the server adds others, and whatever
// the channel holds is freed with it.
//
//     cplusplus_channel [HOST [PORT]]
#include <cstdlib>
#include <iostream>
#include <string>

#include "qpxclient.hpp"

// A line of an order of the server program ORDERS: numbers of 4 bytes, big-endian; see
// docs/gateway.md.
static std::string line(unsigned article, unsigned quantity)
{
    std::string record;
    for (unsigned number : {article, quantity, 0U})
        for (int shift = 24; shift >= 0; shift -= 8)
            record += static_cast<char>(number >> shift & 0xFF);
    return record;
}

static int run(const char* host, int port)
{
    auto gateway = qpx::Connection::open(host, port).value();
    auto order = qpx::Channel::create("ORDER").value();

    order.addText("ORDER.HEADER", "order=4711\naccount=ACC00001\ndate=2026-03-02\ncurrency=EUR\n")
        .value();
    order.addBytes("ORDER.LINES", line(100105, 2) + line(100210, 4)).value();
    gateway.call(qpx::Call("ORDERS"), order).value();

    // What the program says of the order is in containers; the call has succeeded either way.
    if (auto error = order.data("ERROR")) {
        std::cerr << *error << '\n';
        return 1;
    }
    for (const auto& each : order.containers().value())
        std::cout << each.name << (each.isText ? ", text, " : ", bytes, ") << each.size << '\n';
    std::cout << order.data("INVOICE").value() << std::flush;
    if (!std::cout) throw std::runtime_error("cannot write to standard output");
    return 0;
}

int main(int argc, char** argv)
{
    try {
        return run(argc > 1 ? argv[1] : "127.0.0.1", argc > 2 ? std::atoi(argv[2]) : 5770);
    } catch (const std::exception& error) {
        std::cerr << error.what() << '\n';
        return 1;
    }
}
