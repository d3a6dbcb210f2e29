#include "main/options.h"

#include <iomanip>
#include <iostream>
#include <map>
#include <memory>
#include <sstream>
#include <stdexcept>

#include <CLI/CLI.hpp>

#include "control/guard.h"
#include "database/name.h"
#include "main/config_file.h"

namespace daemon_options {

using standin::LogLevel;

namespace {

const char* const kFooter = R"(
Examples:
  qpxgatewayd --port 5770 --database ledger.db
      Serves all programs on 127.0.0.1, port 5770.
  qpxgatewayd --port 5770 --database ledger.db --registry registry.toml
      Also verifies and changes the passwords of the users in registry.toml.
  qpxgatewayd --port 5770 --database postgresql://gateway@db.example/ledger
      Has accounts, prices and users in common with other daemons.
  qpxgatewayd --port-file port.txt
      Serves those that need no database on a free port, and writes its number
      to port.txt.
  qpxgatewayd --misbehave pieces=7 --misbehave drop@program:ECHO,nth:3
      Sends everything in pieces of 7 bytes, and drops the connection instead of
      answering the third call of ECHO.
  qpxgatewayd --port 5770 --script answers.toml
      Answers calls as answers.toml says, which is read again when it changes.
  qpxgatewayd --port 5770 --journal calls.jsonl
      Writes every call to calls.jsonl.
  qpxgatewayd --port 5770 --control 8080
      Shows all that happens on http://127.0.0.1:8080/, and switches there.
  qpxgatewayd check calls.jsonl expect.toml
      Names what is missing, unexpected or out of order there.
  qpxgatewayd --port 5770 --scenario storm.toml
      Misbehaves over time as storm.toml says.
  qpxgatewayd --port 5771 --record gateway.example:5770 monday
      Passes everything on to the Gateway there and back, and writes each flow
      to a file of its connection in the folder monday.
  qpxgatewayd --port 5770 --replay monday
      Answers from that recording.
  qpxgatewayd --record-script monday
      Prints the beginning of a script that answers as it.
  qpxgatewayd --config gateway.conf
      Takes options from a file with lines like: port=5770

SIGUSR1 releases all answers that are held and ends the misbehaviour "hold".
SIGHUP reads the script again.

Exit codes:
  0  stopped by SIGINT or SIGTERM       3  cannot listen on the address
  1  unforeseen failure                 4  cannot use the database
  2  wrong option, or unknown key       5  cannot write the port file
     in a file                          6  cannot use the registry file
  7  cannot use the script              8  cannot open the journal
  9  cannot use a recording            10  cannot use the token of the control
 11  cannot use the scenario)";

const std::map<std::string, LogLevel> kLogLevels = {
    {"debug", LogLevel::Debug},
    {"info", LogLevel::Info},
    {"warning", LogLevel::Warning},
    {"error", LogLevel::Error},
};

// The options as text, before they are understood.
struct RawOptions {
    std::vector<std::string> misbehaviours;
    std::vector<std::string> systems;
    std::vector<std::string> record;
    std::string logLevel = "info";
    bool listMisbehaviours = false;
};

// "" when the text is good, else what is wrong with it: the way CLI11 wants to be told.
std::string complaintAboutMisbehaviour(const std::string& text)
{
    try {
        standin::parseMisbehaviour(text);
        return "";
    } catch (const std::invalid_argument& refusal) {
        return refusal.what();
    }
}

std::string complaintAboutLogLevel(const std::string& text)
{
    return kLogLevels.count(text) != 0 ? ""
                                       : "\"" + text + "\" is not debug, info, warning or error";
}

std::string complaintAboutEmptiness(const std::string& text)
{
    return text.empty() ? "it is empty; leave the option out for the default" : "";
}

std::string complaintAboutHost(const std::string& text)
{
    return text.empty() ? "the address is empty; 0.0.0.0 is every address of this machine" : "";
}

std::string complaintAboutSystem(const std::string& text)
{
    const std::size_t mark = text.find('=');
    if (mark == std::string::npos) return "\"" + text + "\" is not NAME=DESCRIPTION";
    if (mark < 1 || mark > 8) return "the name in \"" + text + "\" does not have 1 to 8 characters";
    if (text.size() - mark - 1 > 60)
        return "the description in \"" + text + "\" has more than 60 characters";
    return "";
}

// "HOST:PORT", with brackets around an address that has colons itself. std::invalid_argument.
RecordOptions recordFrom(const std::vector<std::string>& texts)
{
    const std::string& place = texts.at(0);
    const std::size_t mark = place.rfind(':');
    RecordOptions record;
    if (mark != std::string::npos) {
        record.host = place.substr(0, mark);
        record.port = place.substr(mark + 1);
    }
    if (record.host.size() > 2 && record.host.front() == '[' && record.host.back() == ']')
        record.host = record.host.substr(1, record.host.size() - 2);
    const bool isPort = !record.port.empty() && record.port.size() < 6 &&
                        record.port.find_first_not_of("0123456789") == std::string::npos &&
                        std::stoi(record.port) > 0 && std::stoi(record.port) < 65536;
    if (record.host.empty() || !isPort)
        throw std::invalid_argument("\"" + place + "\" is not HOST:PORT");
    record.folder = texts.at(1);
    if (record.folder.empty()) throw std::invalid_argument("the folder has no name");
    return record;
}

standin::SystemEntry systemFrom(const std::string& text)
{
    const std::size_t mark = text.find('=');
    return {text.substr(0, mark), text.substr(mark + 1)};
}

void printMisbehaviours()
{
    for (const standin::MisbehaviourInfo& info : standin::misbehaviours()) {
        std::cout << "  " << std::left << std::setw(26) << info.form << info.sentence << '\n';
    }
    std::cout << "\nEach may have selectors behind it, as in hold@connection:1,program:ECHO :\n"
                 "  connection:N  message:ID  program:NAME  skip:N  times:N  nth:N  once\n";
}

void declare(CLI::App& app, Options& options, RawOptions& raw)
{
    app.footer(kFooter);
    app.set_version_flag("--version", std::string("qpxgatewayd ") + GATEWAY_VERSION);
    const CLI::Validator notEmpty(complaintAboutEmptiness, "");
    app.set_config("--config", "", "Read options from FILE (lines of name=value)")
        ->option_text("FILE");
    app.config_formatter(std::make_shared<ConfigFile>(app));
    app.allow_config_extras(CLI::config_extras_mode::error);

    app.add_option("--host", options.host, "Address to listen on (default 127.0.0.1)")
        ->option_text("ADDRESS")
        ->check(CLI::Validator(complaintAboutHost, ""));
    app.add_option("--port", options.port, "Port to listen on, 0 for any free one (default 0)")
        ->option_text("PORT");
    app.add_option("--port-file", options.portFile, "Write the port to FILE once it is open")
        ->option_text("FILE")
        ->check(notEmpty);
    CLI::Option* const database =
        app.add_option("--database", options.database,
                       "SQLite file of the programs LEDGER and ORDERS and of the registry of users "
                       "and systems, made when it is not there, or PostgreSQL's URL of a database, "
                       "which several daemons share; without it there is none of them")
            ->option_text("FILE|URL")
            ->check(CLI::Validator(ledger::complaintAbout, ""));
    CLI::Option* const registry =
        app.add_option(
               "--registry", options.registry,
               "Fill the registry from FILE (TOML with rules, systems, and users with their "
               "passwords in clear, which are hashed); needs --database")
            ->option_text("FILE")
            ->check(notEmpty)
            ->needs(database);
    CLI::Option* const script =
        app.add_option(
               "--script", options.script,
               "Answer calls as FILE says (TOML), in front of all programs; it is read again "
               "when it changes")
            ->option_text("FILE")
            ->check(notEmpty);
    CLI::Option* const journal =
        app.add_option("--journal", options.journal,
                       "Write every call as a line of JSON behind what is in FILE, - for standard "
                       "output")
            ->option_text("FILE")
            ->check(notEmpty);
    CLI::Option* const control =
        app.add_option("--control", options.control,
                       "Show what happens, and take orders, over HTTP on PORT, 0 for any free one")
            ->option_text("PORT");
    app.add_option("--control-token", options.controlToken,
                   "Ask who comes over HTTP for the token in FILE (its first line)")
        ->option_text("FILE")
        ->check(notEmpty)
        ->needs(control);
    app.add_option("--control-host", options.controlHost,
                   "Address for --control (default 127.0.0.1); one that others reach needs "
                   "--control-token")
        ->option_text("ADDRESS")
        ->check(CLI::Validator(complaintAboutHost, ""))
        ->needs(control);
    CLI::Option* const system =
        app.add_option("--system", raw.systems,
                       "A server for the system list, behind those of the registry file; may be "
                       "given several times")
            ->option_text("NAME=DESCRIPTION")
            ->allow_extra_args(false)
            ->check(CLI::Validator(complaintAboutSystem, ""));
    app.add_option("--misbehave", raw.misbehaviours, "Misbehave; may be given several times")
        ->option_text("NAME[=ARG][@SELECTOR]")
        ->allow_extra_args(false)
        ->check(CLI::Validator(complaintAboutMisbehaviour, ""));
    CLI::Option* const scenario = app.add_option(
                                         "--scenario", options.scenario,
                                         "Misbehave over time as FILE says (TOML), from the start")
                                      ->option_text("FILE")
                                      ->check(notEmpty);
    CLI::Option* const record =
        app.add_option("--record", raw.record,
                       "Pass everything on to the Gateway at HOST:PORT and back, and write each "
                       "flow to a file of its connection in the folder DIR")
            ->option_text("HOST:PORT DIR")
            ->expected(2);
    for (CLI::Option* const other :
         {database, registry, script, journal, control, system, scenario})
        record->excludes(other);

    CLI::Option* const replay =
        app.add_option("--replay", options.replay.folder,
                       "Answer every request from the recording in the folder DIR, whatever its "
                       "order")
            ->option_text("DIR")
            ->check(notEmpty);
    app.add_flag("--in-order", options.replay.inOrder,
                 "Replay the requests of each connection in their recorded order only")
        ->needs(replay);
    app.add_flag("--recorded-speed", options.replay.atRecordedSpeed,
                 "Keep each answer that is replayed as long as it took")
        ->needs(replay);
    CLI::Option* const recordScript =
        app.add_option("--record-script", options.recordScript,
                       "Print a script that answers as the recording in the folder DIR, and end")
            ->option_text("DIR")
            ->check(notEmpty);
    for (CLI::Option* const other : {database, registry, script, system, record, recordScript})
        replay->excludes(other);
    recordScript->excludes(record);
    app.add_flag("--list-misbehaviours", raw.listMisbehaviours, "Print all misbehaviours and end");
    app.add_option("--log-level", raw.logLevel, "debug, info, warning or error (default info)")
        ->option_text("LEVEL")
        ->check(CLI::Validator(complaintAboutLogLevel, ""));
}

} // namespace

