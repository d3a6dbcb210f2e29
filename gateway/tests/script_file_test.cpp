// What a script may not be: each time the line and the column, and never what stands there.

#include <gtest/gtest.h>

#include <fstream>
#include <random>

#include "conf/value.h"
#include "script/script.h"
#include "temporary_directory.h"

using standin_test::TemporaryDirectory;

namespace {

std::string complaint(const std::string& text)
{
    try {
        script::readScript(conf::readText(text), {"/", {}});
    } catch (const conf::Wrong& problem) {
        return problem.what();
    }
    return "none";
}

// About an [[on]] with these lines, the first of which is line 2.
std::string complaintAbout(const std::string& lines)
{
    return complaint("[[on]]\n" + lines + "\n");
}

} // namespace

TEST(ScriptFile, MayBeEmpty)
{
    EXPECT_EQ("none", complaint(""));
    EXPECT_EQ("none", complaint("seed = 7\n"));
}

TEST(ScriptFile, ThatIsNoTomlIsRefusedWithLineAndColumn)
{
    EXPECT_EQ("line 2, column 10: from here on this is no TOML",
              complaint("[[on]]\nanswer = Blue7sky\n"));
    EXPECT_EQ("line 1, column 1: from here on this is no TOML", complaint("= 3\n"));
}

TEST(ScriptFile, WithAnUnknownKeyIsRefusedWithThoseThatThereAre)
{
    EXPECT_EQ("line 1, column 1: there is no such key here; there are on, user and seed",
              complaint("rules = 3\n"));
    EXPECT_EQ("line 3, column 1: there is no such key here; there are program, server, "
              "transaction, user, commarea, channel, containers, if, answer, answers, again, "
              "times, per and set",
              complaintAbout("program = \"A\"\nanwser = \"x\""));
    EXPECT_EQ("line 2, column 12: there is no such key here; there are text, hex, file, put, "
              "containers, code, abend, gateway, delay, fault, exec, workers, limit and times",
              complaintAbout("answer = { abedn = \"AB12\" }"));
    EXPECT_EQ("line 2, column 22: there is no such key here; there are text, hex, file, ccsid, "
              "length, put, containers, code, abend, gateway, delay, fault, exec, workers, limit "
              "and times",
              complaintAbout("answer = { hex = \"\", cssid = 37 }"));
    EXPECT_EQ("line 2, column 14: there is no such key here; there are text, hex, pattern, at, "
              "length and ccsid",
              complaintAbout("commarea = { offset = 3 }\nanswer = \"\""));
    EXPECT_EQ("line 2, column 9: there is no such key here; there are connection and unit",
              complaintAbout("set = { step = \"1\" }\nanswer = \"\""));
    EXPECT_EQ("line 2, column 1: there is no such key here; there are id and password",
              complaint("[[user]]\nsecret = \"x\"\n"));
}

TEST(ScriptFile, SaysWhatIsWrongWithAMatch)
{
    const std::pair<const char*, const char*> cases[] = {
        {"program = 3", "line 2, column 11: program is no text in quotes"},
        {"program = []", "line 2, column 11: program is an empty list"},
        {"program = [\"A\", 3]", "line 2, column 17: program is no text in quotes"},
        {"commarea = 3", "line 2, column 12: commarea is neither a text, a table, true nor false"},
        {"commarea = []", "line 2, column 12: commarea is an empty list"},
        {"commarea = {}", "line 2, column 12: commarea has none of text, hex, pattern and length"},
        {"commarea = { at = 2, length = 3 }",
         "line 2, column 19: at says nothing without text, hex or pattern"},
        {"commarea = { text = \"\", hex = \"\" }",
         "line 2, column 12: commarea has more than one of text, hex and pattern"},
        {"commarea = { hex = \"012\" }",
         "line 2, column 20: hex is no even number of hexadecimal digits"},
        {"commarea = { pattern = \"(\" }",
         "line 2, column 24: pattern is no regular expression that can be used"},
        {"commarea = { pattern = \"((a{1,999}){1,999}){1,999}\" }",
         "line 2, column 24: pattern is no regular expression that can be used"},
        {"commarea = { at = -1, text = \"\" }",
         "line 2, column 19: at is not a number from 0 to 16777216"},
        {"commarea = { text = \"\", ccsid = 4711 }", "line 2, column 33: this CCSID is not known"},
        {"containers = 3", "line 2, column 14: containers is no table of names"},
        {"containers.\"A B\" = \"x\"",
         "line 2, column 12: this is no name that a container may have"},
        {"channel = 3", "line 2, column 11: channel is no text in quotes"},
        {"if = 3", "line 2, column 6: if is no table"},
        {"if.unit = 3", "line 2, column 11: unit is no table"},
        {"if.unit.a = 3", "line 2, column 13: this is no text in quotes"},
    };
    for (const auto& [line, problem] : cases)
        EXPECT_EQ(problem, complaintAbout(std::string(line) + "\nanswer = \"\"")) << line;
}

