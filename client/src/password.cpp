// qpx password - verifies or changes a user's password at a server behind the Gateway. Passwords
// are never taken from the command line, where other users of the machine could see them, and never
// written.

#include <cstdio>
#include <iostream>

#include <nlohmann/json.hpp>

#include "calling.h"
#include "command.h"
#include "connection.h"
#include "qpxclient_esi.h"

namespace qpx {

namespace {

const char* const kFooter = R"(
The passwords are asked for at the terminal, or read from a descriptor: the one
in force in the first line, for a change the new one in the second.

Examples:
  qpx password verify FRED
  qpx password change FRED --server VORNB
  qpx password verify FRED --password-fd 3 3<secret.txt)";

constexpr std::size_t kLongestUser = 10;

struct PasswordOptions {
    bool change = false;
    std::string user;
    std::optional<std::string> passwordFd;
};

void takePasswords(const PasswordOptions& options, Secret& current, Secret& changed)
{
    if (options.passwordFd) {
        const int descriptor = descriptorFrom(*options.passwordFd);
        current.readFrom(descriptor, options.change ? "current password" : "password");
        if (options.change) changed.readFrom(descriptor, "new password");
        return;
    }
    current.askFor(options.change ? "current password" : "password");
    if (!options.change) return;
    Secret again;
    changed.askFor("new password");
    again.askFor("new password again");
    if (!(again == changed)) throw Failure(kFailed, "the new passwords differ");
}

// "2026-01-30 17:02:11", or "" for a time that never was.
std::string timeText(const ESI_DATETIME& time)
{
    tm converted = {};
    char text[32] = "";
    QPX_ESI_convertTime(&time, &converted);
    if (time.year != 0) std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &converted);
    return text;
}

Json timeOrNull(const ESI_DATETIME& time)
{
    const std::string text = timeText(time);
    return text.empty() ? Json(nullptr) : Json(text);
}

void show(const PasswordOptions& options, const ESI_DETAILS& details)
{
    const auto line = [](const char* what, const std::string& time) {
        std::cout << what << (time.empty() ? "never" : time) << '\n';
    };

    std::cout << "The password of " << options.user
              << (options.change ? " is changed.\n" : " is right.\n");
    line("Last verified:   ", timeText(details.lastVerifiedTime));
    line("Last access:     ", timeText(details.lastAccessedTime));
    line("Expires:         ", timeText(details.expiryTime));
    std::cout << "Wrong attempts:  " << details.invalidCount << '\n';
}

int ask(const Settings& settings, const PasswordOptions& options, QPX_ConnToken_t gateway,
        const Secret& current, const Secret& changed, ESI_DETAILS& details)
{
    const char* const server = settings.server.empty() ? nullptr : settings.server.c_str();
    return options.change ? QPX_ESI_changePassword(gateway, options.user.c_str(), current.text(),
                                                   changed.text(), server, &details)
                          : QPX_ESI_verifyPassword(gateway, options.user.c_str(), current.text(),
                                                   server, &details);
}

ExitCode runPassword(const Settings& settings, const PasswordOptions& options)
{
    Secret current;
    Secret changed;
    ESI_DETAILS details = {};

    if (options.user.size() > kLongestUser)
        throw Failure(kUsage, "longer than 10 characters: " + options.user);
    takePasswords(options, current, changed);
    Connection gateway(settings);
    const int rc = ask(settings, options, gateway.token(), current, changed, details);
    if (rc != QPX_OK) throw CallFailure(Phase::Password, options.change ? "change" : "verify", rc);
    if (settings.json)
        print({{"user", options.user},
               {"changed", options.change},
               {"verified", timeOrNull(details.lastVerifiedTime)},
               {"accessed", timeOrNull(details.lastAccessedTime)},
               {"expires", timeOrNull(details.expiryTime)},
               {"invalid", details.invalidCount}});
    else
        show(options, details);
    gateway.close();
    return kDone;
}

void declareOne(CLI::App& password, const char* name, const char* what, bool change,
                Command& chosen)
{
    CLI::App* command = nullptr;
    auto options = addCommand(password, command, name, what, chosen, runPassword);
    options->change = change;
    command->footer(kFooter);
    command->add_option("user", options->user, "The user, at most 10 characters")
        ->option_text("USER")
        ->required();
    declarePasswordFd(*command, options->passwordFd);
}

} // namespace

void declarePassword(CLI::App& app, Command& chosen)
{
    CLI::App* const password = app.add_subcommand("password",
                                                  "Verifies or changes the password of a user");
    password->require_subcommand(1);
    password->footer(kFooter);
    declareOne(*password, "verify", "Tells whether a password is right", false, chosen);
    declareOne(*password, "change", "Changes a password", true, chosen);
}

} // namespace qpx
