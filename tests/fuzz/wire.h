// What a Gateway sends, made and taken apart by the tests alone, and how it is mutated.
#ifndef FUZZ_WIRE_H
#define FUZZ_WIRE_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "world.h"

// From libFuzzer: mutates bytes without knowing what they are. The replay programs have one too.
extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t maxSize);

namespace wire {

inline void put8(std::string& out, std::uint32_t value)
{
    out.push_back(static_cast<char>(value & 0xFFU));
}

inline void put16(std::string& out, std::uint32_t value)
{
    put8(out, value >> 8U);
    put8(out, value);
}

inline void put32(std::string& out, std::uint32_t value)
{
    put16(out, value >> 16U);
    put16(out, value);
}

inline std::uint32_t get32(const std::string& bytes, std::size_t at)
{
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < 4; ++i)
        value = value << 8U | static_cast<unsigned char>(at + i < bytes.size() ? bytes[at + i] : 0);
    return value;
}

inline void set32(std::string& bytes, std::size_t at, std::uint32_t value)
{
    std::string field;
    put32(field, value);
    if (at + 4 <= bytes.size()) bytes.replace(at, 4, field);
}

// A flow with its header: 24 bytes of numbers, the name of its kind, a byte, the body's length.
inline std::string flow(std::uint32_t type, std::uint32_t id, std::uint32_t rc,
                        const std::string& name, const std::string& body)
{
    std::string out;
    put32(out, 0x47617465);
    put32(out, 0x10A01000);
    put32(out, type);
    put32(out, id);
    put32(out, rc);
    put32(out, static_cast<std::uint32_t>(name.size()));
    out += name;
    put8(out, 0);
    put32(out, static_cast<std::uint32_t>(body.size()));
    return out + body;
}

constexpr std::size_t NAME_LENGTH_AT = 20;
constexpr std::size_t HEADER_BEFORE_NAME = 24;

inline std::size_t bodyAt(const std::string& bytes, std::size_t flowAt)
{
    std::size_t name = get32(bytes, flowAt + NAME_LENGTH_AT);
    return flowAt + HEADER_BEFORE_NAME + (name <= 6 ? name : 3) + 5;
}

// Where the flows of a stream begin, as far as they can be told apart, and the stream's end.
inline std::vector<std::size_t> flowsOf(const std::string& stream)
{
    std::vector<std::size_t> starts;
    std::size_t at = 0;
    while (at < stream.size()) {
        starts.push_back(at);
        std::size_t body = bodyAt(stream, at);
        if (body > stream.size()) break;
        std::size_t length = get32(stream, body - 4);
        if (length > stream.size() - body) break;
        at = body + length;
    }
    starts.push_back(stream.size());
    return starts;
}

// A length that is near the right one, or far from every right one.
inline std::uint32_t oddLength(world::Chance& chance, std::uint32_t right)
{
    static const std::uint32_t FAR[] = {0,          1,          0x7FFFFFFF, 0x80000000, 0xFFFFFFFF,
                                        0xFFFFFFFE, 0x7FFFFFFE, 0x80000001, 0x00100000, 0x000FFFFF,
                                        0x00008000, 0x00007FFF, 0x0000FFFF, 0x00010000, 0x40000000,
                                        33000,      33001,      2048,       1024,       0xC0000000};
    switch (chance.below(4)) {
    case 0: return right + 1 + chance.below(3);
    case 1: return right - 1 - chance.below(3);
    case 2: return FAR[chance.below(sizeof FAR / sizeof *FAR)];
    default: return chance.below(2 * right + 40);
    }
}

// A container's name: a few of them, so that they meet, and some that are alike for long.
inline std::string containerName(world::Chance& chance)
{
    static const char* const ODD[] = {"SIXTEENLETTERSOK", "SIXTEENLETTERSOL", "A", "", "B\0C",
                                      "FIFTEENLETTERSO"};
    std::string name = chance.oneIn(6) ? ODD[chance.below(6)]
                                       : "C" + std::to_string(chance.below(40));
    name.resize(16, chance.oneIn(12) ? ' ' : '\0');
    return name;
}

