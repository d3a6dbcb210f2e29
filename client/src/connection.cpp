#include "connection.h"

#include "failure.h"

namespace qpx {

Connection::Connection(const Settings& settings)
{
    Settings own = settings; // the library takes texts that are not constant
    const int rc = QPX_openRemoteGatewayConnectionApplid(
        own.host.data(), own.port, &token_, own.timeout, own.applid.data(), own.qualifier.data());
    if (rc != QPX_OK) throw CallFailure(Phase::Open, "open " + settings.place(), rc);
}

Connection::~Connection()
{
    if (token_ != nullptr) QPX_purgeGatewayConnection(&token_, 0);
}

void Connection::close()
{
    const int rc = QPX_closeGatewayConnection(&token_);
    token_ = nullptr;
    if (rc != QPX_OK) throw CallFailure(Phase::Close, "close", rc);
}

} // namespace qpx
