// qpx doctor - why a connection to a Gateway works as it does, or not at all: names, addresses, the
// library, the limits of the process and what the kernel makes of a dead host.

#include <arpa/inet.h>
#include <dlfcn.h>
#include <netdb.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>

#include <nlohmann/json.hpp>

#include "calling.h"
#include "command.h"
#include "connection.h"
#include "process.h"
#include "report.h"

namespace qpx {

namespace {

const char* const kFooter = R"(
The exit code is 0 if nothing is wrong, and 3 if the library reaches no Gateway
there; else it is 1.

With --pid it examines a running process that uses the library, without stopping
it: the connections, what is on its way on them, and the threads that receive.
It reads /proc, as the process's user or as root.

Examples:
  qpx doctor gateway.example
  qpx doctor gateway.example --port 5770 --json
  qpx doctor --pid 4711)";

using Clock = std::chrono::steady_clock;

struct DoctorOptions {
    std::string host;
    std::optional<std::string> pid;
};

std::string milliseconds(Clock::duration time)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.3f ms",
                  std::chrono::duration<double, std::milli>(time).count());
    return text;
}

// ---- Addresses ----------------------------------------------------------------------------------

struct Address {
    sockaddr_storage where = {};
    socklen_t size = 0;
    std::string text;
    bool isIpv6 = false;
};

std::vector<Address> addressesOf(const Settings& settings, Report& report)
{
    addrinfo hints = {};
    addrinfo* list = nullptr;
    std::vector<Address> addresses;

    hints.ai_flags = AI_ADDRCONFIG | AI_ALL; // as the library asks
    hints.ai_socktype = SOCK_STREAM;
    const auto begin = Clock::now();
    const int rc = getaddrinfo(settings.host.c_str(), std::to_string(settings.port).c_str(), &hints,
                               &list);
    const Clock::duration took = Clock::now() - begin;
    if (rc != 0) {
        report.bad("name", settings.host + ": " + gai_strerror(rc),
                   "try it with: getent ahosts " + settings.host);
        return addresses;
    }
    for (const addrinfo* at = list; at != nullptr; at = at->ai_next) {
        char text[INET6_ADDRSTRLEN] = "";
        Address address;
        std::memcpy(&address.where, at->ai_addr, at->ai_addrlen);
        address.size = at->ai_addrlen;
        address.isIpv6 = at->ai_family == AF_INET6;
        getnameinfo(at->ai_addr, at->ai_addrlen, text, sizeof text, nullptr, 0, NI_NUMERICHOST);
        address.text = text;
        addresses.push_back(address);
    }
    freeaddrinfo(list);
    report.good("name", settings.host + " has " + std::to_string(addresses.size()) +
                            (addresses.size() == 1 ? " address" : " addresses") + ", found in " +
                            milliseconds(took));
    return addresses;
}

// Whether the other side is this one: nobody listens, and the system has given out that very port.
bool isConnectedToItself(int descriptor, const Address& address)
{
    sockaddr_storage own = {};
    socklen_t size = sizeof own;
    return getsockname(descriptor, reinterpret_cast<sockaddr*>(&own), &size) == 0 &&
           size == address.size && std::memcmp(&own, &address.where, size) == 0;
}

