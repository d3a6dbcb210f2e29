#include "load/shared.h"

#include <vector>

#include "qpxclient.h"
#include "qpxclient_eci.h"
#include "support/expect_rc.h"

namespace load {

using support::rcName;

void Shared::closeAll(int thread)
{
    long begun = connections.beginCloseAll();
    {
        Doing doing(watch, thread, "QPX_closeAllGatewayConnections", 0);
        int rc = QPX_closeAllGatewayConnections();
        if (rc != QPX_OK) watch.problem(thread, "returned " + rcName(rc));
    }
    did(Did::CloseAll);
    for (ConnectionPtr& connection : connections.endCloseAll(begun))
        deleteChannels(thread, *connection);
}

// Of a connection that is gone: nobody holds them any more.
void Shared::deleteChannels(int thread, Connection& connection)
{
    std::vector<ECI_ChannelToken_t> channels{connection.shared};
    for (auto& call : connection.pending)
        if (call.second.channel != nullptr) channels.push_back(call.second.channel);
    for (ECI_ChannelToken_t& channel : channels) deleteChannel(thread, connection.number, channel);
}

void Shared::deleteChannel(int thread, int connection, ECI_ChannelToken_t& channel)
{
    Doing doing(watch, thread, "ECI_deleteChannel", connection);
    int rc = ECI_deleteChannel(&channel);
    if (rc != ECI_NO_ERROR) watch.problem(thread, "returned " + rcName(rc));
}

} // namespace load
