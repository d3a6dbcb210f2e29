// The floor: the bytes of a call, sent and received by a loop that knows nothing of them.

#include "../common/measure.h"
#include "../common/sockets.h"
#include "../common/wire.h"
#include "rows.h"

namespace bench {

Figures floorRow(const Options& options)
{
    return measureCalls(options, [&](int) {
        return [socket = connectToGateway(options.port), request = callOfEcho(options.size),
                reply = std::vector<char>(replySize(options.size))]() mutable {
            sendAll(socket, request.data(), request.size());
            receiveAll(socket, reply.data(), reply.size());
        };
    });
}

} // namespace bench
