// What the tests of password calls and of the list of systems add to connection_script.h: their
// replies, field by field, and a connection on which such a call runs while the test answers it.
#ifndef SUPPORT_ESI_SCRIPT_H
#define SUPPORT_ESI_SCRIPT_H

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "qpxclient_esi.h"
#include "support/eci_script.h"

namespace script {

// The body of an accepted password call, as numbers that all differ: last verified on 16 February
// 2026 at 03:04:05.06, expiry on 18 September 2027 at 10:11:12.13, last access on 22 March 2025 at
// 17:18:19.20, seven invalid attempts.
constexpr const char* acceptedBody =
    "00000000"
    "000007EA 00000001 00000010 00000003 00000004 00000005 00000006"
    "000007EB 00000008 00000012 0000000A 0000000B 0000000C 0000000D"
    "000007E9 00000002 00000016 00000011 00000012 00000013 00000014"
    "00000007";

inline Bytes esiReply(int messageId, const Bytes& body, int gatewayRc = 0)
{
    return flow(replyType, messageId, gatewayRc, "ESI", body);
}

inline Bytes acceptance(int messageId)
{
    return esiReply(messageId, hex(acceptedBody));
}

inline Bytes refusal(int messageId, int serverCode)
{
    return esiReply(messageId, be32(serverCode));
}

// The values of a time, in the order of the record.
inline std::vector<int> valuesOf(const ESI_DATETIME& time)
{
    return {time.year, time.month, time.day, time.hour, time.minute, time.second, time.hundredths};
}

// Details that no reply has written to, with bytes before and behind them.
class Details {
public:
    Details() { std::memset(&area_, 0x55, sizeof area_); }

    ESI_DETAILS* get() { return &area_.details; }
    const ESI_DETAILS* operator->() const { return &area_.details; }

    bool areUntouched() const { return isUntouched(&area_.details, sizeof area_.details); }
    bool haveNothingAround() const
    {
        return isUntouched(area_.before, sizeof area_.before) &&
               isUntouched(area_.behind, sizeof area_.behind);
    }

    // All 22 numbers, in the order of the record.
    std::vector<int> values() const
    {
        std::vector<int> all = valuesOf(area_.details.lastVerifiedTime);
        for (int value : valuesOf(area_.details.lastAccessedTime)) all.push_back(value);
        for (int value : valuesOf(area_.details.expiryTime)) all.push_back(value);
        all.push_back(area_.details.invalidCount);
        return all;
    }

private:
    static bool isUntouched(const void* start, std::size_t size)
    {
        auto* bytes = static_cast<const unsigned char*>(start);
        for (std::size_t at = 0; at < size; ++at)
            if (bytes[at] != 0x55) return false;
        return true;
    }

    struct {
        char before[32];
        ESI_DETAILS details;
        char behind[32];
    } area_;
};

// What acceptedBody puts into the record: verified, accessed, expiry, attempts.
inline std::vector<int> acceptedValues()
{
    return {2026, 1, 16, 3, 4, 5, 6, 2025, 2, 22, 17, 18, 19, 20, 2027, 8, 18, 10, 11, 12, 13, 7};
}

// One entry of a list reply: 9 bytes of name, 61 of description.
inline Bytes systemEntry(const Bytes& name, const std::string& description = "")
{
    Bytes entry = name;
    entry.resize(9, 0);
    entry += support::padded(description, 61);
    return entry;
}
inline Bytes systemEntry(const std::string& name, const std::string& description = "")
{
    return systemEntry(text(name), description);
}

// The reply to a list query, field by field. The length says what it is told to say.
class ListReply {
public:
    ListReply& callType(int value) { return callType_ = value, *this; }
    ListReply& reported(int value) { return reported_ = value, *this; }
    ListReply& serverCode(int value) { return serverCode_ = value, *this; }
    ListReply& data(int length, const Bytes& bytes)
    {
        length_ = length;
        data_ = bytes;
        return *this;
    }
    ListReply& data(const Bytes& bytes) { return data(static_cast<int>(bytes.size()), bytes); }

    Bytes body() const
    {
        return be32(callType_) + be32(reported_) + be32(serverCode_) + be32(length_) + data_;
    }

    Bytes to(int messageId, int gatewayRc = 0) const
    {
        return flow(replyType, messageId, gatewayRc, "ECI", body());
    }

private:
    int callType_ = 9;
    int reported_ = 0;
    int serverCode_ = 0;
    int length_ = 0;
    Bytes data_;
};

// A caller's array of systems, filled with 'U', with as many bytes again behind it.
class SystemArray {
public:
    explicit SystemArray(std::size_t entries)
        : size_(entries * 70), area_(entries * 70 + 140, 'U'),
          count(static_cast<unsigned short>(entries))
    {
    }

