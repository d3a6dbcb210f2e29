#include "trace_calls.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace qpx {

namespace {

constexpr int kHandshake = -2; // message id

// What is in the record of a call, from these places on.
constexpr std::size_t kProgramAt = 2;
constexpr std::size_t kAbendCodeAt = 46;
constexpr std::size_t kExtendModeAt = 58; // with pointers of 4 bytes
constexpr std::size_t kRecordOf32Bits = 98;

std::string trimmed(std::string text)
{
    const std::size_t end = text.find_last_not_of(std::string(" \0", 2));
    text.erase(end == std::string::npos ? 0 : end + 1);
    for (char& c : text)
        if (static_cast<unsigned char>(c) < 0x20 || static_cast<unsigned char>(c) > 0x7e) c = '.';
    return text;
}

// The numbers of a record are those of the machine that has written it, which is little-endian.
int shortAt(const std::string& bytes, std::size_t at)
{
    if (at + 2 > bytes.size()) return 0;
    return static_cast<unsigned char>(bytes[at]) | static_cast<unsigned char>(bytes[at + 1]) << 8U;
}

// What a call of this function does, in words; "" if it does not talk to a Gateway.
std::string purposeOf(const std::string& function, const TraceLine& line)
{
    if (function == "QPX_openRemoteGatewayConnectionApplid")
        return line.is("ENTRY")
                   ? "open " + line.behind("hostname=", ",") + ":" + line.behind(" port=")
                   : "open";
    if (function == "QPX_closeGatewayConnection") return "close";
    if (function == "QPX_closeAllGatewayConnections") return "close all";
    if (function == "QPX_purgeGatewayConnection") return "purge";
    if (function == "QPX_listSystems") return "list systems";
    if (function == "QPX_ECI_Execute") return "call";
    if (function == "QPX_ECI_Execute_Channel") return "channel";
    if (function == "QPX_ESI_verifyPassword")
        return trimmed("verify " + line.behind("userid=", ","));
    if (function == "QPX_ESI_changePassword")
        return trimmed("change " + line.behind("userid=", ","));
    return "";
}

} // namespace

std::string shortLine(const TraceLine& line)
{
    char prefix[24];
    std::snprintf(prefix, sizeof prefix, "[%04d] %-6s ", line.point, line.type.c_str());
    return prefix + line.message;
}

// ---- What is kept -------------------------------------------------------------------------------

void TraceCalls::event(unsigned number, std::int64_t time, unsigned long thread,
                       const std::string& what)
{
    if (number == 0 || number != watchedConnection_) return;
    connection(number).events.push_back({time, thread, what, {}});
}

void TraceCalls::tell(TracedCall& ended)
{
    if (tell_ && !ended.told) tell_(ended);
    ended.told = true;
}

void TraceCalls::keepForWatchedCall(const TraceLine& line, ThreadState& thread)
{
    if (watchedCall_ == 0) return;
    const TracedEvent kept = {line.time, line.thread, shortLine(line), dumpOf(line)};
    const bool open = std::find(thread.open.begin(), thread.open.end(), watchedCall_) !=
                      thread.open.end();
    if (open || thread.answered == watchedCall_)
        timeLine_.push_back(kept);
    else if (thread.receives != 0 && thread.answered == 0)
        thread.block.push_back(kept);
}

void TraceCalls::keepDump(const TraceLine& line, const ThreadState& thread)
{
    if (watchedConnection_ == 0 || line.addresses.empty()) return;
    const unsigned at = thread.open.empty() ? thread.receives : call(thread.open.back()).connection;
    if (at != watchedConnection_) return;
    connection(at).events.push_back({line.time, line.thread, shortLine(line), dumpOf(line)});
}

unsigned TraceCalls::newConnection(const TraceLine& line, const std::string& token)
{
    TracedConnection made;
    made.number = static_cast<unsigned>(connections_.size()) + 1;
    made.process = line.process;
    made.token = token;
    connections_.push_back(made);
    tokens_[{line.process, token}] = made.number;
    return made.number;
}

unsigned TraceCalls::connectionOf(const TraceLine& line, const std::string& token)
{
    const auto known = tokens_.find({line.process, token});
    return known == tokens_.end() ? newConnection(line, token) : known->second;
}

