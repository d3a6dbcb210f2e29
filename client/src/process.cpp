#include "process.h"

#include <arpa/inet.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <system_error>
#include <vector>

#include <nlohmann/json.hpp>

#include "command.h"
#include "report.h"

namespace qpx {

namespace {

namespace fs = std::filesystem;

const char* const kReceiverName = "qpx-recv"; // of each thread that the library starts

struct Socket {
    std::string local, remote;
    unsigned remotePort = 0;
    unsigned state = 0; // as the kernel counts them
    unsigned long unacknowledged = 0;
    unsigned long unread = 0;
    unsigned long retransmissions = 0;
};

constexpr unsigned kEstablished = 1;
constexpr unsigned kCloseWait = 8;
constexpr unsigned kListens = 10;

const char* stateName(unsigned state)
{
    static const char* const kNames[] = {
        "?",          "established", "connecting", "syn received",          "fin wait 1",
        "fin wait 2", "time wait",   "closed",     "closed by the Gateway", "last ack",
        "listening",  "closing"};
    return state < sizeof kNames / sizeof *kNames ? kNames[state] : "?";
}

std::string firstLine(const fs::path& path)
{
    std::ifstream file(path);
    std::string line;
    std::getline(file, line);
    return line;
}

// The letter of the kernel for what a process or a thread does; '?' if it is gone.
char stateOf(const fs::path& path)
{
    const std::string line = firstLine(path / "stat");
    const std::size_t end = line.rfind(") ");
    return end == std::string::npos || end + 2 >= line.size() ? '?' : line[end + 2];
}

std::string doing(char state)
{
    switch (state) {
    case 'R': return "runs";
    case 'S': return "waits";
    case 'D': return "waits for the disk";
    case 'T': return "is stopped";
    case 't': return "is held by a debugger";
    case 'Z': return "has ended";
    default: return "is gone";
    }
}

// "0100007F:1F90" or the same with 32 digits, the words of the address in the machine's order.
std::string addressText(const std::string& text, unsigned& port)
{
    const std::size_t colon = text.find(':');
    if (colon != 8 && colon != 32) return "?";
    port = static_cast<unsigned>(std::strtoul(text.c_str() + colon + 1, nullptr, 16));
    unsigned words[4] = {};
    for (std::size_t i = 0; i < colon / 8; ++i)
        words[i] = static_cast<unsigned>(std::strtoul(text.substr(i * 8, 8).c_str(), nullptr, 16));
    char shown[INET6_ADDRSTRLEN] = "?";
    inet_ntop(colon == 8 ? AF_INET : AF_INET6, words, shown, sizeof shown);
    return (colon == 8 ? std::string(shown) : "[" + std::string(shown) + "]") + ":" +
           std::to_string(port);
}

// The TCP sockets of the network that the process is in, by their inode.
std::map<std::string, Socket> socketsOf(const fs::path& process)
{
    std::map<std::string, Socket> sockets;
    for (const char* const name : {"net/tcp", "net/tcp6"}) {
        std::ifstream file(process / name);
        std::string line;
        std::getline(file, line); // the head
        while (std::getline(file, line)) {
            char local[64] = {};
            char remote[64] = {};
            char inode[32] = {};
            Socket found;
            unsigned port = 0;
            if (std::sscanf(line.c_str(), " %*d: %63s %63s %x %lx:%lx %*x:%*x %lx %*u %*u %31s",
                            local, remote, &found.state, &found.unacknowledged, &found.unread,
                            &found.retransmissions, inode) != 7)
                continue;
            found.local = addressText(local, port);
            found.remote = addressText(remote, found.remotePort);
            sockets[inode] = found;
        }
    }
    return sockets;
}

class Examination {
public:
    Examination(const Settings& settings, int pid)
        : settings_(settings), pid_(pid), path_("/proc/" + std::to_string(pid)), report_(settings)
    {
    }

    ExitCode run();

private:
    void checkRights() const;
    bool examineLibrary();
    void examineReceivers();
    void examineSockets();
    void tellOf(int descriptor, const Socket& socket);

