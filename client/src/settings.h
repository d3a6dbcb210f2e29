// Where the Gateway is and how output looks: from options, else from the environment, else from
// the configuration file, else by default.
#ifndef QPX_SETTINGS_H
#define QPX_SETTINGS_H

#include <optional>
#include <string>

namespace CLI {
class App;
}

namespace qpx {

struct Settings {
    std::string host = "127.0.0.1";
    int port = 5770;
    int timeout = 30;
    std::string applid;
    std::string applidOrigin = "none"; // where the applid is from, for doctor
    std::string qualifier;
    std::string server; // "" is the Gateway's default
    std::string user;   // "" is none
    bool json = false;
    bool colour = false; // on standard output

    // "gateway.example:5770", an address with colons in brackets
    std::string place() const;
};

// The options as text, before they are understood.
struct GivenSettings {
    std::optional<std::string> host, port, timeout, applid, qualifier, server, user;
    std::optional<std::string> colour, config;
    bool json = false;
};

void declareSettings(CLI::App& app, GivenSettings& given);

// Throws a Failure that names where a wrong value comes from. An applid or a qualifier that is
// given as an option takes the place of the one in the environment, which the library looks at.
Settings settingsFrom(const GivenSettings& given);

// A whole number in these bounds, or a Failure that reads "WHAT is a number from 1 to 9, not x".
int numberFrom(const std::string& text, int least, int most, const std::string& what);

} // namespace qpx

#endif