TEST(ScriptFile, SaysWhatIsWrongWithAnAnswer)
{
    const std::pair<const char*, const char*> cases[] = {
        {"program = \"A\"", "line 1, column 1: each [[on]] has either an answer or a list of "
                            "answers"},
        {"answer = \"\"\nanswers = [\"\"]",
         "line 1, column 1: each [[on]] has either an answer or a list of answers"},
        {"answers = []", "line 2, column 11: answers is no list with something in it"},
        {"answer = 3", "line 2, column 10: answer is no table"},
        {"answer = { text = \"\", hex = \"\" }",
         "line 2, column 10: answer needs one of text, hex and file"},
        {"answer = { file = \"nowhere/there\" }",
         "line 2, column 19: this file: it cannot be read: No such file or directory"},
        {"answer = { file = \"tmp\" }", "line 2, column 19: this file: it is a folder"},
        {"answer = { text = \"\", put = [] }",
         "line 2, column 29: put changes the COMMAREA of the call, so there is no text, hex or "
         "file beside it"},
        {"answer = { put = { text = \"\" } }", "line 2, column 18: at is missing"},
        {"answer = { put = 3 }", "line 2, column 18: put is no table, and no list of tables"},
        {"answer = { code = \"-16\" }",
         "line 2, column 19: code is not a number from -2147483647 to 2147483647"},
        {"answer = { abend = \"ABCDE\" }", "line 2, column 20: abend has more than 4 characters"},
        {"answer = { abend = \"\" }",
         "line 2, column 20: abend is no code of 1 to 4 printable characters"},
        {"answer = { abend = \"ABCD\", code = -16 }",
         "line 2, column 20: abend comes with the code -7 and no other"},
        {"answer = { fault = \"explode\" }",
         "line 2, column 20: this is no misbehaviour; --list-misbehaviours shows them all"},
        {"answer = { fault = \"drop@once\" }",
         "line 2, column 20: a misbehaviour of an answer has no selector"},
        {"answer = { fault = \"pieces=7\" }",
         "line 2, column 20: this misbehaviour does not strike at answers; --misbehave takes it"},
        {"answer = { containers = { A = true } }",
         "line 2, column 31: a container is a text, a table, or false to delete it"},
        {"answer = { times = 0 }", "line 2, column 20: times is not a number from 1 to 1000000000"},
        {"answer = { workers = 2 }", "line 2, column 22: workers says nothing without exec"},
        {"answer = { exec = [] }", "line 2, column 19: exec is an empty list"},
        {"answer = { exec = \"\" }", "line 2, column 19: the program has no name"},
        {"answer = { exec = \"nowhere/there\" }", "line 2, column 19: there is no such program"},
        {"answer = { exec = \"./etc/passwd\" }", "line 2, column 19: this program may not be run"},
        {"answer = { exec = \"sh\", limit = \"0s\" }",
         "line 2, column 33: limit leaves no time at all"},
        {"answer = { exec = \"sh\", code = 3 }",
         "line 2, column 19: exec answers by itself, so there is nothing beside it but workers, "
         "limit, delay, fault and times"},
        {"answer = \"\"\nper = \"call\"",
         "line 3, column 7: per is neither \"connection\" nor \"unit\""},
        {"answer = \"\"\nagain = 1", "line 3, column 9: again is neither true nor false"},
    };
    for (const auto& [lines, problem] : cases) EXPECT_EQ(problem, complaintAbout(lines)) << lines;
}

TEST(ScriptFile, SaysWhatIsWrongWithAField)
{
    const std::string none = "line 2, column 10: there is no such field; there are program, "
                             "server, transaction, user, channel, connection, message, unit, "
                             "commarea, container:NAME, call, counter:NAME, connection.NAME, "
                             "unit.NAME and time";
    for (const char* const field :
         {"", "password", "container", "container:A B", "counter", "connection.", "user:3"}) {
        EXPECT_EQ(none, complaintAbout("answer = \"${" + std::string(field) + "}\"")) << field;
    }
    EXPECT_EQ("line 2, column 10: a field ${ has no end", complaintAbout("answer = \"${user\""));
    EXPECT_EQ("line 2, column 10: an offset or a length in a field is no number",
              complaintAbout("answer = \"${commarea:x}\""));
    EXPECT_EQ("line 2, column 10: a field has too many colons",
              complaintAbout("answer = \"${commarea:1:2:3}\""));
    EXPECT_EQ("line 2, column 10: a field has no number of digits from 0 to 18 behind its colon",
              complaintAbout("answer = \"${call:19}\""));
}

