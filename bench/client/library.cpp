#include "library.h"

#include "../common/sockets.h"

#include <cstring>

namespace bench {

namespace {

QPX_ECI_PARMS parmsOf(int callType, const std::string& program)
{
    QPX_ECI_PARMS parms;
    std::memset(&parms, 0, sizeof parms);
    parms.eci_version = ECI_VERSION_6;
    parms.eci_call_type = static_cast<short>(callType);
    std::memset(parms.eci_program_name, ' ', sizeof parms.eci_program_name);
    std::memcpy(parms.eci_program_name, program.data(),
                std::min(program.size(), sizeof parms.eci_program_name));
    return parms;
}

} // namespace

void check(int rc, const char* what)
{
    char name[QPX_RC_STRING_SIZE];
    if (rc != QPX_OK) fail(std::string(what) + ": " + QPX_getRcString(rc, name));
}

Connection::Connection(std::uint16_t port)
{
    char host[] = "127.0.0.1";
    check(QPX_openRemoteGatewayConnection(host, port, &token_, 0), "open");
}

Connection::~Connection()
{
    check(QPX_closeGatewayConnection(&token_), "close");
}

ProgramCall::ProgramCall(QPX_ConnToken_t token, const std::string& program, std::size_t size)
    : token_(token), program_(program), commarea_(size, 'a')
{
}

void ProgramCall::execute(int callType, const char* what)
{
    QPX_ECI_PARMS parms = parmsOf(callType, program_);
    parms.eci_commarea = commarea_.data();
    parms.eci_commarea_length = static_cast<short>(commarea_.size());
    check(QPX_ECI_Execute(token_, &parms), what);
}

void ProgramCall::sync()
{
    execute(ECI_SYNC, "synchronous call");
}

void ProgramCall::begin()
{
    execute(ECI_ASYNC, "asynchronous call");
}

void ProgramCall::collect()
{
    execute(ECI_GET_REPLY_WAIT, "collecting call");
}

Channel::Channel(int containers, std::size_t size)
{
    const std::string data(size, 'd');
    check(ECI_createChannel("BENCH", &channel_), "create channel");
    for (int number = 0; number < containers; ++number)
        check(ECI_createContainer(channel_, ("C" + std::to_string(number)).c_str(), ECI_BIT, 0,
                                  data.data(), data.size()),
              "create container");
}

Channel::~Channel()
{
    check(ECI_deleteChannel(&channel_), "delete channel");
}

void Channel::callWith(QPX_ConnToken_t token, const std::string& program) const
{
    QPX_ECI_PARMS parms = parmsOf(ECI_SYNC, program);
    parms.channel = channel_;
    check(QPX_ECI_Execute_Channel(token, &parms), "call with a channel");
}

void Channel::read(const std::string& container, std::vector<char>* data) const
{
    std::size_t length = 0;
    check(ECI_getContainerData(channel_, container.c_str(), data->data(), data->size(), 0, &length),
          "read container");
}

} // namespace bench
