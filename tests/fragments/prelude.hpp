// What the documents take for known of C++: a block that is no whole program is compiled as the
// body of a function that sees this.
#include <chrono>
#include <iostream>
#include <string>

#include "qpxclient.hpp"

#ifndef GATEWAY
#define GATEWAY "gateway.example", 5770
#endif

using namespace std::chrono_literals;

static std::string user = "FRED", password = "Blue7sky";
static std::string request = "request", debit = "debit", credit = "credit";
static qpx::Call ledger("LEDGER"), quote("QUOTE");
static qpx::Connection gateway = qpx::Connection::open(GATEWAY).value();

template <typename... Replies>
static void use(const Replies&... replies)
{
    ((std::cout << replies << '\n'), ...);
}