const char* const kVersion = GATEWAY_VERSION;

std::variant<Options, int> readOptions(int argc, const char* const* argv)
{
    Options options;
    RawOptions raw;
    CLI::App app("A stand-in for a Gateway: speaks its protocol and runs a few programs behind it.",
                 "qpxgatewayd");
    declare(app, options, raw);
    try {
        app.parse(argc, argv);
        if (!raw.record.empty()) options.record = recordFrom(raw.record);
    } catch (const std::invalid_argument& refusal) {
        app.exit(CLI::ValidationError("--record", refusal.what()));
        return kBadOptions;
    } catch (const CLI::ParseError& reason) {
        std::ostringstream text;
        const int code = app.exit(reason, text, text);
        (code == 0 ? std::cout : std::cerr) << ledger::withoutPasswords(text.str());
        return code == 0 ? kStopped : kBadOptions;
    }
    if (raw.listMisbehaviours) {
        printMisbehaviours();
        return kStopped;
    }
    if (options.controlToken.empty() && !control::isLoopback(options.controlHost)) {
        std::cerr << "--control-host: others reach " << options.controlHost
                  << "; give a file with a token, too, with --control-token\n"
                  << "Run with --help for more information.\n";
        return kBadOptions;
    }
    for (const std::string& text : raw.misbehaviours) {
        const standin::Fault fault = standin::parseMisbehaviour(text).misbehaviour.fault;
        if (options.record.folder.empty() || !standin::isOfTheConnection(fault)) continue;
        app.exit(CLI::ValidationError("--misbehave", std::string(standin::nameOf(fault)) +
                                                         " cannot lie on top of --record"));
        return kBadOptions;
    }
    options.logLevel = kLogLevels.at(raw.logLevel);
    for (const std::string& text : raw.misbehaviours)
        options.misbehaviours.push_back(standin::parseMisbehaviour(text));
    for (const std::string& text : raw.systems) options.systems.push_back(systemFrom(text));
    return options;
}

} // namespace daemon_options
