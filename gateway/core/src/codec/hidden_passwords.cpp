// Passwords in the bytes of a request, and how they are overwritten.

#include <algorithm>
#include <string>

#include "standin/wire.h"

namespace standin {

namespace {

constexpr std::size_t kRequestTypeLengthOffset = 20;
constexpr std::size_t kRequestTypeOffset = 24;
constexpr std::size_t kBehindRequestType = 5; // security and data length

// From the beginning of the body.
constexpr std::size_t kEciPasswordLength = 45;
constexpr std::size_t kEsiPasswordLength = 14;
constexpr std::size_t kEsiServer = 8; // between the two passwords

std::int32_t intAt(const Bytes& flow, std::size_t at)
{
    std::uint32_t value = 0;
    for (std::size_t i = at; i < at + 4; ++i) value = value << 8U | flow[i];
    return static_cast<std::int32_t>(value);
}

// From `from` up to `to`, or up to the end of the flow.
void overwrite(Bytes& flow, std::size_t from, std::size_t to)
{
    const std::size_t end = std::min(to, flow.size());
    for (std::size_t i = from; i < end; ++i) flow[i] = 0x00;
}

// Overwrites what stands behind the length at `at`; returns where that ends.
std::size_t hideCounted(Bytes& flow, std::size_t at)
{
    if (at + 4 > flow.size()) {
        overwrite(flow, at, flow.size());
        return flow.size();
    }
    const std::int32_t length = intAt(flow, at);
    const bool isPossible = length >= 0 &&
                            static_cast<std::size_t>(length) <= flow.size() - (at + 4);
    const std::size_t end = isPossible ? at + 4 + static_cast<std::size_t>(length) : flow.size();
    overwrite(flow, at + 4, end);
    return end;
}

} // namespace

void hidePasswords(Bytes& flow)
{
    if (flow.size() < kRequestTypeOffset) return;
    const std::int32_t typeLength = intAt(flow, kRequestTypeLengthOffset);
    if (typeLength != 3) return overwrite(flow, kRequestTypeOffset, flow.size());
    const std::size_t body = kRequestTypeOffset + 3 + kBehindRequestType;
    if (flow.size() < body + 4) return overwrite(flow, body, flow.size());

    const std::string type(flow.begin() + kRequestTypeOffset,
                           flow.begin() + kRequestTypeOffset + 3);
    const std::int32_t callType = intAt(flow, body);
    if (type == "ECI" && callType == kCallListSystems) return;
    if (type == "ECI" && (callType == kCallProgram || callType == kCallTransaction)) {
        hideCounted(flow, body + kEciPasswordLength);
    } else if (type == "ESI" && (callType == kEsiVerify || callType == kEsiChange)) {
        const std::size_t behind = hideCounted(flow, body + kEsiPasswordLength);
        if (callType == kEsiChange) hideCounted(flow, behind + kEsiServer);
    } else {
        overwrite(flow, body, flow.size());
    }
}

} // namespace standin
