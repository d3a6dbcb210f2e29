// The page for users: its text is in page.md, and what stands in its tables comes from the results.
#include <algorithm>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "bounds/matrix.h"
#include "qpxclient.h"

namespace bounds {

namespace {

using Results = std::vector<const Result*>;

// ---- Words --------------------------------------------------------------------------------------

const char* phraseOf(const std::string& bound)
{
    static const std::map<std::string, const char*> phrases = {
        {"event", "with that"},
        {"end", "**not before the connection ends**"},
        {"keepalive", "when keepalive gives up"},
        {"retransmission", "when retransmission gives up"},
        {"connecting", "when the system gives up connecting"},
        {"limit", "at its limit"},
        {"application", "**when the application collects the replies, or closes all connections**"},
        {"never", "**never**"},
    };
    return phrases.at(bound);
}

std::string phraseOf(State state)
{
    switch (state) {
    case State::Opening: return "it opens";
    case State::Idle: return "the connection is idle; then the call is made";
    case State::Calling: return "a call waits for its reply";
    case State::Sending: return "a large channel is being sent, and the Gateway does not read";
    case State::Collecting: return "the reply of an asynchronous call is due";
    case State::Closing: return "the Gateway's goodbye is waited for";
    }
    return "";
}

std::string codeName(int rc)
{
    char name[QPX_RC_STRING_SIZE];
    return rc == QPX_OK ? "0" : "`" + std::string(QPX_getRcString(rc, name)) + "`";
}

bool isWithoutBound(const Result& result)
{
    return result.bound == "end" || result.bound == "application" || result.bound == "never";
}

bool isProgramCall(const Call& call)
{
    return std::strstr(call.title, "QPX_ECI_") != nullptr;
}

// What an application does about a wait without bound.
std::string wayOut(const Call& call, const Result& result)
{
    if (result.bound == "never")
        return "none but the end of the process: nothing that is a Gateway does this, so look at "
               "the "
               "port";
    if (result.bound == "application")
        return "collect every reply before the close; or purge, which gives them up";
    std::string state = result.state;
    if (state == "opening" && std::strstr(call.name, "Limited") != nullptr)
        return "the limit ends with the first byte: who sends one and stays is no Gateway, so look "
               "at the port";
    if (state == "opening") return "open with a limit";
    if (call.role == Role::Close)
        return "close in a thread that the program can do without; or end the process, which waits "
               "for nothing";
    if (state == "sending")
        return "none from within, for a purge waits behind it; make such calls on a connection of "
               "their own, in a thread that the program can do without";
    if (call.role == Role::Container)
        return "do not touch a channel that a call has; or end that call as it can be ended";
    if (call.role == Role::Work && !isProgramCall(call))
        return "a purge from another thread, if the Gateway answers its goodbye";
    return "`eci_timeout`, which makes a Gateway that lives answer; a purge from another thread, "
           "if "
           "the Gateway answers its goodbye";
}

// ---- Tables -------------------------------------------------------------------------------------

std::string joined(const std::vector<std::string>& words, const char* separator)
{
    std::string all;
    for (const std::string& word : words) all += (all.empty() ? "" : separator) + word;
    return all;
}

const Fault& faultOf(const Result& result)
{
    for (const Fault& fault : allFaults())
        if (result.fault == fault.name) return fault;
    return allFaults().front();
}

Results resultsOf(const std::vector<Result>& results, const std::string& call, State state)
{
    Results found;
    for (const Result& result : results)
        if (result.call == call && result.state == nameOf(state)) found.push_back(&result);
    return found;
}

std::string phrasesOf(const std::vector<std::string>& phrases, std::size_t all)
{
    return phrases.size() == all && all > 1 ? "does whatever it may" : joined(phrases, "; ");
}

// Faults that come to the same stand in one row.
std::string rowsOf(const Results& results)
{
    std::vector<std::pair<std::string, std::vector<std::string>>> rows;
    for (const Result* result : results) {
        std::string next = result->next == "same"  ? "the same connection"
                           : result->next == "new" ? "a new one"
                                                   : "-";
        std::string outcome = (result->bound == "never" ? "-" : codeName(result->rc)) + " | " +
                              phraseOf(result->bound) + " | " + next;
        auto row = std::find_if(rows.begin(), rows.end(),
                                [&](const auto& each) { return each.first == outcome; });
        if (row == rows.end()) row = rows.insert(rows.end(), {outcome, {}});
        row->second.push_back(faultOf(*result).phrase);
    }
    std::string text;
    for (const auto& [outcome, phrases] : rows)
        text += "| " + phrasesOf(phrases, results.size()) + " | " + outcome + " |\n";
    return text;
}

std::string tablesOf(const std::vector<Result>& results, const Call& call)
{
    std::string text;
    for (State state : call.states) {
        text += "\nWhile " + phraseOf(state) + ":\n\n" +
                "| The Gateway | Returns | Ends | Next call on |\n|---|---|---|---|\n" +
                rowsOf(resultsOf(results, call.name, state));
    }
    return text;
}

// Calls that come to the same in everything share their tables.
std::string callByCall(const std::vector<Result>& results)
{
    std::vector<std::pair<std::string, std::vector<std::string>>> sections;
    for (const Call& call : allCalls()) {
        std::string tables = tablesOf(results, call);
        auto section = std::find_if(sections.begin(), sections.end(),
                                    [&](const auto& each) { return each.first == tables; });
        if (section == sections.end()) section = sections.insert(sections.end(), {tables, {}});
        section->second.push_back(call.title);
    }
    std::string text;
    for (const auto& [tables, titles] : sections)
        text += "\n### " + joined(titles, ", ") + "\n" + tables;
    return text;
}

// ---- The overview -------------------------------------------------------------------------------

std::string boundOf(const std::vector<Result>& results, const Call& call, State state,
                    const char* fault)
{
    for (const Result* result : resultsOf(results, call.name, state))
        if (result->fault == fault)
            return result->bound == "event" ? "does not wait" : phraseOf(result->bound);
    return "-";
}

std::string overview(const std::vector<Result>& results)
{
    std::vector<std::pair<std::string, std::vector<std::string>>> rows;
    for (const Call& call : allCalls())
        for (State state : call.states) {
            std::string outcome = phraseOf(state) + " | " + boundOf(results, call, state, "dead") +
                                  " | " + boundOf(results, call, state, "silent");
            auto row = std::find_if(rows.begin(), rows.end(),
                                    [&](const auto& each) { return each.first == outcome; });
            if (row == rows.end()) row = rows.insert(rows.end(), {outcome, {}});
            row->second.push_back(call.title);
        }
    std::string text = "| Call | While | If the host is dead it ends | If the Gateway is silent it "
                       "ends |\n|---|---|---|---|\n";
    for (const auto& [outcome, titles] : rows)
        text += "| " + joined(titles, ", ") + " | " + outcome + " |\n";
    return text;
}

struct Unbounded {
    std::vector<std::string> calls;
    std::vector<std::string> faults;
    std::size_t all = 0; // faults that meet the call in such a state
};

void addOnce(std::vector<std::string>& words, const std::string& word)
{
    if (std::find(words.begin(), words.end(), word) == words.end()) words.push_back(word);
}

std::string withoutBound(const std::vector<Result>& results)
{
    std::vector<std::pair<std::string, Unbounded>> rows;
    for (const Call& call : allCalls())
        for (const Result& result : results) {
            if (result.call != call.name || !isWithoutBound(result)) continue;
            std::string outcome = std::string(phraseOf(result.bound)) + " | " +
                                  wayOut(call, result);
            auto row = std::find_if(rows.begin(), rows.end(),
                                    [&](const auto& each) { return each.first == outcome; });
            if (row == rows.end()) row = rows.insert(rows.end(), {outcome, {}});
            addOnce(row->second.calls, call.title);
            addOnce(row->second.faults, faultOf(result).phrase);
            for (State state : call.states)
                if (result.state == nameOf(state))
                    row->second.all = resultsOf(results, call.name, state).size();
        }
    std::string text = "| Call | The Gateway | Ends | Way out |\n|---|---|---|---|\n";
    for (const auto& [outcome, row] : rows)
        text += "| " + joined(row.calls, ", ") + " | " + phrasesOf(row.faults, row.all) + " | " +
                outcome + " |\n";
    return text;
}

void fill(std::string& text, const std::string& name, const std::string& value)
{
    std::size_t place = text.find("%" + name + "%");
    if (place != std::string::npos) text.replace(place, name.size() + 2, value);
}

} // namespace

std::string pageOf(const std::vector<Result>& results, std::string text)
{
    fill(text, "CALLS", std::to_string(allCalls().size()));
    fill(text, "FAULTS", std::to_string(allFaults().size()));
    fill(text, "CELLS", std::to_string(results.size()));
    fill(text, "OVERVIEW", overview(results));
    fill(text, "WITHOUT_BOUND", withoutBound(results));
    fill(text, "CALL_BY_CALL", callByCall(results));
    return text;
}

} // namespace bounds
