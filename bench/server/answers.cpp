#include "answers.h"

#include <cstdlib>

namespace bench {

namespace {

// Offsets in the body of a program call without a password.
constexpr std::size_t qualifierOffset = 12;
constexpr std::size_t passwordLengthOffset = 45;
constexpr std::size_t programOffset = 49;
constexpr std::size_t programSize = 8;
constexpr std::size_t transactionSize = 4;

// Offsets in the section of a channel, and in one of its records.
constexpr std::size_t containerCountOffset = 20;
constexpr std::size_t channelHeadSize = 24;
constexpr std::size_t changeOffset = 16;
constexpr std::size_t dataLengthOffset = 24;
constexpr std::size_t recordHeadSize = 28;

constexpr char added = 1;
constexpr char modified = 3;
constexpr char unchanged = 4;

constexpr char flagSet = '\xFF';
constexpr char flagClear = '\0';

// A program call as far as the server looks at it.
struct ProgramCall {
    std::string program;
    std::uint32_t qualifier;
    char* commarea;
    std::size_t commareaSize;
    char* channel; // nullptr without one
};

// Steps over a flag and the length behind it, which is stored if it is there.
char* pastLength(char* at, std::size_t* length)
{
    if (*at != flagSet) return at + 1;
    if (length != nullptr) *length = intAt(at + 1);
    return at + 5;
}

ProgramCall readProgramCall(const Flow& flow)
{
    ProgramCall call;
    call.qualifier = intAt(flow.body + qualifierOffset);
    char* at = flow.body + programOffset + intAt(flow.body + passwordLengthOffset);
    call.program.assign(at, programSize);
    call.program.erase(call.program.find_last_not_of(std::string(" \0", 2)) + 1);
    at += programSize + transactionSize;
    at += 4 + intAt(at); // workload token
    call.commareaSize = intAt(at);
    at = pastLength(at + 4, &call.commareaSize);
    call.commarea = pastLength(at, nullptr);
    at = call.commarea + call.commareaSize;
    call.channel = *at == flagSet ? at + 1 : nullptr;
    return call;
}

void addPiece(Reply* reply, const char* data, std::size_t size)
{
    reply->pieces[reply->count++] = {const_cast<char*>(data), size};
}

// The header and what stands before the COMMAREA.
Bytes replyHead(const Flow& flow, const ProgramCall& call, std::size_t sizeBehind)
{
    constexpr std::uint32_t programCall = 1;
    Bytes head;
    head.header(replyFlow, flow.id, "ECI", replyHeadSize - callHeaderSize + sizeBehind);
    head.number(programCall).number(0).number(call.qualifier).number(0);
    head.fill(4, ' '); // abend code
    head.number(static_cast<std::uint32_t>(call.commareaSize));
    return head.fill(1, flagClear);
}

void answerWithCommarea(const Flow& flow, const ProgramCall& call, Reply* reply)
{
    static const char noChannel[replyTailSize] = {flagClear};
    reply->made = replyHead(flow, call, call.commareaSize + replyTailSize);
    addPiece(reply, reply->made.data(), reply->made.size());
    addPiece(reply, call.commarea, call.commareaSize);
    addPiece(reply, noChannel, replyTailSize);
}

// ---- Channels ----

std::size_t recordSizeAt(const char* record)
{
    return recordHeadSize + intAt(record + dataLengthOffset);
}

// Every container comes back modified, with the data that it had: the section of the request with
// other changes.
void answerWithAllModified(const Flow& flow, const ProgramCall& call, Reply* reply)
{
    char* record = call.channel + channelHeadSize;
    for (std::uint32_t left = intAt(call.channel + containerCountOffset); left > 0; --left) {
        record[changeOffset] = modified;
        record += recordSizeAt(record);
    }
    const std::size_t size = static_cast<std::size_t>(record - call.channel);
    reply->made = replyHead(flow, call, 1 + size);
    reply->made.fill(1, flagSet);
    addPiece(reply, reply->made.data(), reply->made.size());
    addPiece(reply, call.channel, size);
}

void appendUnchanged(const char* section, Bytes* out)
{
    const char* record = section + channelHeadSize;
    for (std::uint32_t left = intAt(section + containerCountOffset); left > 0; --left) {
        const std::size_t at = out->size();
        out->append(record, recordHeadSize);
        (*out)[at + changeOffset] = unchanged;
        record += recordSizeAt(record);
    }
}

void appendAdded(std::uint32_t count, Bytes* out)
{
    constexpr std::uint32_t binary = 1;
    static const char data[8] = {'a', 'd', 'd', 'e', 'd', '.', '.', '.'};
    for (std::uint32_t number = 0; number < count; ++number) {
        out->text("ADDED" + std::to_string(number), changeOffset, '\0');
        out->fill(1, added).fill(2, '\0').fill(1, binary);
        out->number(0).number(sizeof data);
        out->append(data, sizeof data);
    }
}

// Every container comes back unchanged, and behind them come those that are added.
void answerWithUnchanged(const Flow& flow, const ProgramCall& call, std::uint32_t addedCount,
                         Reply* reply)
{
    Bytes section;
    section.append(call.channel, channelHeadSize);
    putInt(&section[containerCountOffset], intAt(call.channel + containerCountOffset) + addedCount);
    appendUnchanged(call.channel, &section);
    appendAdded(addedCount, &section);
    reply->made = replyHead(flow, call, 1 + section.size());
    reply->made.fill(1, flagSet);
    reply->made.append(section);
    addPiece(reply, reply->made.data(), reply->made.size());
}

void answerWithChannel(const Flow& flow, const ProgramCall& call, Reply* reply)
{
    const bool adds = call.program.compare(0, 3, "ADD") == 0;
    if (call.program == "MODIFY")
        answerWithAllModified(flow, call, reply);
    else
        answerWithUnchanged(
            flow, call,
            adds ? static_cast<std::uint32_t>(std::strtoul(call.program.c_str() + 3, nullptr, 10))
                 : 0,
            reply);
}

// ---- Answers that are held back ----

Bytes joined(const Reply& reply)
{
    Bytes whole;
    for (std::size_t piece = 0; piece < reply.count; ++piece)
        whole.append(static_cast<const char*>(reply.pieces[piece].iov_base),
                     reply.pieces[piece].iov_len);
    return whole;
}

void holdBack(Conversation* conversation, Reply* reply)
{
    conversation->held.push_back(joined(*reply));
    reply->count = 0;
}

// All that is held goes out in front of the reply.
void releaseHeld(Conversation* conversation, Reply* reply)
{
    Bytes all;
    for (const Bytes& held : conversation->held) all.append(held);
    all.append(joined(*reply));
    conversation->held.clear();
    reply->made = std::move(all);
    reply->count = 0;
    addPiece(reply, reply->made.data(), reply->made.size());
}

// ---- Passwords ----

void answerPassword(const Flow& flow, Reply* reply)
{
    constexpr std::size_t numbers = 23;
    reply->made.clear();
    reply->made.header(replyFlow, flow.id, "ESI", numbers * 4).number(0);
    for (int time = 0; time < 3; ++time)
        for (const std::uint32_t part : {2026U, 1U, 30U, 17U, 2U, 11U, 25U})
            reply->made.number(part);
    reply->made.number(0); // wrong attempts
    addPiece(reply, reply->made.data(), reply->made.size());
}

} // namespace

void answerConnectionFlow(const Flow& flow, Reply* reply)
{
    reply->count = 0;
    reply->made.clear();
    reply->made.header(flow.type, flow.id, "BASE", 0);
    addPiece(reply, reply->made.data(), reply->made.size());
}

void answerRequest(const Flow& flow, Conversation* conversation, Reply* reply)
{
    reply->count = 0;
    if (flow.isPasswordRequest) {
        answerPassword(flow, reply);
        return;
    }
    const ProgramCall call = readProgramCall(flow);
    if (call.channel != nullptr)
        answerWithChannel(flow, call, reply);
    else
        answerWithCommarea(flow, call, reply);
    if (call.program == "HOLD") holdBack(conversation, reply);
    if (call.program == "RELEASE") releaseHeld(conversation, reply);
}

} // namespace bench