// 0, or the errno for which there is no connection in the time.
int connectTo(const Address& address, int seconds)
{
    const int descriptor = socket(address.where.ss_family,
                                  SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (descriptor < 0) return errno;
    int error = 0;
    if (connect(descriptor, reinterpret_cast<const sockaddr*>(&address.where), address.size) != 0) {
        error = errno;
        if (error == EINPROGRESS) {
            pollfd wait = {descriptor, POLLOUT, 0};
            socklen_t size = sizeof error;
            const int ready = poll(&wait, 1, seconds == 0 ? -1 : seconds * 1000);
            if (ready == 0)
                error = ETIMEDOUT;
            else if (ready < 0 || getsockopt(descriptor, SOL_SOCKET, SO_ERROR, &error, &size) != 0)
                error = errno;
        }
    }
    if (error == 0 && isConnectedToItself(descriptor, address)) {
        const linger atOnce = {1, 0}; // the port is the Gateway's that is to come
        setsockopt(descriptor, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
        error = ECONNREFUSED;
    }
    close(descriptor);
    return error;
}

// A connection by the library to this very address; false if there is no Gateway.
bool greet(const Settings& settings, const Address& address, bool first, bool only, Report& report)
{
    const std::string about = address.isIpv6 ? "IPv6" : "IPv4";
    Settings own = settings;
    own.host = address.text;
    const auto begin = Clock::now();
    const int error = connectTo(address, settings.timeout);
    const Clock::duration connected = Clock::now() - begin;
    const std::string which = address.text + (first ? " (the first, which the library takes)" : "");

    if (error != 0) {
        const std::string what = which + ": " + std::strerror(error);
        if (first)
            report.bad(
                about, what,
                only ? "does the Gateway run, is the port right, does a firewall stand between?"
                     : "only the first address is tried: name another one that works");
        else
            report.know(about, what);
        return false;
    }
    try {
        const auto opened = Clock::now();
        Connection gateway(own);
        report.good(about, which + ": TCP in " + milliseconds(connected) +
                               ", connected with handshake in " +
                               milliseconds(Clock::now() - opened));
        return true;
    } catch (const CallFailure& failure) {
        if (first)
            report.bad(about, which + ": " + nameAndNumber(failure.rc()),
                       std::string("qpx codes ") + std::to_string(failure.rc()));
        else
            report.know(about, which + ": " + nameAndNumber(failure.rc()));
        return false;
    }
}

// ---- The Gateway --------------------------------------------------------------------------------

void examineGateway(const Settings& settings, Report& report)
{
    QPX_listSystem_t list[64];
    unsigned short count = 64;

    report.know("applid", settings.applid.empty()
                              ? "none"
                              : settings.applid + ", from " + settings.applidOrigin);
    try {
        Connection gateway(settings);
        const auto begin = Clock::now();
        const int rc = QPX_listSystems(gateway.token(), &count, list);
        const std::string took = milliseconds(Clock::now() - begin);
        if (rc == QPX_OK || rc == QPX_ERR_MORE_SYSTEMS)
            report.good("systems", std::to_string(count) + (rc == QPX_OK ? "" : " and more") +
                                       ", answered in " + took);
        else if (rc == QPX_ERR_NO_SYSTEMS)
            report.know("systems", "none, answered in " + took, "ask whoever runs the Gateway");
        else
            report.bad("systems", nameAndNumber(rc), "qpx codes " + std::to_string(rc));
    } catch (const CallFailure& failure) {
        report.bad("gateway", nameAndNumber(failure.rc()),
                   "qpx codes " + std::to_string(failure.rc()));
    }
}

// ---- The library --------------------------------------------------------------------------------

void examineLibrary(Report& report)
{
    namespace fs = std::filesystem;
    char* version = nullptr;
    Dl_info info = {};

    QPX_getDLLVersion(&version);
    dladdr(dlsym(RTLD_DEFAULT, "QPX_getDLLVersion"), &info);
    std::error_code ignored;
    const fs::path found = fs::canonical(info.dli_fname == nullptr ? "" : info.dli_fname, ignored);
    report.good("library", found.string() + ", version " + version + ", " +
                               std::to_string(8 * sizeof(void*)) + " bits");

    const char* const path = std::getenv("LD_LIBRARY_PATH");
    std::istringstream folders(path == nullptr ? "" : path);
    std::string folder;
    while (std::getline(folders, folder, ':')) {
        for (const char* const name : {"libqpxclient.so.10", "libqpxclient.so"}) {
            const fs::path other = fs::canonical(fs::path(folder) / name, ignored);
            if (ignored || other == found) continue;
            report.know("library", "another one in LD_LIBRARY_PATH: " + other.string(),
                        "programs of its word size take it in the place of the installed one");
            break;
        }
    }
}

// ---- The process and the kernel -----------------------------------------------------------------

std::string limitText(rlim_t limit)
{
    return limit == RLIM_INFINITY ? "no limit" : std::to_string(limit);
}

void examineLimits(Report& report)
{
    rlimit files = {};
    rlimit stack = {};
    getrlimit(RLIMIT_NOFILE, &files);
    getrlimit(RLIMIT_STACK, &stack);
    const rlim_t size = stack.rlim_cur == RLIM_INFINITY ? 8U << 20U : stack.rlim_cur;
    rlim_t fit = files.rlim_cur > 8 ? files.rlim_cur - 8 : 0;
    if (sizeof(void*) == 4)
        fit = std::min<rlim_t>(fit, (4000ULL << 20U) / std::max<rlim_t>(size, 1));
    report.know("limits",
                limitText(files.rlim_cur) + " descriptors, stacks of " +
                    std::to_string(size >> 10U) + " KiB: about " + std::to_string(fit) +
                    " connections fit",
                fit < 1000 ? "ulimit -n raises the one, ulimit -s lowers the other" : "");
}

// A setting of the kernel; -1 if it cannot be read.
long kernelSetting(const char* name)
{
    std::ifstream file(std::string("/proc/sys/net/ipv4/") + name);
    long value = -1;
    file >> value;
    return file ? value : -1;
}

// How long the retransmissions of TCP go on: each wait twice the one before, up to two minutes.
long secondsOfRetries(long retries)
{
    double wait = 0.2;
    double sum = 0;
    for (long i = 0; i <= retries; ++i) {
        sum += wait;
        wait = std::min(wait * 2, 120.0);
    }
    return static_cast<long>(sum);
}

void examineKernel(Report& report)
{
    const long time = kernelSetting("tcp_keepalive_time");
    const long interval = kernelSetting("tcp_keepalive_intvl");
    const long probes = kernelSetting("tcp_keepalive_probes");
    const long retries = kernelSetting("tcp_retries2");

    if (time < 0 || interval < 0 || probes < 0 || retries < 0) {
        report.know("dead host", "the kernel's settings cannot be read");
        return;
    }
    const long idle = time + interval * probes;
    report.know("dead host", "noticed after " + std::to_string(idle) + " s on a silent connection",
                idle > 600 ? "lower net.ipv4.tcp_keepalive_time, _intvl and _probes" : "");
    report.know("dead host",
                "noticed after about " + std::to_string(secondsOfRetries(retries)) +
                    " s with data on its way",
                retries > 8 ? "lower net.ipv4.tcp_retries2" : "");
}

void examineTrace(Report& report)
{
    const char* const level = std::getenv("QPX_CLIENT_TRACE_LEVEL");
    const char* const file = std::getenv("QPX_CLIENT_TRACE_FILE");

    report.know("trace", std::string("level ") + (level == nullptr ? "0" : level) + ", to " +
                             (file == nullptr || *file == '\0' ? "standard error" : file));
    if (file == nullptr || *file == '\0') return;
    const std::string folder = std::filesystem::path(file).parent_path().string();
    const bool there = access(file, F_OK) == 0;
    if (there ? access(file, W_OK) != 0 : access(folder.empty() ? "." : folder.c_str(), W_OK) != 0)
        report.bad("trace", std::string(file) + ": " + std::strerror(errno),
                   "name a file in QPX_CLIENT_TRACE_FILE that this user may write");
}

ExitCode runDoctor(const Settings& given, const DoctorOptions& options)
{
    if (options.pid) {
        if (!options.host.empty()) throw Failure(kUsage, "either a host or --pid");
        return examineProcess(given, numberFrom(*options.pid, 1, 1 << 22, "--pid"));
    }
    Settings settings = given;
    if (!options.host.empty()) settings.host = options.host;
    Report report(settings);
    bool reached = false;

    const std::vector<Address> addresses = addressesOf(settings, report);
    for (std::size_t i = 0; i < addresses.size(); ++i) {
        const bool good = greet(settings, addresses[i], i == 0, addresses.size() == 1, report);
        if (i == 0) reached = good;
    }
    if (reached) examineGateway(settings, report);
    examineLibrary(report);
    examineLimits(report);
    examineKernel(report);
    examineTrace(report);
    if (settings.json) print({{"reached", reached}, {"findings", report.json()}});
    if (!reached) return kNoConnection;
    return report.anyBad() ? kFailed : kDone;
}

} // namespace

void declareDoctor(CLI::App& app, Command& chosen)
{
    CLI::App* command = nullptr;
    auto options = addCommand(app, command, "doctor",
                              "Examines the way to a Gateway, and what stands in it", chosen,
                              runDoctor);
    command->footer(kFooter);
    command->add_option("host", options->host, "The host, if not that of the settings")
        ->option_text("[HOST]");
    command->add_option("--pid", options->pid, "Examine this process")->option_text("NUMBER");
}

} // namespace qpx
