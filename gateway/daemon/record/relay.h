// Stands between applications and a Gateway, passes every byte both ways, and records it.
//
// Thread: the constructor starts one, on which everything happens; the members may be called from
// any other.
#ifndef GATEWAY_RELAY_H
#define GATEWAY_RELAY_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "standin/log.h"
#include "standin/misbehaviour.h"

namespace record {

struct RelayOptions {
    std::string host; // to listen on
    std::uint16_t port = 0;
    std::string gatewayHost;
    std::string gatewayPort;
    std::string folder; // of the recordings
    standin::LogSink log;
    std::vector<standin::SelectedMisbehaviour> misbehaviours; // on top of what the Gateway does
};

// The folder of the recordings cannot be made, or not be written to.
class BadFolder : public std::system_error {
public:
    using std::system_error::system_error;
};

class Relay {
public:
    // Listens. Throws BadFolder, or std::system_error when the address cannot be had.
    explicit Relay(const RelayOptions& options);
    ~Relay();

    Relay(const Relay&) = delete;
    Relay& operator=(const Relay&) = delete;

    std::uint16_t port() const;

    // Gives everything that a misbehaviour holds, and ends holding. How much it was.
    std::size_t release();

    // Ends every connection and the thread; what has been passed on is in the recordings.
    void stop();

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace record

#endif