void TraceCalls::giveConnection(const TraceLine& line, TracedCall& current,
                                const std::string& token)
{
    if (current.connection != 0 || token.empty() || token == "(nil)") return;
    const bool opens = current.function == "QPX_openRemoteGatewayConnectionApplid";
    current.connection = opens ? newConnection(line, token) : connectionOf(line, token);
    connection(current.connection).calls += 1;
    if (opens && current.what.size() > 5)
        connection(current.connection).place = current.what.substr(5);
    event(current.connection, current.begin >= 0 ? current.begin : line.time, current.thread,
          "call " + std::to_string(current.number) + " begins: " + current.what);
}

// ---- Calls --------------------------------------------------------------------------------------

void TraceCalls::beginCall(const TraceLine& line, ThreadState& thread)
{
    TracedCall begun;
    begun.number = static_cast<unsigned>(calls_.size()) + 1;
    begun.process = line.process;
    begun.thread = line.thread;
    begun.begin = line.time;
    begun.function = line.behind("API.", "(");
    begun.what = purposeOf(begun.function, line);
    begun.talks = !begun.what.empty();
    if (!begun.talks) begun.what = begun.function;
    calls_.push_back(begun);
    thread.open.push_back(begun.number);
    if (begun.function == "QPX_getApplid" || begun.function == "QPX_getApplidQualifier") return;
    giveConnection(line, calls_.back(), line.behind("(gwTok="));
}

// A level without ENTRY lines tells that a connection is at work, and no more.
void TraceCalls::beginUnnamedCall(const TraceLine& line, ThreadState& thread)
{
    TracedCall begun;
    begun.number = static_cast<unsigned>(calls_.size()) + 1;
    begun.process = line.process;
    begun.thread = line.thread;
    begun.begin = line.time;
    begun.what = "call";
    begun.talks = true;
    calls_.push_back(begun);
    thread.open.push_back(begun.number);
    giveConnection(line, calls_.back(), line.behind("gwTokPtr="));
}

void TraceCalls::closeCall(TracedCall& ended, const TraceLine& line, ThreadState& thread)
{
    ended.ended = true;
    ended.end = line.time;
    thread.open.pop_back();
    if (ended.connection != 0) {
        TracedConnection& at = connection(ended.connection);
        if (ended.failed()) at.failed += 1;
        event(ended.connection, line.time, line.thread,
              "call " + std::to_string(ended.number) + " ends: " + ended.what + ", " +
                  (!ended.rc        ? "result unknown"
                   : ended.failed() ? ended.rcName
                                    : "ok"));
        const auto waits = std::find(at.waiting.begin(), at.waiting.end(), ended.number);
        if (waits != at.waiting.end()) {
            // Who succeeds before its reply has come does not wait for it.
            if (!ended.failed() && at.unknownReplies == 0) ended.asynchronous = true;
            if (!ended.failed() && ended.asynchronous) return;
            if (ended.failed() || ended.messageId != 0) at.waiting.erase(waits);
        }
    }
    tell(ended);
}

void TraceCalls::endCall(const TraceLine& line, ThreadState& thread)
{
    const std::string function = line.behind("API.", "(");
    // Calls whose EXIT is missing have ended, too: those of a thread lie within each other.
    while (!thread.open.empty() && call(thread.open.back()).function != function) {
        const bool within = std::any_of(thread.open.begin(), thread.open.end(), [&](unsigned open) {
            return call(open).function == function;
        });
        if (!within) break;
        tell(call(thread.open.back()));
        thread.open.pop_back();
    }
    if (thread.open.empty() || call(thread.open.back()).function != function) {
        beginCall(line, thread);
        call(thread.open.back()).begin = kUnknownTime;
    }
    TracedCall& ended = call(thread.open.back());
    const std::string code = line.behind(" rc=", " ,\t");
    if (!code.empty()) {
        ended.rc = std::atoi(code.c_str());
        ended.rcName = line.behind(" rc=" + code + " (", ")");
        if (ended.rcName.empty()) ended.rcName = code;
    }
    closeCall(ended, line, thread);
}

void TraceCalls::send(TracedCall& current, std::int64_t time)
{
    if (current.sent >= 0 || current.connection == 0 || !current.talks) return;
    if (current.what == "close" || current.what == "purge" || current.what == "close all") return;
    current.sent = time;
    if (current.what.compare(0, 4, "open") == 0) current.messageId = kHandshake;
    connection(current.connection).waiting.push_back(current.number);
    event(current.connection, time, current.thread,
          "call " + std::to_string(current.number) + " is sent");
}

