// qpx call - one call of a server program with a COMMAREA, or several as a unit of work.

#include <chrono>
#include <iostream>
#include <sstream>
#include <vector>

#include <nlohmann/json.hpp>

#include "bytes.h"
#include "calling.h"
#include "command.h"
#include "connection.h"

namespace qpx {

namespace {

const char* const kFooter = R"(
A file of --unit has a call in each line; the unit is committed when all of them
have succeeded. Empty lines and those that begin with # are passed over:
  PROGRAM [length N] [text TEXT | hex HEX | file FILE]

Examples:
  qpx call ECHO --text "Hello, Gateway!"
  qpx call PRICE --ccsid 37 --text 100106 --length 80
  qpx call ECHO --hex "00 01 02" --as dump
  qpx call REPORT --file request.bin --as raw >reply.bin
  printf %s 100106 | qpx call PRICE --file - --json
  qpx call --unit transfer.txt
  qpx call --unit transfer.txt --extend backout    tries it out)";

constexpr int kLargestCommarea = 32767;
constexpr std::size_t kLargestUnit = 100000000; // lines, for more than a thousand COMMAREAs in hex

struct CallOptions {
    CallingOptions calling;
    std::string program;
    std::optional<std::string> text, hex, file, length, unit, extend;
    std::string ccsid = "0";
    std::string form = "auto";
};

// One call, as the command line or a line of a file has it.
struct PlannedCall {
    std::string step; // for complaints
    std::string program;
    std::string data;
    int length = 0; // of the COMMAREA
};

// A commit of which nobody knows whether it was carried out.
class CommitInDoubt : public CallFailure {
public:
    explicit CommitInDoubt(int rc) : CallFailure(Phase::Call, "commit", rc, "") {}

    Json json() const override
    {
        Json error = CallFailure::json();
        error["indoubt"] = true;
        return error;
    }

    const char* also() const override
    {
        return "the unit of work is in doubt: ask the server what it has before you send it again";
    }
};

enum class End { None, Commit, Backout };

// ---- What to call -------------------------------------------------------------------------------

// A COMMAREA is as long as the data, or longer, where a longer reply is to have room.
int lengthFor(const std::string& data, const std::optional<std::string>& given)
{
    if (data.size() > kLargestCommarea)
        throw Failure(kUsage,
                      "a COMMAREA has at most 32767 bytes, not " + std::to_string(data.size()));
    const int least = static_cast<int>(data.size());
    return given ? numberFrom(*given, least, kLargestCommarea, "the length") : least;
}

std::string readCommarea(const std::string& name)
{
    return readFile(name, kLargestCommarea, "a COMMAREA");
}

PlannedCall callFrom(const CallOptions& options, int ccsid)
{
    PlannedCall call;

    checkProgram(options.program);
    call.step = options.program;
    call.program = options.program;
    if (options.text) call.data = toCodePage(*options.text, ccsid);
    if (options.hex) call.data = fromHex(*options.hex, "--hex");
    if (options.file) call.data = readCommarea(*options.file);
    call.length = lengthFor(call.data, options.length);
    return call;
}

// The rest of a line behind its words, without the blank between them.
std::string restOf(std::istringstream& words)
{
    std::string rest;
    if (words.peek() == ' ') words.get();
    std::getline(words, rest);
    return rest;
}

PlannedCall callFromLine(const std::string& line, const std::string& step, int ccsid)
{
    PlannedCall call;
    std::optional<std::string> length;
    std::istringstream words(line);
    std::string word;

    words >> call.program;
    checkProgram(call.program);
    call.step = step + ": " + call.program;
    while (words >> word) {
        if (word == "length")
            words >> length.emplace();
        else if (word == "text")
            call.data = toCodePage(restOf(words), ccsid);
        else if (word == "hex")
            call.data = fromHex(restOf(words), "hex");
        else if (word == "file")
            call.data = readCommarea(restOf(words));
        else
            throw Failure(kUsage, "neither length, text, hex nor file: " + word);
    }
    call.length = lengthFor(call.data, length);
    return call;
}

std::vector<PlannedCall> callsFromFile(const std::string& name, int ccsid)
{
    std::vector<PlannedCall> calls;
    std::istringstream lines(readFile(name, kLargestUnit, "a unit of work"));
    std::string line;

    for (int number = 1; std::getline(lines, line); ++number) {
        const std::string step = name + ", line " + std::to_string(number);
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.find_first_not_of(" \t") == std::string::npos || line[0] == '#') continue;
        try {
            calls.push_back(callFromLine(line, step, ccsid));
        } catch (const Failure& failure) {
            throw Failure(failure.exitCode(), step + ": " + failure.what());
        }
    }
    if (calls.empty()) throw Failure(kUsage, name + " has no calls");
    return calls;
}

End endFrom(const CallOptions& options)
{
    if (!options.extend) return options.unit ? End::Commit : End::None;
    if (*options.extend == "commit") return End::Commit;
    if (*options.extend == "backout") return End::Backout;
    throw Failure(kUsage, "--extend takes commit or backout, not " + *options.extend);
}