TEST(ScriptFile, SaysWhatIsWrongWithAUserAndNotWhatThePasswordIs)
{
    EXPECT_EQ("line 1, column 1: id is missing", complaint("[[user]]\npassword = \"Blue7sky\"\n"));
    EXPECT_EQ("line 1, column 1: password is missing", complaint("[[user]]\nid = \"FRED\"\n"));
    EXPECT_EQ("line 3, column 12: password is no text of 1 to 511 characters in quotes",
              complaint("[[user]]\nid = \"FRED\"\npassword = \"\"\n"));
    EXPECT_EQ("line 4, column 1: the id of this user is empty, or there twice",
              complaint("[[user]]\nid = \"FRED\"\npassword = \"Blue7sky\"\n"
                        "[[user]]\nid = \"FRED\"\npassword = \"Blue7sky\"\n"));
    EXPECT_EQ("line 3, column 12: from here on this is no TOML",
              complaint("[[user]]\nid = \"FRED\"\npassword = Blue7sky\n"));
}

TEST(ScriptFile, MayNotNestWithoutEnd)
{
    std::string key = "a";
    for (int i = 0; i < 200000; ++i) key += ".a";
    EXPECT_EQ("line 2, column 16: a key has more than 8 parts", complaint("\n" + key + " = 1\n"));
    EXPECT_EQ("line 1, column 17: a key has more than 8 parts", complaint("[" + key + "]\n"));
    EXPECT_NE("none", complaint("a = " + std::string(200000, '[')));
    std::string tables = "a = 1";
    for (int i = 0; i < 200; ++i) tables = "a.a.a.a.a.a.a = { " + tables + " }";
    const std::string deep = complaint(tables + "\n");
    EXPECT_NE(std::string::npos, deep.find(": this is too deep within others")) << deep;
    EXPECT_EQ("none", complaintAbout("answer = \"" + std::string(200, '.') + "\""));
    EXPECT_EQ("none", complaintAbout("answer = '''\n" + std::string(200, '.') + "\"\n'''"));
}

namespace {

const char* const kSeedOfTheFuzz = R"(seed = 3
[[on]]
program = ["PRICE", "ST*"]
user = "FRED"
commarea = [{ at = 2, text = "11", ccsid = 37 }, { pattern = "^[0-9]+$" }, { length = 80 }]
containers = { NAME = "Fred", "A.B" = false, C = { hex = "01ff" } }
if.connection.step = ["1", "2"]
answers = ["text ${commarea:0:4} ${call:3}", { abend = "AB12", times = 3 }]
again = true
per = "unit"
set.unit.step = "${unit.step}x"

[[on]]
channel = "ORDER"
answer = { text = "x", delay = { median = "5ms", p99 = "30ms" }, fault = ["ping", "truncate=7"] }

[[on]]
times = 7
[on.answer]
put = [{ at = 3, hex = "00" }, { at = 9, text = "${counter:n:6} ${time:%H%M}" }]
gateway = 61448
[on.answer.containers]
NEW = { text = "K\u00e4se", ccsid = 1208, length = 20 }
OLD = false
)";

const char* const kPieces[] = {"\"",
                               "'",
                               "'''",
                               "\"\"\"",
                               "[",
                               "]",
                               "[[",
                               "]]",
                               "{",
                               "}",
                               "=",
                               ".",
                               "\n",
                               "${",
                               "\\u12",
                               "\\",
                               "1979",
                               "-",
                               "true",
                               "inf",
                               "0x",
                               "#",
                               "answer",
                               "on",
                               ",",
                               "\xC3",
                               "\xFF",
                               "\t",
                               "$${",
                               ":",
                               "ccsid",
                               "text",
                               "99999999999999999999",
                               "pattern = \"(a*)*\"",
                               "user",
                               "1e999"};

} // namespace

// Thousands of scripts that are spoiled in places by chance, always the same ones.
TEST(ScriptFile, WhateverStandsInItIsReadOrRefusedWithLineAndColumn)
{
    std::mt19937 chance(7);
    const auto below = [&](std::size_t end) { return static_cast<std::size_t>(chance()) % end; };
    ASSERT_EQ("none", complaint(kSeedOfTheFuzz));
    int refused = 0;
    for (int i = 0; i < 4000; ++i) {
        std::string text = kSeedOfTheFuzz;
        for (std::size_t changes = 1 + below(4); changes > 0; --changes) {
            const std::size_t at = below(text.size());
            switch (below(4)) {
            case 0: text.erase(at, 1 + below(20)); break;
            case 1: text.insert(at, kPieces[below(std::size(kPieces))]); break;
            case 2: text[at] = static_cast<char>(below(256)); break;
            default: text.insert(at, text.substr(below(text.size()), below(60))); break;
            }
        }
        const std::string said = complaint(text);
        if (said == "none") continue;
        ++refused;
        unsigned line = 0;
        unsigned column = 0;
        int length = 0;
        const int read = std::sscanf(said.c_str(), "line %u, column %u: %n", &line, &column,
                                     &length);
        ASSERT_TRUE(read == 2 && length > 0 && line > 0 && column > 0) << said << "\n" << text;
    }
    EXPECT_GT(refused, 2000);
    EXPECT_LT(refused, 4000);
}
