// qpx codes - return codes, their meaning and what to do about them.

#include <strings.h>

#include <iostream>
#include <sstream>

#include <nlohmann/json.hpp>

#include "codes_table.h"
#include "command.h"

namespace qpx {

namespace {

const char* const kFooter = R"(
Examples:
  qpx codes             all of them
  qpx codes -118        every meaning of a number
  qpx codes 0xF004
  qpx codes lostgwcon   names that have this in them)";

struct CodesOptions {
    std::string sought;
};

std::vector<std::string> namesOf(const CodeRow& row)
{
    std::istringstream words(row.names);
    return {std::istream_iterator<std::string>(words), {}};
}

std::string upper(std::string text)
{
    for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return text;
}

// A number stands for itself, anything else for names that have it in them.
std::vector<CodeRow> select(const std::string& sought)
{
    char* end = nullptr;
    const long number = std::strtol(sought.c_str(), &end, 0);
    const bool isNumber = *end == '\0';
    std::vector<CodeRow> rows;

    for (const CodeRow& row : kCodes) {
        const bool named = std::string(row.names).find(upper(sought)) != std::string::npos;
        if (sought.empty() || (isNumber ? row.value == number : named)) rows.push_back(row);
    }
    return rows;
}

Json asJson(const std::vector<CodeRow>& rows)
{
    Json codes = Json::array();
    for (const CodeRow& row : rows) {
        codes.push_back({{"value", row.value},
                         {"names", namesOf(row)},
                         {"when", row.when},
                         {"meaning", row.meaning},
                         {"advice", row.advice}});
    }
    return {{"codes", codes}};
}

void show(const Settings& settings, const CodeRow& row)
{
    std::string names;
    for (const std::string& name : namesOf(row)) names += (names.empty() ? "" : ", ") + name;
    std::cout << bold(settings, std::to_string(row.value) + (names.empty() ? "" : "  " + names))
              << '\n'
              << "  when   " << row.when << '\n'
              << "  means  " << row.meaning << '\n';
    if (row.advice[0] != '\0') std::cout << "  do     " << row.advice << '\n';
}

ExitCode runCodes(const Settings& settings, const CodesOptions& options)
{
    const std::vector<CodeRow> rows = select(options.sought);

    if (rows.empty())
        throw Failure(kFailed, "no return code is " + options.sought +
                                   "; servers may send codes of their own");
    if (settings.json)
        print(asJson(rows));
    else
        for (const CodeRow& row : rows) show(settings, row);
    return kDone;
}

} // namespace

void declareCodes(CLI::App& app, Command& chosen)
{
    CLI::App* command = nullptr;
    auto options = addCommand(app, command, "codes", "Tells what return codes mean, and what to do",
                              chosen, runCodes);
    command->footer(kFooter);
    command->add_option("code", options->sought, "Number or name; all of them if it is not given")
        ->option_text("[NAME|NUMBER]");
}

} // namespace qpx
