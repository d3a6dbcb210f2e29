#include "script/script.h"

#include <algorithm>
#include <stdexcept>

#include "registry/password_hash.h"
#include "standin/misbehaviour.h"

namespace script {

using conf::Section;
using conf::Value;

namespace {

constexpr std::size_t kLongestName = 100;
constexpr std::int64_t kMostTimes = 1000000000;
constexpr std::size_t kMostUsers = 100;
constexpr std::int64_t kLargestCode = 2147483647;

std::vector<std::string> faultsIn(const Value& value)
{
    std::vector<std::string> faults = conf::textsIn(value, "fault", 1000);
    for (const std::string& fault : faults) {
        const bool isTooMuch = fault.find('@') != std::string::npos;
        try {
            if (!isTooMuch &&
                standin::strikesAtAnswers(standin::parseMisbehaviour(fault).misbehaviour.fault))
                continue;
        } catch (const std::invalid_argument&) {
            conf::complain(value, "this is no misbehaviour; --list-misbehaviours shows them all");
        }
        conf::complain(value, isTooMuch ? "a misbehaviour of an answer has no selector"
                                        : "this misbehaviour does not strike at answers; "
                                          "--misbehave takes it");
    }
    return faults;
}

std::vector<ContainerAnswer> containerAnswersIn(const Value& value, const std::string& folder)
{
    if (!value.isTable()) conf::complain(value, "containers is no table of names");
    std::vector<ContainerAnswer> answers;
    for (const conf::Entry& entry : value.entries) {
        if (!standin::isChannelName(entry.key))
            throw conf::Wrong(entry.place, "this is no name that a container may have");
        ContainerAnswer answer;
        answer.name = entry.key;
        if (entry.value.kind != Value::Kind::Flag) {
            answer.content = Content::read(entry.value, "this container", folder);
        } else if (entry.value.flag) {
            conf::complain(entry.value, "a container is a text, a table, or false to delete it");
        }
        answers.push_back(std::move(answer));
    }
    return answers;
}

std::vector<Piece> piecesIn(const Value& value, const std::string& folder)
{
    std::vector<const Value*> tables;
    if (value.isList()) {
        for (const Value& element : value.list) tables.push_back(&element);
    } else {
        tables.push_back(&value);
    }
    std::vector<Piece> pieces;
    for (const Value* const table : tables) {
        if (!table->isTable()) conf::complain(*table, "put is no table, and no list of tables");
        const auto at = conf::numberIn(Section(*table, "put").needed("at"), "at", 0, 32767);
        pieces.push_back(
            {static_cast<std::size_t>(at), Content::read(*table, "put", folder, {"at"})});
    }
    return pieces;
}

std::shared_ptr<exec::Pool> poolIn(const Section& section, const Surroundings& around)
{
    const Value* const command = section.find("exec");
    if (command == nullptr) {
        for (const char* const key : {"workers", "limit"}) {
            if (const Value* const value = section.find(key))
                conf::complain(*value, std::string(key) + " says nothing without exec");
        }
        return nullptr;
    }
    exec::Command started;
    started.words = conf::textsIn(*command, "exec", 4096);
    started.folder = around.folder;
    started.workers = static_cast<std::size_t>(section.number("workers", 1, 64).value_or(2));
    if (const auto limit = section.time("limit")) started.limit = *limit;
    if (started.limit.count() == 0)
        conf::complain(*section.find("limit"), "limit leaves no time at all");
    const std::string problem = exec::complaintAbout(started);
    if (!problem.empty()) conf::complain(*command, problem);
    return std::make_shared<exec::Pool>(std::move(started), around.exec);
}

std::string abendIn(const Value& value)
{
    const std::string abend = conf::textIn(value, "abend", 4);
    const bool isPrintable = std::all_of(abend.begin(), abend.end(),
                                         [](char c) { return c >= ' ' && c <= '~'; });
    if (abend.empty() || !isPrintable)
        conf::complain(value, "abend is no code of 1 to 4 printable characters");
    return abend;
}

Answer answerIn(const Value& value, const Surroundings& around)
{
    Answer answer;
    if (value.isText()) {
        answer.commarea = Content::read(value, "answer", around.folder);
        return answer;
    }
    const Section section(value, "answer");
    const std::vector<std::string> others = {"put",     "containers", "code",  "abend",
                                             "gateway", "delay",      "fault", "exec",
                                             "workers", "limit",      "times"};
    if (Content::isIn(value)) {
        answer.commarea = Content::read(value, "answer", around.folder, others);
    } else {
        std::vector<std::string> keys = {"text", "hex", "file"};
        keys.insert(keys.end(), others.begin(), others.end());
        section.expectOnly(keys);
    }
    if (const Value* const put = section.find("put")) {
        if (answer.commarea)
            conf::complain(*put, "put changes the COMMAREA of the call, so there "
                                 "is no text, hex or file beside it");
        answer.pieces = piecesIn(*put, around.folder);
    }
    if (const Value* const containers = section.find("containers"))
        answer.containers = containerAnswersIn(*containers, around.folder);
    answer.code = static_cast<std::int32_t>(
        section.number("code", -kLargestCode, kLargestCode).value_or(0));
    if (const Value* const abend = section.find("abend")) {
        answer.abend = abendIn(*abend);
        if (section.find("code") != nullptr && answer.code != standin::kServerAbend)
            conf::complain(*abend, "abend comes with the code -7 and no other");
        answer.code = standin::kServerAbend;
    }
    answer.gateway = static_cast<std::int32_t>(
        section.number("gateway", -kLargestCode, kLargestCode).value_or(0));
    if (const Value* const delay = section.find("delay")) answer.delay = Delay::read(*delay);
    if (const Value* const fault = section.find("fault")) answer.faults = faultsIn(*fault);
    answer.times = static_cast<std::uint64_t>(section.number("times", 1, kMostTimes).value_or(1));
    answer.exec = poolIn(section, around);
    if (answer.exec != nullptr &&
        (answer.commarea || !answer.pieces.empty() || !answer.containers.empty() || answer.abend ||
         answer.code != 0 || answer.gateway != 0))
        conf::complain(*section.find("exec"), "exec answers by itself, so there is nothing beside "
                                              "it but workers, limit, delay, fault and times");
    return answer;
}

// The tables "connection" and "unit" of if and set.
template <typename Take>
void readScopes(const Value& value, const std::string& name, Take take)
{
    const Section section(value, name);
    section.expectOnly({"connection", "unit"});
    for (const char* const scope : {"connection", "unit"}) {
        const Value* const table = section.find(scope);
        if (table == nullptr) continue;
        if (!table->isTable()) conf::complain(*table, std::string(scope) + " is no table");
        for (const conf::Entry& entry : table->entries) take(scope[0] == 'c', entry);
    }
}

Rule ruleFrom(const Value& value, const Surroundings& around)
{
    const Section section(value, "on");
    std::vector<std::string> keys = CallMatch::keys();
    keys.insert(keys.end(), {"if", "answer", "answers", "again", "times", "per", "set"});
    section.expectOnly(keys);
    Rule rule;
    rule.line = value.place.line;
    rule.match = CallMatch::read(section);
    if (const Value* const condition = section.find("if")) {
        readScopes(*condition, "if", [&](bool ofConnection, const conf::Entry& entry) {
            (ofConnection ? rule.ifConnection : rule.ifUnit)
                .push_back({entry.key, conf::textsIn(entry.value, "this", 1000)});
        });
    }
    if (const Value* const set = section.find("set")) {
        readScopes(*set, "set", [&](bool ofConnection, const conf::Entry& entry) {
            (ofConnection ? rule.setConnection : rule.setUnit)
                .push_back({entry.key, Template(entry.value, "this", kUsualCcsid)});
        });
    }

    const Value* const answer = section.find("answer");
    const Value* const answers = section.find("answers");
    if ((answer == nullptr) == (answers == nullptr))
        conf::complain(value, "each [[on]] has either an answer or a list of answers");
    if (answer != nullptr) rule.answers.push_back(answerIn(*answer, around));
    if (answers != nullptr) {
        if (!answers->isList() || answers->list.empty())
            conf::complain(*answers, "answers is no list with something in it");
        for (const Value& element : answers->list)
            rule.answers.push_back(answerIn(element, around));
    }
    rule.again = section.flag("again").value_or(false);
    if (const auto times = section.number("times", 1, kMostTimes))
        rule.times = static_cast<std::uint64_t>(*times);
    if (const auto per = section.text("per", kLongestName)) {
        if (*per != "connection" && *per != "unit")
            conf::complain(*section.find("per"), "per is neither \"connection\" nor \"unit\"");
        rule.per = *per == "unit" ? Per::Unit : Per::Connection;
    }
    return rule;
}

// Before anything is hashed the whole file has been looked at: hashing takes its time.
std::map<std::string, std::string> usersIn(const Section& root)
{
    std::vector<std::pair<std::string, const Value*>> given;
    for (const Value* const table : root.tables("user")) {
        const Section section(*table, "user");
        section.expectOnly({"id", "password"});
        const std::string id = conf::textIn(section.needed("id"), "id", 16);
        const Value& password = section.needed("password");
        if (!password.isText() || !registry::isHashable(password.text))
            conf::complain(password, "password is no text of 1 to 511 characters in quotes");
        const bool isKnown = std::any_of(given.begin(), given.end(),
                                         [&](const auto& one) { return one.first == id; });
        if (id.empty() || isKnown)
            conf::complain(*table, "the id of this user is empty, or there twice");
        if (given.size() == kMostUsers) conf::complain(*table, "there are more than 100 users");
        given.emplace_back(id, &password);
    }
    std::map<std::string, std::string> users;
    for (const auto& [id, password] : given) users[id] = registry::hashOf(password->text);
    return users;
}

} // namespace

std::shared_ptr<const Script> readScript(const Value& file, const Surroundings& around)
{
    const Section root(file, "a script");
    root.expectOnly({"on", "user", "seed"});
    const auto script = std::make_shared<Script>();
    script->seed = static_cast<std::uint64_t>(root.number("seed", 0, kLargestCode).value_or(1));
    for (const Value* const on : root.tables("on")) script->rules.push_back(ruleFrom(*on, around));
    script->users = usersIn(root);
    return script;
}

} // namespace script
