// qpx - the client for the shell: calls of server programs, and what helps to find out why one does
// not come through. Over the public calls of the library only.

#include <unistd.h>

#include <clocale>
#include <cstdio>
#include <iostream>
#include <new>

#include <nlohmann/json.hpp>

#include "command.h"
#include "descriptor.h"
#include "qpxclient.h"

namespace qpx {

namespace {

const char* const kFooter = R"(
"qpx COMMAND --help" shows the options of a command, and examples. Settings that
are not given as options come from the environment, else from the configuration
file, lines like:
  host = "gateway.example"
  port = 5770

Exit codes:
  0  done
  1  a file, the output or the memory failed
  2  wrong option, environment or configuration file
  3  no connection to the Gateway, or it was lost
  4  the Gateway refused or failed
  5  the server refused or failed
  6  the server program ended abnormally
  7  the user or the password was refused

Examples:
  qpx call ECHO --text "Hello, Gateway!"
  qpx --host gateway.example --port 5770 systems
  qpx codes -118)";

std::string version()
{
    char* library = nullptr;
    QPX_getDLLVersion(&library);
    return std::string("qpx " QPX_VERSION ", library ") + (library == nullptr ? "?" : library) +
           ", " + std::to_string(8 * sizeof(void*)) + " bits";
}

void complain(const std::string& what)
{
    std::cout.flush();
    std::cerr << "qpx: " << what << '\n';
}

int fail(const Failure& failure, bool json)
{
    if (json) print({{"error", failure.json()}});
    complain(failure.what());
    if (failure.also() != nullptr) complain(failure.also());
    return failure.exitCode();
}

int perform(const GivenSettings& given, const Command& chosen)
{
    try {
        return chosen(settingsFrom(given));
    } catch (const Failure& failure) {
        return fail(failure, given.json);
    } catch (const std::bad_alloc&) {
        return fail(Failure(kFailed, "out of memory"), given.json);
    }
}

// Help goes to standard output, complaints to standard error.
int answerFor(const CLI::App& app, const CLI::ParseError& reason)
{
    if (reason.get_exit_code() == 0) return app.exit(reason) == 0 ? kDone : kFailed;
    complain(std::string(reason.what()) + "; \"qpx --help\" shows what there is");
    return kUsage;
}

int run(int argc, char** argv)
{
    CLI::App app("Calls programs of servers through a Gateway, and helps where that fails.", "qpx");
    GivenSettings given;
    Command chosen;

    app.footer(kFooter);
    app.set_version_flag("--version", version);
    app.fallthrough();
    app.require_subcommand(1);
    app.get_formatter()->column_width(30);
    declareSettings(app, given);
    declareCall(app, chosen);
    declareChannel(app, chosen);
    declareSystems(app, chosen);
    declarePassword(app, chosen);
    declarePing(app, chosen);
    declareLoad(app, chosen);
    declareTrace(app, chosen);
    declareDoctor(app, chosen);
    declareCodes(app, chosen);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& reason) {
        return answerFor(app, reason);
    }
    return perform(given, chosen);
}

std::string coloured(const Settings& settings, const char* code, const std::string& text)
{
    return settings.colour ? "\x1b[" + std::string(code) + "m" + text + "\x1b[0m" : text;
}

} // namespace

int endWith(int result)
{
    std::cout.flush();
    // The stream does not know of what was written without it.
    if (std::cout && std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return result;
    complain("cannot write to standard output");
    return result == kDone ? kFailed : result;
}

void print(const Json& json)
{
    std::cout << json.dump(-1, ' ', false, Json::error_handler_t::replace) << '\n';
}

std::string bold(const Settings& settings, const std::string& text)
{
    return coloured(settings, "1", text);
}

std::string red(const Settings& settings, const std::string& text)
{
    return coloured(settings, "31", text);
}

std::string green(const Settings& settings, const std::string& text)
{
    return coloured(settings, "32", text);
}

} // namespace qpx

int main(int argc, char** argv)
{
    std::setlocale(LC_CTYPE, "");
    qpx::letWritingWait(STDOUT_FILENO);
    qpx::letWritingWait(STDERR_FILENO);
    return qpx::endWith(qpx::run(argc, argv));
}
