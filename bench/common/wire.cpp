#include "wire.h"

namespace bench {

Bytes callOfEcho(std::size_t commareaSize)
{
    constexpr std::uint32_t programCall = 1;
    constexpr std::uint32_t noExtend = 0;

    Bytes flow;
    flow.header(requestFlow, 0, "ECI",
                requestHeadSize + commareaSize + requestTailSize - callHeaderSize);
    flow.number(programCall).number(noExtend);
    flow.number(0).number(0);            // unit of work, message qualifier
    flow.fill(1, '\0');                  // a callback is there
    flow.number(8).fill(8, '\0');        // server name
    flow.fill(16, '\0');                 // user id
    flow.number(0);                      // length of the password
    flow.text("ECHO", 8, ' ').number(0); // program, transaction id
    flow.number(0);                      // length of the workload token
    flow.number(static_cast<std::uint32_t>(commareaSize));
    flow.fill(2, '\0'); // flags: outbound and inbound length
    flow.fill(commareaSize, 'a');
    flow.fill(1, '\0');                                    // flag: a channel
    flow.fill(2, '\0').fill(1, '\0');                      // time-out, whose the qualifier is
    flow.number(static_cast<std::uint32_t>(-1)).number(1); // XID, correlator
    return flow;
}

} // namespace bench
