// The library as the rows use it: connections, calls and channels. What fails ends the program.
#pragma once

#include "../common/options.h"

#include "qpxclient_eci.h"

#include <cstdint>
#include <string>
#include <vector>

namespace bench {

// Ends the program unless the code is 0.
void check(int rc, const char* what);

class Connection {
public:
    explicit Connection(std::uint16_t port);
    ~Connection();
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    QPX_ConnToken_t token() const { return token_; }

private:
    QPX_ConnToken_t token_ = nullptr;
};

// A program call with a COMMAREA of its own.
class ProgramCall {
public:
    ProgramCall(QPX_ConnToken_t token, const std::string& program, std::size_t size);

    void sync();
    void begin();   // ECI_ASYNC
    void collect(); // the oldest reply, waits for it

private:
    void execute(int callType, const char* what);

    QPX_ConnToken_t token_;
    std::string program_;
    std::vector<char> commarea_;
};

// A channel with so many containers of a size, named C0, C1 and so on.
class Channel {
public:
    Channel(int containers, std::size_t size);
    ~Channel();
    Channel(const Channel&) = delete;
    Channel& operator=(const Channel&) = delete;

    void callWith(QPX_ConnToken_t token, const std::string& program) const;
    void read(const std::string& container, std::vector<char>* data) const;

private:
    ECI_ChannelToken_t channel_ = nullptr;
};

} // namespace bench
