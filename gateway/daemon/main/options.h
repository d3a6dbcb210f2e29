// The command line of qpxgatewayd.
#ifndef GATEWAY_OPTIONS_H
#define GATEWAY_OPTIONS_H

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "standin/log.h"
#include "standin/messages.h"
#include "standin/misbehaviour.h"

namespace daemon_options {

// How the daemon ends; also in its --help.
enum ExitCode {
    kStopped = 0,      // stopped by SIGINT or SIGTERM, or only asked for a text
    kFailed = 1,       // something unforeseen
    kBadOptions = 2,   // the command line or the configuration file is wrong, or the registry file
                       // has a key that nobody knows
    kCannotListen = 3, // the address or port cannot be had
    kBadDatabase = 4,  // the database cannot be used
    kBadPortFile = 5,  // the port file cannot be written
    kBadRegistry = 6,  // the registry file cannot be used for another reason
    kBadScript = 7,    // the script cannot be used
    kBadJournal = 8,   // the journal cannot be opened
    kBadFolder = 9,    // the folder of a recording cannot be used, or what is in it
    kBadToken = 10,    // the file with the token of the control cannot be used
    kBadScenario = 11, // the scenario cannot be used
};

// A recording of what goes through to a Gateway; no folder: there is none.
struct RecordOptions {
    std::string host;
    std::string port;
    std::string folder;
};

// A recording that requests are answered from; no folder: there is none.
struct ReplayOptions {
    std::string folder;
    bool inOrder = false;
    bool atRecordedSpeed = false;
};

struct Options {
    std::string host = "127.0.0.1";
    std::uint16_t port = 0;
    std::string portFile; // empty: none
    std::string database; // may have a password; empty: no LEDGER, no ORDERS and no registry
    std::string registry; // file that fills the registry; empty: none
    std::string journal;  // file for a line on every call, "-" for standard output; empty: none
    std::string script;   // file that says how calls are answered; empty: none
    std::string scenario; // file that says what goes wrong when; empty: none
    RecordOptions record;
    ReplayOptions replay;
    std::string recordScript; // folder of a recording that becomes a script; empty: none
    std::optional<std::uint16_t> control; // port of the control; nothing: there is none
    std::string controlHost = "127.0.0.1";
    std::string controlToken; // file; empty: no token is asked for
    standin::LogLevel logLevel = standin::LogLevel::Info;
    std::vector<standin::SelectedMisbehaviour> misbehaviours;
    std::vector<standin::SystemEntry> systems;
};

extern const char* const kVersion;

// Reads the command line. An int instead of options: the daemon is to end with this exit code; what
// the user asked for, or did wrong, has been printed.
std::variant<Options, int> readOptions(int argc, const char* const* argv);

} // namespace daemon_options

#endif
