// The channel of a reply as tests write it out by hand: change records, and the section around
// them.
#ifndef SUPPORT_CHANNEL_BYTES_H
#define SUPPORT_CHANNEL_BYTES_H

#include <cstddef>
#include <string>

#include "support/bytes.h"

namespace support {

constexpr int changeAdded = 1;
constexpr int changeDeleted = 2;
constexpr int changeModified = 3;
constexpr int changeUnchanged = 4;

// A record without data: the length says what the test wants it to say.
inline Bytes changeOf(const std::string& name, int code, int type, int ccsid, int length)
{
    return padded(name, 16) +
           Bytes{static_cast<unsigned char>(code), 0, 0, static_cast<unsigned char>(type)} +
           be32(ccsid) + be32(length);
}

inline Bytes added(const std::string& name, int type, int ccsid, const Bytes& data)
{
    return changeOf(name, changeAdded, type, ccsid, static_cast<int>(data.size())) + data;
}
inline Bytes modified(const std::string& name, int type, int ccsid, const Bytes& data)
{
    return changeOf(name, changeModified, type, ccsid, static_cast<int>(data.size())) + data;
}
inline Bytes deleted(const std::string& name)
{
    return changeOf(name, changeDeleted, 1, 0, 0);
}
inline Bytes unchanged(const std::string& name)
{
    return changeOf(name, changeUnchanged, 1, 0, 0);
}

// A channel section: the name, the ccsid, and a number of records that the test gives.
inline Bytes channelSection(const std::string& name, int ccsid, int count, const Bytes& records)
{
    return padded(name, 16) + be32(ccsid) + be32(count) + records;
}

// The body of a reply to a program call that ends with a channel section.
inline Bytes replyBody(const Bytes& channel)
{
    return hex("00000001 00000000 00000000 00000000 20202020 00000000 00 FF") + channel;
}

// Where the channel section begins in such a body.
constexpr std::size_t channelOffset = 26;

} // namespace support

#endif
