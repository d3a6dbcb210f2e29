// The page for users: what stands in its tables comes from the results, and what they mean from
// here.
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

// ---- Words ---------------------------------------------------------------------------------------

const char* const head = R"(# What a call waits for, and how long

For those who must know what happens when a Gateway, its host or the network fails. Each row of the
tables is a result of `tools/bounds`, which makes %CALLS% calls that can wait, in each state that the
connection may be in meanwhile, meet %FAULTS% things that may happen at the other side: %CELLS% cases.
Of each it tells what the call returns, what ends its wait, and where the next call works. `./check`
tries them again, of those that take seconds a few, and fails if this page says something else.

A call that is not here waits for nobody at the other side. The waits for the look-up of a name and
for whoever reads the trace are in the [guide](guide.md#waits-without-a-limit).

## In short

- **What can be noticed ends every wait at once**: a connection that is ended or reset, a Gateway
  that is killed, and what cannot be read. Calls return `QPX_ERR_LOSTGWCON`, closes mostly 0. The
  one exception is a close that waits for replies which nobody collects.
- **A dead host or line ends a wait when the kernel gives up**, which is a matter of [its
  settings](#what-the-kernel-bounds): after a quarter of an hour if something has been sent that
  nobody acknowledges, and after more than two hours if not. The settings below make it two minutes.
  An open with a limit returns at its limit.
- **A Gateway that lives and says nothing, or is stopped, ends no wait**: the kernel of its host
  answers for it. These waits are [without bound](#waits-without-bound).
- **A line that comes back before the kernel gives up has lost nothing**: the call returns with its
  answer.
- Whatever has happened, **the next call works**: on the same connection, where that has not ended, or
  on a new one.

A purge with more than 0 seconds first waits for calls in progress, for so many seconds; behind that
it is as one with 0.

)";

const char* const kernel = R"(## What the kernel bounds

The library sets `SO_KEEPALIVE` on its sockets and leaves all times to the system. The settings count
for the host, or for the container that has a network of its own (`docker run --sysctl`), and for
connections that are opened behind their change.

| What ends the wait | Settings | As they are by default | As below |
|---|---|---|---|
| retransmission gives up: something has been sent that nobody acknowledges, or cannot be sent for want of room | `net.ipv4.tcp_retries2` | 15: 924 s at least, 928 s measured | 8: 105 s measured |
| keepalive gives up: the call only waits, and the host is dead | `net.ipv4.tcp_keepalive_time`, `_probes`, `_intvl` | 7,200 + 9 * 75 = 7,875 s, computed | 60 + 6 * 10 s: 120 s measured |
| keepalive is answered with a reset: the call only waits, and the host was restarted | `net.ipv4.tcp_keepalive_time` | 7,200 s, computed | 60 s, computed |
| the system gives up connecting: the address drops what comes | `net.ipv4.tcp_syn_retries` | 6: 134 s measured | the open's limit |
| the system gives up connecting: the address is that of no host on the network | `net.ipv4.neigh.default.mcast_solicit` | 3: 3 s measured | the open's limit |

```
sysctl -w net.ipv4.tcp_keepalive_time=60 net.ipv4.tcp_keepalive_intvl=10 \
    net.ipv4.tcp_keepalive_probes=6 net.ipv4.tcp_retries2=8
```

The time of retransmission grows with that of a packet there and back; here it is that of a fast
network. A close that is made behind the kernel's giving up returns at once. What is called measured
was measured by hand, over a link that was cut, with these settings; `tools/bounds` sets all of them
to a few seconds, in a network of its own, and reads in the kernel's table of connections which timer
a wait depends on.

)";

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

// ---- Tables --------------------------------------------------------------------------------------

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
    std::string text = "## Call by call\n\n\"With that\" is at once: with the answer, or when the "
                       "end is noticed.\n";
    for (const auto& [tables, titles] : sections)
        text += "\n### " + joined(titles, ", ") + "\n" + tables;
    return text;
}

// ---- The overview --------------------------------------------------------------------------------

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
    return text + "\n";
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
    std::string text = "## Waits without bound\n\nNothing that the library or the kernel does ends "
                       "these:\n\n| Call | The Gateway | Ends | Way out |\n|---|---|---|---|\n";
    for (const auto& [outcome, row] : rows)
        text += "| " + joined(row.calls, ", ") + " | " + phrasesOf(row.faults, row.all) + " | " +
                outcome + " |\n";
    return text + R"(
Whoever runs the Gateway ends all that wait for it, but for the open that got a goodbye, by ending
the connection, the process or the host. So does, as root and where the kernel was built for it,
`ss --kill dst ADDRESS dport = PORT` on the host of the application.

)";
}

std::string counted(std::string text, const std::string& word, std::size_t number)
{
    std::size_t place = text.find(word);
    return text.replace(place, word.size(), std::to_string(number));
}

} // namespace

std::string pageOf(const std::vector<Result>& results)
{
    std::string text = counted(head, "%CALLS%", allCalls().size());
    text = counted(text, "%FAULTS%", allFaults().size());
    text = counted(text, "%CELLS%", results.size());
    return text + overview(results) + withoutBound(results) + kernel + callByCall(results);
}

} // namespace bounds