    QPX_listSystem_t* get() { return reinterpret_cast<QPX_listSystem_t*>(area_.data()); }

    Bytes entry(std::size_t index) const { return support::slice(bytes(), index * 70, 70); }
    Bytes name(std::size_t index) const { return support::slice(bytes(), index * 70, 9); }
    std::string description(std::size_t index) const
    {
        return support::toText(support::slice(bytes(), index * 70 + 9, 61));
    }

    bool isUntouched() const { return bytes() == Bytes(area_.size(), 'U'); }
    bool hasNothingBehind() const
    {
        return support::slice(bytes(), size_, area_.size() - size_) ==
               Bytes(area_.size() - size_, 'U');
    }

private:
    Bytes bytes() const { return Bytes(area_.begin(), area_.end()); }

    std::size_t size_;
    std::vector<char> area_;

public:
    unsigned short count; // as the caller's *Systems
};

// The clear text of a scrambled password.
inline Bytes unscrambled(const Bytes& scrambled)
{
    Bytes clear;
    for (std::size_t at = 0; at < scrambled.size(); ++at)
        clear.push_back(
            static_cast<unsigned char>(at == 0 ? ~scrambled[0] : scrambled[at] ^ clear[at - 1]));
    return clear;
}

// Everything that the dumps of a trace show, as bytes again.
inline Bytes dumpedBytes(const std::string& trace)
{
    constexpr std::size_t hexWidth = 35;
    Bytes all;
    std::size_t end = 0;
    for (std::size_t start = 0; start < trace.size(); start = end + 1) {
        end = std::min(trace.find('\n', start), trace.size());
        std::string line = trace.substr(start, end - start);
        std::size_t behindAddress = line.find(": ");
        if (line.compare(0, 2, "0x") != 0 || behindAddress == std::string::npos) continue;
        all += hex(line.substr(behindAddress + 2, hexWidth));
    }
    return all;
}

inline bool holds(const Bytes& bytes, const Bytes& part)
{
    return std::search(bytes.begin(), bytes.end(), part.begin(), part.end()) != bytes.end();
}

class EsiConnection : public ::testing::Test {
protected:
    // Calls that run while the test answers them. What they point to outlives them.
    support::RunningCall<int> startVerify(const char* userid, const char* password,
                                          const char* server = nullptr,
                                          ESI_DETAILS* details = nullptr)
    {
        QPX_ConnToken_t token = connection.token;
        return callInThread(
            [=] { return QPX_ESI_verifyPassword(token, userid, password, server, details); });
    }
    support::RunningCall<int> startChange(const char* userid, const char* oldPassword,
                                          const char* newPassword, const char* server = nullptr,
                                          ESI_DETAILS* details = nullptr)
    {
        QPX_ConnToken_t token = connection.token;
        return callInThread([=] {
            return QPX_ESI_changePassword(token, userid, oldPassword, newPassword, server, details);
        });
    }
    support::RunningCall<int> startList(SystemArray& systems)
    {
        QPX_ConnToken_t token = connection.token;
        return callInThread(
            [=, &systems] { return QPX_listSystems(token, &systems.count, systems.get()); });
    }

    // The same, answered with these bytes. The message id of the request is 1.
    int verifyAnswered(const Bytes& answer, ESI_DETAILS* details = nullptr)
    {
        auto call = startVerify("USER", "SECRET", nullptr, details);
        answerWith(answer);
        return call.get();
    }
    int changeAnswered(const Bytes& answer, ESI_DETAILS* details = nullptr)
    {
        auto call = startChange("USER", "SECRET", "TERCES", nullptr, details);
        answerWith(answer);
        return call.get();
    }
    int listAnswered(const Bytes& answer, SystemArray& systems)
    {
        auto call = startList(systems);
        answerWith(answer);
        return call.get();
    }

    void answerWith(const Bytes& answer)
    {
        request = connection.awaitRequest();
        EXPECT_EQ(1, request.messageId());
        connection.peer.send(answer);
    }

    // The connection serves all three kinds of calls, and every slot is free again.
    void expectServing()
    {
        expectStillServing(connection);
        Details details;
        EXPECT_RC(0, verifyAnswered(acceptance(1), details.get()));
        EXPECT_EQ(acceptedValues(), details.values());
        SystemArray systems(1);
        EXPECT_RC(0,
                  listAnswered(ListReply().reported(1).data(systemEntry("PROD")).to(1), systems));
        EXPECT_EQ(1, systems.count);
    }

    ScriptedConnection connection;
    Request request; // the last one that was answered
};

} // namespace script

#endif
