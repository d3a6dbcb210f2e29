// A connection to the Gateway that is closed when its owner goes.
#ifndef QPX_CONNECTION_H
#define QPX_CONNECTION_H

#include "qpxclient.h"
#include "settings.h"

namespace qpx {

class Connection {
public:
    // Throws a CallFailure if there is no connection.
    explicit Connection(const Settings& settings);

    // Without a close before, gives up what is still in progress.
    ~Connection();

    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    QPX_ConnToken_t token() const { return token_; }

    // Closes in order. Throws a CallFailure.
    void close();

private:
    QPX_ConnToken_t token_ = nullptr;
};

} // namespace qpx

#endif
