// The codes of the public headers, as the headers have them: each has its name, its row in
// docs/return-codes.md, and one place in the sources where its name is spelt.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "clapi_rc.h"

namespace {

namespace fs = std::filesystem;

struct Code {
    std::string name;
    int value;
};

using Codes = std::vector<Code>;

std::string textOf(const fs::path& file)
{
    std::ifstream stream(file);
    EXPECT_TRUE(stream) << file;
    std::ostringstream text;
    text << stream.rdbuf();
    return text.str();
}

bool isNameOfCode(const std::string& name)
{
    std::size_t family = name.find('_');
    if (family != 3) return false;
    std::string rest = name.substr(family + 1);
    return rest == "OK" || rest == "NO_ERROR" || rest.compare(0, 4, "ERR_") == 0;
}

// "(-9)" and "0" as numbers.
int valueOf(const std::string& text)
{
    return std::stoi(text[0] == '(' ? text.substr(1) : text);
}

const fs::path root = QPX_SOURCE_ROOT;

// Every "#define NAME VALUE" of a header that defines a code.
Codes codesOf(const std::string& header)
{
    Codes codes;
    std::istringstream lines(textOf(root / "include" / header));
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string define, name, value;
        words >> define >> name >> value;
        if (define == "#define" && isNameOfCode(name)) codes.push_back({name, valueOf(value)});
    }
    return codes;
}

// In the order in which the families give a shared value its name.
const std::vector<std::string> headers = {"qpxclient.h", "qpxclient_eci.h", "eci_channel.h",
                                          "qpxclient_esi.h"};

Codes allCodes()
{
    Codes all;
    for (const std::string& header : headers) {
        Codes codes = codesOf(header);
        EXPECT_FALSE(codes.empty()) << header;
        all.insert(all.end(), codes.begin(), codes.end());
    }
    return all;
}

// The two codes of the ESI family that have a name by the Gateway's codes only.
const std::map<std::string, int> namedByGatewayCode = {{"ESI_ERR_MAX_SYSTEMS", -28},
                                                       {"ESI_ERR_MAX_SESSIONS", -29}};

void expectNames(const std::string& header, const std::function<std::string(int)>& lookup)
{
    for (const Code& code : codesOf(header)) {
        auto row = namedByGatewayCode.find(code.name);
        if (row == namedByGatewayCode.end()) {
            EXPECT_EQ(code.name, lookup(code.value)) << code.value;
            continue;
        }
        EXPECT_EQ("UNKNOWN", lookup(code.value)) << code.value;
        EXPECT_EQ(code.name, lookup(row->second)) << row->second;
    }
}

std::string nameForApplications(int value)
{
    for (const Code& code : allCodes())
        if (code.value == value && namedByGatewayCode.count(code.name) == 0) return code.name;
    return "UNKNOWN";
}

// The cells of a row of a table, without the blanks around them.
std::vector<std::string> cellsOf(const std::string& row)
{
    std::vector<std::string> cells;
    std::istringstream parts(row.substr(1));
    for (std::string cell; std::getline(parts, cell, '|');) {
        std::size_t first = cell.find_first_not_of(' ');
        std::size_t last = cell.find_last_not_of(' ');
        cells.push_back(first == std::string::npos ? "" : cell.substr(first, last - first + 1));
    }
    return cells;
}

// "value name" for each name that a row of docs/return-codes.md gives a value.
std::set<std::string> documented()
{
    std::set<std::string> rows;
    std::istringstream lines(textOf(root / "docs/return-codes.md"));
    for (std::string line; std::getline(lines, line);) {
        if (line.compare(0, 2, "| ") != 0) continue;
        std::vector<std::string> cells = cellsOf(line);
        std::istringstream names(cells.at(1));
        for (std::string name; std::getline(names, name, '`');)
            if (isNameOfCode(name)) rows.insert(cells[0] + " " + name);
    }
    return rows;
}

std::size_t timesIn(const std::string& text, const std::string& part)
{
    std::size_t times = 0;
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        times += 1;
    return times;
}

std::string sources()
{
    std::string text;
    for (const auto& file : fs::directory_iterator(root / "src"))
        if (file.is_regular_file()) text += textOf(file.path());
    return text;
}

} // namespace

TEST(CodeOfAHeader, IsInOneOfTheFourPublicHeaders)
{
    for (const auto& file : fs::directory_iterator(root / "include")) {
        std::string header = file.path().filename();
        bool isPublic = std::find(headers.begin(), headers.end(), header) != headers.end();
        EXPECT_EQ(isPublic, !codesOf(header).empty()) << header;
    }
}

TEST(CodeOfAHeader, HasItsNameInItsFamily)
{
    expectNames("qpxclient.h", clapiGetRcString);
    expectNames("qpxclient_eci.h", clapiGetRcStringECI);
    expectNames("eci_channel.h", clapiGetRcStringChannel);
    expectNames("qpxclient_esi.h", clapiGetRcStringESI);
}

TEST(CodeOfAHeader, HasTheNameOfTheFirstFamilyForApplications)
{
    for (const Code& code : allCodes()) {
        char name[QPX_RC_STRING_SIZE];
        EXPECT_EQ(nameForApplications(code.value), QPX_getRcString(code.value, name)) << code.name;
    }
}

TEST(CodeOfAHeader, HasItsRowInTheDocuments)
{
    std::set<std::string> rows = documented();
    for (const Code& code : allCodes())
        EXPECT_EQ(1u, rows.count(std::to_string(code.value) + " " + code.name)) << code.name;
}

TEST(RowOfTheDocuments, NamesACodeOfAHeader)
{
    std::set<std::string> codes;
    for (const Code& code : allCodes()) codes.insert(std::to_string(code.value) + " " + code.name);
    for (const std::string& row : documented()) EXPECT_EQ(1u, codes.count(row)) << row;
}

TEST(CodeOfAHeader, HasItsNameSpeltOnceInTheSources)
{
    std::string text = sources();
    for (const Code& code : allCodes())
        EXPECT_EQ(1u,
                  timesIn(text, "NAMED(" + code.name + ")") + timesIn(text, '"' + code.name + '"'))
            << code.name;
}