void TraceCalls::lookAtRecord(const TraceLine& line, TracedCall& current)
{
    if (line.offset != 0 || line.bytes.size() < kProgramAt + 8) return;
    const std::string program = trimmed(line.bytes.substr(kProgramAt, 8));
    const std::size_t wider = line.behind("len=", " ") == std::to_string(kRecordOf32Bits) ? 0 : 4;
    const std::string verb = current.function == "QPX_ECI_Execute" ? "call" : "channel";
    const int extend = shortAt(line.bytes, kExtendModeAt + wider);
    current.collects = shortAt(line.bytes, 0) > 2;
    switch (shortAt(line.bytes, 0)) {
    case 1:
    case 2:
        current.asynchronous = shortAt(line.bytes, 0) == 2;
        current.what = verb + " " + program;
        if (extend == 2) current.what = "commit";
        if (extend == 4) current.what = "backout";
        if (extend == 1) current.what += ", in a unit";
        if (current.asynchronous) current.what += ", asynchronous";
        break;
    case 3: current.what = "get a reply"; break;
    case 4: current.what = "wait for a reply"; break;
    case 5: current.what = "get its reply"; break;
    case 6: current.what = "wait for its reply"; break;
    default: break;
    }
}

void TraceCalls::lookAtCall(const TraceLine& line, TracedCall& current)
{
    switch (line.point) {
    case 2040: giveConnection(line, current, line.behind("newToken=")); break;
    case 2011: giveConnection(line, current, line.behind("gwTokPtr=")); break;
    case 2015:
    case 2020: giveConnection(line, current, line.behind("gwTokPtr=")); break;
    case 2066: giveConnection(line, current, line.behind("gwToken=")); break;
    case 2052:
        if (current.connection != 0)
            tables_[{line.process, line.behind("requestTableP=")}] = current.connection;
        break;
    case 2525: send(current, line.time); break;
    case 1504:
    case 1513: lookAtRecord(line, current); break;
    case 1505:
    case 1515:
        if (line.offset == 0 && line.bytes.size() >= kAbendCodeAt + 4)
            current.abendCode = trimmed(line.bytes.substr(kAbendCodeAt, 4));
        break;
    case 1536:
        // Which of the ways to collect a reply it is the record tells at higher levels.
        current.collects = true;
        if (current.what == "call" || current.what == "channel") current.what = "get a reply";
        break;
    case 2526:
        if (line.offset == 0 && line.bytes.size() >= 16 && line.bytes.compare(0, 4, "Gate") == 0 &&
            line.bytes[11] == 1)
            current.messageId = static_cast<unsigned char>(line.bytes[14]) << 8U |
                                static_cast<unsigned char>(line.bytes[15]);
        break;
    default: break;
    }
}

// A connection that is being opened where no ENTRY tells so.
void TraceCalls::lookAtConnecting(const TraceLine& line, ThreadState& thread)
{
    if (line.point == 2012) {
        thread.place = line.behind("Connected to Gateway ", " ");
        thread.socket = line.behind("socketDescriptor(");
        const unsigned number = thread.open.empty() ? 0 : call(thread.open.back()).connection;
        if (number != 0) {
            connection(number).place = thread.place;
            connection(number).socket = thread.socket;
            connection(number).opened = line.time;
        }
    }
    if (line.point == 2009 && thread.open.empty() && !thread.place.empty()) {
        TracedConnection& made = connection(newConnection(line, line.behind("GatwayToken(")));
        made.place = thread.place;
        made.socket = thread.socket;
        made.opened = line.time;
        event(made.number, line.time, line.thread, "is opened to " + made.place);
        thread.place.clear();
    }
}

// ---- Replies ------------------------------------------------------------------------------------

void TraceCalls::answer(TracedConnection& at, ThreadState& receiver, TracedCall& answered)
{
    answered.answered = receiver.arrived;
    at.waiting.erase(std::find(at.waiting.begin(), at.waiting.end(), answered.number));
    receiver.answered = answered.number;
    event(at.number, receiver.arrived, at.receiver,
          "call " + std::to_string(answered.number) + " is answered");
    if (answered.number == watchedCall_)
        timeLine_.insert(timeLine_.end(), receiver.block.begin(), receiver.block.end());
    receiver.block.clear();
    if (answered.ended) tell(answered);
}

