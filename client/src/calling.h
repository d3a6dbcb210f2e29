// What the commands have in common that call server programs: options, user and password, and the
// record of a call.
#ifndef QPX_CALLING_H
#define QPX_CALLING_H

#include <optional>
#include <string>

#include "qpxclient_eci.h"
#include "secret.h"
#include "settings.h"

namespace CLI {
class App;
}

namespace qpx {

struct CallingOptions {
    std::string transaction;
    std::string callTimeout = "0";
    std::optional<std::string> passwordFd;
};

void declareCalling(CLI::App& command, CallingOptions& options);

// --password-fd N
void declarePasswordFd(CLI::App& command, std::optional<std::string>& passwordFd);
int descriptorFrom(const std::string& passwordFd);

// Who calls and how, for any number of calls.
class Caller {
public:
    // Takes the password if there is a user. Throws a Failure.
    Caller(const Settings& settings, const CallingOptions& options);

    // A record of a call of the program, without data; it points into this object, which must live
    // as long. Any thread may make one.
    QPX_ECI_PARMS record(const std::string& program) const;

private:
    std::string user_;
    mutable Secret password_;
    std::string server_;
    std::string transaction_;
    short callTimeout_ = 0;
};

// The name of a program, 1 to 8 characters. Throws a Failure.
void checkProgram(const std::string& program);

// Makes the call, and throws a CallFailure if it fails.
void execute(QPX_ConnToken_t gateway, QPX_ECI_PARMS& record, const std::string& step);

} // namespace qpx

#endif