inline std::string containerRecord(world::Chance& chance)
{
    std::string out = containerName(chance);
    put8(out, chance.oneIn(10) ? chance.below(256) : 1 + chance.below(4));
    put16(out, chance.below(3));
    put8(out, chance.oneIn(6) ? chance.below(256) : 1 + chance.below(2));
    put32(out, chance.oneIn(3) ? 0 : 819);
    std::uint32_t length = chance.oneIn(12) ? chance.below(3000) : chance.below(12);
    put32(out, chance.oneIn(12) ? oddLength(chance, length) : length);
    char kind = out[16];
    if (kind == 1 || kind == 3)
        for (std::uint32_t i = 0; i < length; ++i) out.push_back(static_cast<char>('a' + i % 26));
    return out;
}

inline std::string channelSection(world::Chance& chance)
{
    std::string out = "CHANNEL";
    out.resize(16, '\0');
    put32(out, 819);
    std::uint32_t records = chance.oneIn(4) ? chance.below(50) : chance.below(5);
    put32(out, chance.oneIn(12) ? oddLength(chance, records) : records);
    for (std::uint32_t i = 0; i < records; ++i) out += containerRecord(chance);
    return out;
}

inline std::string eciBody(world::Chance& chance, bool hasChannel)
{
    std::string out;
    put32(out, chance.oneIn(10) ? chance.below(14) : (chance.oneIn(2) ? 1 : 12));
    put32(out, chance.below(4));                             // unit of work
    put32(out, chance.below(3));                             // qualifier
    put32(out, chance.oneIn(3) ? 0U - chance.below(40) : 0); // the server's code
    out += chance.oneIn(3) ? std::string("ABND") : std::string(4, '\0');
    std::uint32_t length = chance.oneIn(8) ? chance.below(5000) : chance.below(40);
    put32(out, chance.oneIn(10) ? oddLength(chance, length) : length);
    std::uint32_t inbound = length;
    if (chance.oneIn(2)) {
        inbound = chance.oneIn(4) ? oddLength(chance, length) : chance.below(length + 1);
        put8(out, 0xFF);
        put8(out, 0xFF);
        put32(out, inbound);
    } else {
        put8(out, 0);
    }
    if (inbound > 6000) inbound = length;
    for (std::uint32_t i = 0; i < inbound; ++i) out.push_back(static_cast<char>('A' + i % 26));
    put8(out, hasChannel ? 0xFF : 0);
    if (hasChannel) out += channelSection(chance);
    return out;
}

inline std::string listBody(world::Chance& chance)
{
    std::string out;
    std::uint32_t count = chance.below(6);
    put32(out, 9);
    put32(out, chance.oneIn(6) ? oddLength(chance, count) : count);
    put32(out, chance.oneIn(4) ? 0U - chance.below(40) : 0);
    put32(out, chance.oneIn(6) ? oddLength(chance, 70 * count) : 70 * count);
    for (std::uint32_t i = 0; i < count; ++i) {
        std::string entry = "SYS" + std::to_string(i) + "    ";
        entry.resize(9, '\0');
        out += entry + std::string(61, 'd');
    }
    return out;
}

inline std::string esiBody(world::Chance& chance)
{
    std::string out;
    put32(out, chance.oneIn(3) ? 0U - chance.below(40) : 0);
    for (std::uint32_t i = 0; i < 22; ++i) put32(out, chance.below(60));
    if (chance.oneIn(4)) out.resize(chance.below(static_cast<std::uint32_t>(out.size())));
    return out;
}

