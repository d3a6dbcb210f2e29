#include "bounds/network.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <thread>

namespace bounds {

namespace {

bool writeFile(const std::string& name, const std::string& text)
{
    std::ofstream file(name);
    file << text;
    file.close();
    return !file.fail();
}

void bringLoopbackUp()
{
    int descriptor = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request = {};
    request.ifr_name[0] = 'l';
    request.ifr_name[1] = 'o';
    request.ifr_flags = IFF_UP | IFF_RUNNING;
    if (ioctl(descriptor, SIOCSIFFLAGS, &request) != 0) throw std::runtime_error("no loopback");
    close(descriptor);
}

void command(const std::string& line)
{
    if (std::system(line.c_str()) != 0) throw std::runtime_error(line);
}

sockaddr_in addressOfListener()
{
    sockaddr_in listener = {};
    listener.sin_family = AF_INET;
    listener.sin_port = htons(FarHost::port);
    inet_pton(AF_INET, FarHost::address, &listener.sin_addr);
    return listener;
}

// In a thread of its own, which is where a network is entered for good.
template <class Work>
void inThread(Work work)
{
    std::thread(work).join();
}

} // namespace

bool enterOwnNetwork()
{
    std::string user = "0 " + std::to_string(geteuid()) + " 1";
    if (unshare(CLONE_NEWNET | CLONE_NEWNS) != 0) {
        if (unshare(CLONE_NEWUSER | CLONE_NEWNET | CLONE_NEWNS) != 0) return false;
        if (!writeFile("/proc/self/uid_map", user)) return false;
    }
    bringLoopbackUp();
    return true;
}

void set(const std::string& setting, int value)
{
    if (!writeFile("/proc/sys/net/ipv4/" + setting, std::to_string(value) + "\n"))
        throw std::runtime_error("cannot set " + setting);
}

void lowerTimes()
{
    set("tcp_keepalive_time", 2);
    set("tcp_keepalive_intvl", 1);
    set("tcp_keepalive_probes", 2);
    set("tcp_retries2", 3);
    set("tcp_syn_retries", 1);
}

FarHost::FarHost()
{
    inThread([this] {
        if (unshare(CLONE_NEWNET) != 0) std::abort();
        network_ = open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC);
        bringLoopbackUp();
        command("ip link add name far type veth peer name near netns " + std::to_string(getpid()));
        command("ip addr add 10.9.0.2/24 dev far && ip link set far up");
        listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in here = addressOfListener();
        if (bind(listener_, reinterpret_cast<sockaddr*>(&here), sizeof here) != 0 ||
            listen(listener_, 16) != 0)
            std::abort();
    });
    command("ip addr add 10.9.0.1/24 dev near && ip link set near up");
    awaitLink();
}

// A link that is up carries nothing for a moment.
void FarHost::awaitLink() const
{
    int probe = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in there = addressOfListener();
    if (connect(probe, reinterpret_cast<sockaddr*>(&there), sizeof there) != 0)
        throw std::runtime_error("the link carries nothing");
    close(accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC));
    close(probe);
}

void FarHost::onLink(const char* what) const
{
    inThread([this, what] {
        if (setns(network_, CLONE_NEWNET) != 0) std::abort();
        command(std::string("ip link set far ") + what);
    });
}

// The lines of a table of the kernel have numbers in hexadecimal:
//   sl local:port remote:port state sent:arrived timer:when retransmits ...
Connection connectionOf(int localPort, int remotePort)
{
    std::ifstream lines("/proc/thread-self/net/tcp");
    std::string line;
    while (std::getline(lines, line)) {
        unsigned local, remote, state, timer, retransmits;
        if (std::sscanf(line.c_str(), "%*s %*[^:]:%x %*[^:]:%x %x %*x:%*x %x:%*x %x", &local,
                        &remote, &state, &timer, &retransmits) != 5)
            continue;
        if (static_cast<int>(local) != localPort || static_cast<int>(remote) != remotePort)
            continue;
        return {static_cast<int>(state), static_cast<int>(timer), static_cast<int>(retransmits)};
    }
    return {0, 0, 0};
}

} // namespace bounds