std::vector<PlannedCall> callsFrom(const CallOptions& options, int ccsid)
{
    const bool data = options.text || options.hex || options.file || options.length;

    if (!options.unit) {
        if (options.program.empty()) throw Failure(kUsage, "a program or --unit is missing");
        return {callFrom(options, ccsid)};
    }
    if (!options.program.empty() || data)
        throw Failure(kUsage, "--unit takes its programs and their data from the file");
    return callsFromFile(*options.unit, ccsid);
}

// ---- The calls ----------------------------------------------------------------------------------

// Makes the call and gives the COMMAREA as it is then. The token is that of its unit of work.
std::string perform(QPX_ConnToken_t gateway, const Caller& caller, const PlannedCall& call,
                    short extendMode, int& token)
{
    QPX_ECI_PARMS record = caller.record(call.program);
    std::string area = call.data;

    area.resize(static_cast<std::size_t>(call.length), '\0');
    if (call.length > 0) {
        record.eci_commarea = area.data();
        record.eci_commarea_length = static_cast<short>(call.length);
        record.commarea_outbound_length = static_cast<short>(call.data.size());
    }
    record.eci_extend_mode = extendMode;
    record.eci_luw_token = token;
    execute(gateway, record, call.step);
    token = record.eci_luw_token;
    return area;
}

// Whether the server may have done what was asked of it although the call has failed.
bool leavesDoubt(int rc)
{
    return rc != ECI_ERR_ROLLEDBACK && rc != ECI_ERR_LUW_TOKEN && rc != ECI_ERR_REQUEST_TIMEOUT;
}

void endUnit(QPX_ConnToken_t gateway, const Caller& caller, const std::string& program, End end,
             int token)
{
    QPX_ECI_PARMS record = caller.record(program);

    record.eci_extend_mode = end == End::Commit ? ECI_COMMIT : ECI_BACKOUT;
    record.eci_luw_token = token;
    if (end == End::Backout) return execute(gateway, record, "backout");
    try {
        execute(gateway, record, "commit");
    } catch (const CallFailure& failure) {
        if (leavesDoubt(failure.rc())) throw CommitInDoubt(failure.rc());
        throw;
    }
}

Json replyAsJson(const PlannedCall& call, const std::string& area, int ccsid, double microseconds)
{
    return {{"program", call.program},
            {"code", 0},
            {"name", nameOf(0)},
            {"microseconds", static_cast<long>(microseconds)},
            {"commarea", bytesAsJson(area, ccsid)}};
}

ExitCode runCall(const Settings& settings, const CallOptions& options)
{
    using Clock = std::chrono::steady_clock;
    const int ccsid = numberFrom(options.ccsid, 0, 65535, "a code page");
    const Form form = formFrom(options.form);
    const End end = endFrom(options);
    const std::vector<PlannedCall> calls = callsFrom(options, ccsid);
    const Caller caller(settings, options.calling);
    Connection gateway(settings);
    Json replies = Json::array();
    int token = 0;

    for (const PlannedCall& call : calls) {
        const auto begin = Clock::now();
        const std::string area = perform(gateway.token(), caller, call,
                                         end == End::None ? ECI_NO_EXTEND : ECI_EXTENDED, token);
        const std::chrono::duration<double, std::micro> took = Clock::now() - begin;
        if (settings.json)
            replies.push_back(replyAsJson(call, area, ccsid, took.count()));
        else
            std::cout << shown(area, ccsid, form);
    }
    if (end != End::None) {
        endUnit(gateway.token(), caller, calls.front().program, end, token);
        const char* const outcome = end == End::Commit ? "committed" : "backed out";
        if (settings.json)
            print({{"unit", outcome}, {"calls", replies}});
        else
            std::cerr << "qpx: " << outcome << '\n';
    } else if (settings.json) {
        print(replies.front());
    }
    gateway.close();
    return kDone;
}

} // namespace

void declareCall(CLI::App& app, Command& chosen)
{
    CLI::App* command = nullptr;
    auto options = addCommand(app, command, "call",
                              "Calls a server program, or several as a unit of work", chosen,
                              runCall);
    const auto option = [&](const char* name, auto& value, const char* form, const char* what) {
        return command->add_option(name, value, what)->option_text(form);
    };

    command->footer(kFooter);
    option("program", options->program, "PROGRAM", "The server program, at most 8 characters");
    CLI::Option* const text = option("--text", options->text, "TEXT", "The COMMAREA as text");
    CLI::Option* const hex =
        option("--hex", options->hex, "HEX", "The COMMAREA as hexadecimal digits")->excludes(text);
    option("--file", options->file, "FILE", "The COMMAREA as it is in a file, - for standard input")
        ->excludes(text)
        ->excludes(hex);
    option("--length", options->length, "N",
           "The length of the COMMAREA, where a longer reply needs room: up to 32767");
    option("--ccsid", options->ccsid, "N",
           "The code page of the texts at the server, such as 819 or 37; none is converted (0)");
    option("--as", options->form, "FORM", "How the reply is shown: auto, text, hex, dump or raw");
    option("--unit", options->unit, "FILE", "The calls of a unit of work, - for standard input");
    option("--extend", options->extend, "END",
           "A unit of work that ends with this: commit or backout");
    declareCalling(*command, options->calling);
}

} // namespace qpx
