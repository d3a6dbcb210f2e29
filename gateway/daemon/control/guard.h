// Who may ask the control port: whoever has the token, if there is one, and of web pages only its
// own. A browser sends what any page asks for, also to addresses of this machine; the names that it
// puts into Host and Origin tell whose page that was.
//
// Thread: any; nothing here ever changes.
#ifndef CONTROL_GUARD_H
#define CONTROL_GUARD_H

#include <string>

namespace control {

// What a request says about where it comes from; empty: it does not say.
struct Credentials {
    std::string host;
    std::string origin;
    std::string site; // Sec-Fetch-Site
    std::string authorization;
};

// Whether it is an address of this machine that nobody else reaches. A name is none but localhost.
bool isLoopback(const std::string& host);

class Guard {
public:
    // The host that is listened on, and the token; empty: there is none.
    Guard(std::string host, std::string token);

    bool hasToken() const { return !token_.empty(); }

    // Empty, or why the request is refused, and what to do.
    std::string refusalOfPlace(const Credentials& credentials) const;

    bool isKnown(const Credentials& credentials) const;

private:
    bool isOurName(const std::string& host) const;

    const std::string host_;
    const std::string token_;
    std::string machine_; // the name of this machine
};

// Reads a token: the first line of a file, at least 16 characters that a header may have. Throws
// std::runtime_error with what is wrong.
std::string readToken(const std::string& file);

} // namespace control

#endif
