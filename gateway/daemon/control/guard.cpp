#include "control/guard.h"

#include <arpa/inet.h>
#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace control {

namespace {

constexpr std::size_t kShortestToken = 16;
constexpr std::size_t kLongestToken = 512;
constexpr std::size_t kLongestShown = 100;

bool isSame(const std::string& one, const std::string& other)
{
    return ::strcasecmp(one.c_str(), other.c_str()) == 0;
}

bool isAddress(const std::string& host)
{
    unsigned char address[16];
    return ::inet_pton(AF_INET, host.c_str(), address) == 1 ||
           ::inet_pton(AF_INET6, host.c_str(), address) == 1;
}

// "[::1]:8080" is "::1", "localhost:8080" is "localhost".
std::string withoutPort(const std::string& host)
{
    if (!host.empty() && host.front() == '[') return host.substr(1, host.find(']') - 1);
    return host.substr(0, host.find(':'));
}

// Fit for an answer.
std::string shown(std::string text)
{
    if (text.size() > kLongestShown) text = text.substr(0, kLongestShown) + "...";
    for (char& c : text) {
        if (c < ' ' || c > '~' || c == '"') c = '?';
    }
    return "\"" + text + "\"";
}

// Takes as long for a wrong token as for the right one.
bool isEqual(const std::string& given, const std::string& wanted)
{
    unsigned char difference = given.size() == wanted.size() ? 0 : 1;
    for (std::size_t i = 0; i < wanted.size(); ++i) {
        const char c = given.empty() ? '\0' : given[i % given.size()];
        difference = static_cast<unsigned char>(difference |
                                                static_cast<unsigned char>(c ^ wanted[i]));
    }
    return difference == 0;
}

} // namespace

bool isLoopback(const std::string& host)
{
    unsigned char address[16];
    if (isSame(host, "localhost")) return true;
    if (::inet_pton(AF_INET, host.c_str(), address) == 1) return address[0] == 127;
    if (::inet_pton(AF_INET6, host.c_str(), address) != 1) return false;
    return address[15] == 1 &&
           std::all_of(address, address + 15, [](unsigned char byte) { return byte == 0; });
}

Guard::Guard(std::string host, std::string token) : host_(std::move(host)), token_(std::move(token))
{
    char name[256] = {};
    if (::gethostname(name, sizeof name - 1) == 0) machine_ = name;
}

// A page of a foreign name that has been made to point here comes with that name. An address cannot
// be made to point anywhere.
bool Guard::isOurName(const std::string& host) const
{
    if (isLoopback(host)) return true;
    if (isLoopback(host_)) return false;
    return isAddress(host) || isSame(host, host_) || (!machine_.empty() && isSame(host, machine_));
}

std::string Guard::refusalOfPlace(const Credentials& credentials) const
{
    if (!isOurName(withoutPort(credentials.host))) {
        return "the Host " + shown(credentials.host) +
               " is none of this gateway's; use the address that it listens on, as " +
               (isLoopback(host_) ? "127.0.0.1 or localhost" : "the daemon's log tells it");
    }
    const bool isOwnOrigin = credentials.origin.empty() ||
                             isSame(credentials.origin, "http://" + credentials.host);
    if (!isOwnOrigin) {
        return "the Origin " + shown(credentials.origin) +
               " is another one; only the gateway's own page and programs that send no Origin may "
               "ask";
    }
    const std::string& site = credentials.site;
    if (site == "cross-site" || site == "same-site")
        return "another site's page asks; open the gateway's own page instead";
    return {};
}

bool Guard::isKnown(const Credentials& credentials) const
{
    const std::string scheme = "Bearer ";
    if (token_.empty()) return true;
    if (credentials.authorization.compare(0, scheme.size(), scheme) != 0) return false;
    return isEqual(credentials.authorization.substr(scheme.size()), token_);
}

std::string readToken(const std::string& file)
{
    std::ifstream in(file);
    std::string token;
    if (!in) throw std::runtime_error(std::generic_category().message(errno));
    std::getline(in, token);
    if (in.bad()) throw std::runtime_error("it cannot be read");
    while (!token.empty() && (token.back() == '\r' || token.back() == ' ')) token.pop_back();
    if (token.size() < kShortestToken || token.size() > kLongestToken) {
        throw std::runtime_error("its first line does not have " + std::to_string(kShortestToken) +
                                 " to " + std::to_string(kLongestToken) + " characters");
    }
    if (!std::all_of(token.begin(), token.end(), [](char c) { return c > ' ' && c <= '~'; }))
        throw std::runtime_error("its first line has characters that a header cannot have");
    return token;
}

} // namespace control
