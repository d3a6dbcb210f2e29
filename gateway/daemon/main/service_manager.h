// The service manager that has started the daemon, if one has: it wants to know when the daemon
// serves, so that nobody calls it before.
#ifndef QPXGATEWAYD_MAIN_SERVICE_MANAGER_H
#define QPXGATEWAYD_MAIN_SERVICE_MANAGER_H

#include <string>

namespace daemon_options {

class ServiceManager {
public:
    // Takes its address from the environment variable NOTIFY_SOCKET, and that away from the
    // programs that the daemon starts. No other thread runs yet.
    ServiceManager();

    // False: there is one that cannot be told.
    bool tellReady() const;

private:
    std::string address_;
};

} // namespace daemon_options

#endif
