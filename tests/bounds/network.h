// A network of the process's own, in which the settings of the kernel may be changed, and a link to
// another host that can be cut.
#ifndef BOUNDS_NETWORK_H
#define BOUNDS_NETWORK_H

#include <string>

namespace bounds {

// Puts this process, which has one thread, into a network of its own with a loopback; false where
// the machine does not let one be made.
bool enterOwnNetwork();

// Writes a setting of the network that this process is in.
void set(const std::string& setting, int value);

// Times of the kernel for connections that say nothing, and for what nobody acknowledges, lowered
// to some seconds.
void lowerTimes();

// A second host, at an address of its own behind a link, with a listening socket.
class FarHost {
public:
    static constexpr const char* address = "10.9.0.2";
    static constexpr int port = 5770;

    FarHost();

    int listener() const { return listener_; }
    void cut() const { onLink("down"); }
    void mend() const { onLink("up"); }

private:
    void awaitLink() const;
    void onLink(const char* what) const;

    int listener_ = -1;
    int network_ = -1;
};

// What the kernel knows of the connection from a local port to another.
constexpr int ESTABLISHED = 1;
constexpr int RETRANSMISSION = 1;
constexpr int KEEPALIVE = 2;

struct Connection {
    int state; // 0: there is none
    int timer;
    int retransmits;
};
Connection connectionOf(int localPort, int remotePort);

} // namespace bounds

#endif