    const Settings& settings_;
    const int pid_;
    const fs::path path_;
    Report report_;
    Json receivers_ = Json::array();
    Json connections_ = Json::array();
};

void Examination::checkRights() const
{
    std::error_code error;
    const std::string process = "process " + std::to_string(pid_);
    if (!fs::exists(path_, error)) throw Failure(kFailed, "there is no " + process);
    const fs::directory_iterator descriptors(path_ / "fd", error);
    std::ifstream maps(path_ / "maps");
    if (error == std::errc::permission_denied || !maps)
        throw Failure(kFailed, process + " may not be looked at: that takes its own user, or root");
    if (error) throw Failure(kFailed, process + ": " + error.message());
}

bool Examination::examineLibrary()
{
    std::ifstream maps(path_ / "maps");
    std::ifstream program(path_ / "exe", std::ios::binary);
    char head[5] = {};
    std::string line;
    std::string library;

    while (library.empty() && std::getline(maps, line)) {
        const std::size_t name = line.rfind("/libqpxclient.so");
        const std::size_t begin = line.find('/');
        if (name != std::string::npos) library = line.substr(begin);
    }
    program.read(head, sizeof head);
    const std::string bits = head[4] == 1 ? "32 bits" : head[4] == 2 ? "64 bits" : "size unknown";
    if (library.empty()) {
        report_.bad("library", "the process does not use libqpxclient.so",
                    "is it another process, or a child of this one?");
        return false;
    }
    report_.good("library", library + ", " + bits);
    if (library.find(" (deleted)") != std::string::npos)
        report_.know("library", "its file has been replaced since the process began",
                     "restart the process to use the new one");
    return true;
}

void Examination::examineReceivers()
{
    std::error_code error;
    int count = 0;
    for (const auto& thread : fs::directory_iterator(path_ / "task", error)) {
        if (firstLine(thread.path() / "comm") != kReceiverName) continue;
        const std::string name = thread.path().filename().string();
        const char state = stateOf(thread.path());
        count += 1;
        receivers_.push_back({{"thread", std::atoi(name.c_str())}, {"state", doing(state)}});
        report_.know("receiver", "thread " + name + " " + doing(state));
    }
    if (count == 0) report_.know("receiver", "there is none, and so no connection of the library");
}

void Examination::tellOf(int descriptor, const Socket& socket)
{
    const std::string about = socket.remotePort == static_cast<unsigned>(settings_.port) ? "gateway"
                                                                                         : "socket";
    std::string what = "descriptor " + std::to_string(descriptor) + ", " + socket.local + " to " +
                       socket.remote + ", " + stateName(socket.state) + ", " +
                       std::to_string(socket.unacknowledged) + " bytes not acknowledged, " +
                       std::to_string(socket.unread) + " not read";
    connections_.push_back({{"descriptor", descriptor},
                            {"local", socket.local},
                            {"remote", socket.remote},
                            {"state", stateName(socket.state)},
                            {"unacknowledged", socket.unacknowledged},
                            {"unread", socket.unread},
                            {"retransmissions", socket.retransmissions}});
    if (socket.retransmissions > 1)
        report_.bad(about,
                    what + ", sent " + std::to_string(socket.retransmissions) + " times more",
                    "the other side is silent: does its host live, is the network up?");
    else if (socket.state == kEstablished)
        report_.good(about, what);
    else
        report_.know(about, what,
                     socket.state == kCloseWait ? "the application has not closed it yet" : "");
}

void Examination::examineSockets()
{
    const std::map<std::string, Socket> sockets = socketsOf(path_);
    std::map<int, Socket> open;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(path_ / "fd", error)) {
        const std::string target = fs::read_symlink(entry.path(), error).string();
        if (target.compare(0, 8, "socket:[") != 0) continue;
        const auto found = sockets.find(target.substr(8, target.size() - 9));
        if (found == sockets.end() || found->second.state == kListens) continue;
        open[std::atoi(entry.path().filename().c_str())] = found->second;
    }
    for (const auto& [descriptor, socket] : open) tellOf(descriptor, socket);
    if (open.empty()) report_.know("socket", "there is no TCP connection");
}

ExitCode Examination::run()
{
    checkRights();
    const char state = stateOf(path_);
    const std::string what = std::to_string(pid_) + ", " + firstLine(path_ / "comm") + ", ";
    if (state == 'T' || state == 't')
        report_.bad("process", what + doing(state),
                    state == 'T' ? "kill -CONT " + std::to_string(pid_) + " lets it go on"
                                 : "the debugger lets it go on");
    else
        report_.good("process", what + doing(state));
    if (examineLibrary()) {
        examineReceivers();
        examineSockets();
    }
    if (settings_.json)
        print({{"process", pid_},
               {"findings", report_.json()},
               {"receivers", receivers_},
               {"connections", connections_}});
    return report_.anyBad() ? kFailed : kDone;
}

} // namespace

ExitCode examineProcess(const Settings& settings, int pid)
{
    return Examination(settings, pid).run();
}

} // namespace qpx
