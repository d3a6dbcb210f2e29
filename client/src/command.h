// What the commands have in common: each declares its options, and sets what is to be run.
#ifndef QPX_COMMAND_H
#define QPX_COMMAND_H

#include <functional>
#include <memory>
#include <string>

#include <CLI/CLI.hpp>

#include "failure.h"
#include "settings.h"

namespace qpx {

using Command = std::function<ExitCode(const Settings&)>;

// Adds a command whose options are kept in a record of this type; the record lives as long as the
// command. The body is run when the command is the one that was given.
template <typename Options>
std::shared_ptr<Options> addCommand(CLI::App& app, CLI::App*& command, const std::string& name,
                                    const std::string& what, Command& chosen,
                                    ExitCode (*body)(const Settings&, const Options&))
{
    auto options = std::make_shared<Options>();
    command = app.add_subcommand(name, what);
    command->callback([options, body, &chosen] {
        chosen = [options, body](const Settings& settings) { return body(settings, *options); };
    });
    return options;
}

void declareCall(CLI::App& app, Command& chosen);
void declareChannel(CLI::App& app, Command& chosen);
void declareCodes(CLI::App& app, Command& chosen);
void declareDoctor(CLI::App& app, Command& chosen);
void declareLoad(CLI::App& app, Command& chosen);
void declarePassword(CLI::App& app, Command& chosen);
void declarePing(CLI::App& app, Command& chosen);
void declareSystems(CLI::App& app, Command& chosen);
void declareTrace(CLI::App& app, Command& chosen);

// Writes what is left for standard output. Gives the code to end with: the result, or kFailed where
// that is kDone and something could not be written.
int endWith(int result);

// One line of JSON on standard output.
void print(const Json& json);

// The text in bold, or in the colour, where there are colours.
std::string bold(const Settings& settings, const std::string& text);
std::string red(const Settings& settings, const std::string& text);
std::string green(const Settings& settings, const std::string& text);

} // namespace qpx

#endif