// One flow, mostly as a Gateway would send it. Ids are those of up to so many requests.
inline std::string someFlow(world::Chance& chance, std::uint32_t ids)
{
    std::uint32_t id = chance.oneIn(12) ? oddLength(chance, ids) : 1 + chance.below(ids + 1);
    std::uint32_t rc = chance.oneIn(6) ? 61440 + chance.below(16) : 0;
    std::string out;
    switch (chance.below(12)) {
    case 0: out = flow(3, id, rc, "ESI", esiBody(chance)); break;
    case 1: out = flow(3, id, rc, "ECI", listBody(chance)); break;
    case 2:
        out = flow(4, chance.oneIn(8) ? 0xFFFFFFFE : id, 61440 + chance.below(16), "ECI", "");
        break;
    case 3: {
        std::string text;
        put8(text, 0);
        put16(text, chance.oneIn(4) ? oddLength(chance, 9) : 9);
        out = flow(6, id, rc, "ECI", text + "something");
        break;
    }
    case 4: out = flow(7, 0, 0, "BASE", ""); break;
    case 5:
        out = flow(chance.oneIn(2) ? 10 : chance.below(12), chance.oneIn(4) ? 0xFFFFFFFF : id, 0,
                   "BASE", "");
        break;
    case 6: out = flow(3, id, rc, std::string("XYZABCDE", chance.below(8)), "what is it"); break;
    case 7: out = flow(3, id, 61440 + chance.below(16), "ECI", ""); break;
    default: out = flow(3, id, rc, "ECI", eciBody(chance, chance.oneIn(2))); break;
    }
    return out;
}

// Changes a stream of flows: whole flows, their numbers, or bytes.
inline void mutateStream(std::string& stream, world::Chance& chance, std::uint32_t ids)
{
    std::vector<std::size_t> starts = flowsOf(stream);
    std::uint32_t flows = static_cast<std::uint32_t>(starts.size() - 1);
    std::uint32_t which = chance.below(flows);
    std::size_t begin = flows == 0 ? 0 : starts[which];
    std::size_t end = flows == 0 ? 0 : starts[which + 1];
    switch (chance.below(flows == 0 ? 1 : 9)) {
    case 0: stream.insert(chance.oneIn(3) ? begin : end, someFlow(chance, ids)); break;
    case 1: stream.insert(end, stream.substr(begin, end - begin)); break;
    case 2: stream.erase(begin, end - begin); break;
    case 3: {
        std::string moved = stream.substr(begin, end - begin);
        stream.erase(begin, end - begin);
        starts = flowsOf(stream);
        stream.insert(starts[chance.below(static_cast<std::uint32_t>(starts.size()))], moved);
        break;
    }
    case 4: { // a number anywhere in the flow
        std::size_t at = begin + chance.below(static_cast<std::uint32_t>(end - begin));
        set32(stream, at, oddLength(chance, get32(stream, at)));
        break;
    }
    case 5: { // the length of the body
        std::size_t at = bodyAt(stream, begin) - 4;
        set32(stream, at, oddLength(chance, get32(stream, at)));
        break;
    }
    case 6: { // the right length of the body, up to the next flow
        std::size_t body = bodyAt(stream, begin);
        if (body <= end) set32(stream, body - 4, static_cast<std::uint32_t>(end - body));
        break;
    }
    case 7: set32(stream, begin + 12, 1 + chance.below(ids + 1)); break; // whom it is for
    default: { // bytes of the flow, and the length of what has become of it
        std::string part = stream.substr(begin, end - begin);
        std::size_t size = part.size();
        part.resize(size + 64);
        std::size_t changed = LLVMFuzzerMutate(reinterpret_cast<std::uint8_t*>(&part[0]), size,
                                               part.size());
        part.resize(changed);
        std::size_t body = bodyAt(part, 0);
        if (chance.oneIn(2) && body <= part.size())
            set32(part, body - 4, static_cast<std::uint32_t>(part.size() - body));
        stream.replace(begin, end - begin, part);
        break;
    }
    }
}

} // namespace wire

#endif
