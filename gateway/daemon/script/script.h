// A script: which calls it answers, and how. docs/gateway.md describes the file.
//
// Thread: one at a time; what is counted while it runs is not kept here.
#ifndef SCRIPT_H
#define SCRIPT_H

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "exec/pool.h"
#include "script/call_match.h"
#include "script/content.h"
#include "script/delay.h"

namespace script {

// Bytes that are put into the COMMAREA of the call.
struct Piece {
    std::size_t at = 0;
    Content content;
};

// What becomes of a container; without content it is deleted.
struct ContainerAnswer {
    std::string name;
    std::optional<Content> content;
};

struct Answer {
    std::optional<Content> commarea;
    std::vector<Piece> pieces;
    std::vector<ContainerAnswer> containers;
    std::int32_t code = 0;
    std::optional<std::string> abend;
    std::int32_t gateway = 0;
    std::optional<Delay> delay;
    std::vector<std::string> faults;
    std::shared_ptr<exec::Pool> exec; // null: none
    std::uint64_t times = 1;          // in a row, before the next one comes
};

// Whose calls are counted together.
enum class Per { Script, Connection, Unit };

// Conditions on, and changes of, what is kept by name.
struct Condition {
    std::string name;
    std::vector<std::string> values;
};
struct Setting {
    std::string name;
    Template value;
};

// One [[on]].
struct Rule {
    std::uint32_t line = 0;
    CallMatch match;
    std::vector<Condition> ifConnection;
    std::vector<Condition> ifUnit;
    std::optional<std::uint64_t> times; // so many calls are answered, and then no more
    Per per = Per::Script;
    bool again = false; // behind the last answer comes the first one; else the last one stays
    std::vector<Answer> answers;
    std::vector<Setting> setConnection;
    std::vector<Setting> setUnit;
};

struct Script {
    std::vector<Rule> rules;
    std::map<std::string, std::string> users; // hashes of their passwords, by id
    std::uint64_t seed = 1;
};

// What a script needs of the daemon.
struct Surroundings {
    std::string folder; // of the file
    exec::Options exec;
};

// Throws conf::Wrong.
std::shared_ptr<const Script> readScript(const conf::Value& file, const Surroundings& around);

} // namespace script

#endif
