// What goes wrong in a command, as an exception that knows how qpx ends, and what it tells.
#ifndef QPX_FAILURE_H
#define QPX_FAILURE_H

#include <stdexcept>
#include <string>

#include <nlohmann/json_fwd.hpp>

namespace qpx {

using Json = nlohmann::ordered_json;

enum ExitCode {
    kDone = 0,
    kFailed = 1,       // a file, the output, the memory
    kUsage = 2,        // options, environment or configuration file
    kNoConnection = 3, // could not be made, or was lost
    kGateway = 4,      // the Gateway refused or failed
    kServer = 5,       // the server refused or failed
    kAbend = 6,        // the server program ended abnormally
    kRefused = 7       // user or password was refused
};

class Failure : public std::runtime_error {
public:
    Failure(ExitCode exitCode, const std::string& what)
        : std::runtime_error(what), exitCode_(exitCode)
    {
    }

    ExitCode exitCode() const { return exitCode_; }

    // A second complaint, nullptr if there is none.
    virtual const char* also() const { return nullptr; }

    // What --json shows.
    virtual Json json() const;

private:
    ExitCode exitCode_;
};

// During what a return code has come: the same number may mean something else elsewhere.
enum class Phase { Open, Close, Call, Channel, Password, Systems };

// A call of the library that has not returned 0. The step names what was done; an abend code of ""
// is none.
class CallFailure : public Failure {
public:
    CallFailure(Phase phase, const std::string& step, int rc, const std::string& abendCode = "");

    int rc() const { return rc_; }
    Json json() const override;

private:
    Phase phase_;
    std::string step_;
    int rc_;
    std::string abendCode_;
};

ExitCode exitCodeOf(Phase phase, int rc);

std::string nameOf(int rc);

// "QPX_ERR_LOSTGWCON (-102)"
std::string nameAndNumber(int rc);

} // namespace qpx

#endif