// No reply tells any more whose it is.
void TraceCalls::forget(TracedConnection& at)
{
    const std::vector<unsigned> waiting = std::move(at.waiting);
    at.waiting.clear();
    at.unknownReplies = 0;
    for (const unsigned number : waiting)
        if (call(number).ended) tell(call(number));
}

// Finds the call whose reply this is: the one with its message id, which a dump has told, or the
// only one that waits.
void TraceCalls::match(const TraceLine& line, ThreadState& receiver, int messageId)
{
    TracedConnection& at = connection(receiver.receives);
    std::vector<unsigned> unknown;
    for (const unsigned number : at.waiting) {
        if (call(number).messageId == messageId) return answer(at, receiver, call(number));
        if (call(number).messageId == 0) unknown.push_back(number);
    }
    if (unknown.size() == 1 && at.unknownReplies == 0)
        return answer(at, receiver, call(unknown.front()));
    at.unknownReplies += 1;
    event(at.number, receiver.arrived, line.thread, "a reply arrives");
    if (at.unknownReplies >= unknown.size()) forget(at);
}

void TraceCalls::lookAtReceiver(const TraceLine& line, ThreadState& thread)
{
    if (line.point == 3031) {
        thread.receives = connectionOf(line, line.behind("conn="));
        connection(thread.receives).receiver = line.thread;
    }
    if (line.point == 2524) thread.arrived = line.time;
    // A receiver that was there before the trace is known by the table in which it looks.
    if (line.point == 2061 && thread.receives == 0) {
        const auto known = tables_.find({line.process, line.behind("requestTableP=")});
        if (known == tables_.end()) return;
        thread.receives = known->second;
        connection(thread.receives).receiver = line.thread;
    }
    if (thread.receives == 0) return;
    TracedConnection& at = connection(thread.receives);
    switch (line.point) {
    case 2522: // waits for the next one
        thread.answered = 0;
        thread.block.clear();
        break;
    case 2524:
        if (!at.waiting.empty() && call(at.waiting.front()).messageId == kHandshake)
            answer(at, thread, call(at.waiting.front()));
        break;
    case 2061: match(line, thread, std::atoi(line.behind("messageId=").c_str())); break;
    case 3042:
        at.closed = line.time;
        at.closing = "by " + line.behind("initiated by ", ";");
        event(at.number, line.time, line.thread, "is closed " + at.closing);
        forget(at);
        break;
    case 3041:
        if (at.closed < 0) {
            at.closed = line.time;
            at.closing = "as it was lost";
            event(at.number, line.time, line.thread, "is lost");
            forget(at);
        }
        thread = {};
        break;
    default: break;
    }
}

void TraceCalls::noteFailure(const TraceLine& line, ThreadState& thread)
{
    const unsigned number = !thread.open.empty() ? thread.open.back() : thread.answered;
    if (number != 0)
        call(number).failures.push_back(shortLine(line));
    else
        strays_.push_back({line.time, line.thread, shortLine(line), {}});
    const unsigned at = number != 0 ? call(number).connection : thread.receives;
    event(at, line.time, line.thread, shortLine(line));
}

// ---- The frame ----------------------------------------------------------------------------------

void TraceCalls::add(const TraceLine& line)
{
    ThreadState& thread = threads_[{line.process, line.thread}];
    const bool ofCall = line.message.compare(0, 4, "API.") == 0;

    if (ofCall && line.is("ENTRY")) beginCall(line, thread);
    if (line.point == 2023 && thread.open.empty()) beginUnnamedCall(line, thread);
    keepForWatchedCall(line, thread);
    if (!thread.open.empty()) lookAtCall(line, call(thread.open.back()));
    lookAtConnecting(line, thread);
    if (line.is("*EXC*")) noteFailure(line, thread);
    if (ofCall && line.is("EXIT"))
        endCall(line, thread);
    else if (line.point == 2027 && !thread.open.empty() &&
             call(thread.open.back()).function.empty())
        closeCall(call(thread.open.back()), line, thread);
    lookAtReceiver(line, thread);
    keepDump(line, thread);
}

void TraceCalls::finish()
{
    for (TracedConnection& at : connections_) forget(at);
    for (auto& [key, thread] : threads_) {
        for (const unsigned number : thread.open) tell(call(number));
        thread.open.clear();
    }
}

} // namespace qpx
