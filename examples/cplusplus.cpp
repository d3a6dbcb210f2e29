// cplusplus.cpp - the library in C++: a call, a unit of work that backs itself out, and futures.
//
//     cplusplus [HOST [PORT]]
#include <cstdlib>
#include <future>
#include <iostream>
#include <string>
#include <vector>

#include "qpxclient.hpp"

// An entry of the server program LEDGER; see docs/gateway.md.
static std::string entry(char function, const std::string& account, int cents)
{
    std::string amount = std::to_string(cents);
    std::string area = function + std::string("  ") + account;
    area += std::string(12 - amount.size(), '0') + amount;
    area.resize(80, ' ');
    return area;
}

// Whatever ends this before the commit, an exception or a refusal, undoes what was posted.
static bool transfer(qpx::Connection& gateway, int cents)
{
    const qpx::Call ledger("LEDGER");
    qpx::UnitOfWork unit(gateway);

    for (const std::string& each : {entry('D', "ACC00001", cents), entry('C', "ACC00002", cents)})
        if (unit.call(ledger, each).value().substr(1, 2) != "00") return false;
    unit.commit().value();
    return true;
}

static void run(const char* host, int port)
{
    using namespace std::chrono_literals;
    auto gateway = qpx::Connection::open(host, port, 10s).value();
    const auto echo = qpx::Call("ECHO").within(30s);

    // A result is looked at, or its value() throws: as the program likes, call by call.
    if (auto reply = gateway.call(echo, "Hello, Gateway!")) std::cout << *reply << '\n';
    std::cout << (transfer(gateway, 250) ? "posted" : "refused") << '\n';

    auto collector = qpx::Collector::over(gateway).value();
    std::vector<std::future<qpx::Result<std::string>>> replies;
    for (const char* each : {"one", "two", "three"}) replies.push_back(collector.call(echo, each));
    for (auto& each : replies) std::cout << each.get().value() << std::endl;
}

int main(int argc, char** argv)
{
    try {
        run(argc > 1 ? argv[1] : "127.0.0.1", argc > 2 ? std::atoi(argv[2]) : 5770);
        if (!std::cout) throw std::runtime_error("cannot write to standard output");
    } catch (const std::exception& error) {
        std::cerr << error.what() << '\n';
        return 1;
    }
}
