// Dumps of blocks of any bytes, with any offset and length to show, against a text made here.
// Nothing outside the block is read.
//
// Input: the settings, then the bytes.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "captured_trace.h"
#include "clapi_diag.h"
#include "clapi_lock.h"
#include "qpxclient.h"
#include "wire.h"
#include "world.h"

namespace {

constexpr std::size_t CONFIG_SIZE = 10;
constexpr std::size_t WIDTH = 16;

// A number near the length of the block, or any.
std::size_t setting(const std::uint8_t* data, std::size_t length)
{
    std::uint32_t number = data[1] * 65536U + data[2] * 256U + data[3];
    switch (data[0] % 4) {
    case 0: return number % 300;
    case 1: return length + 3 - number % 6;
    case 2: return static_cast<std::size_t>(-1) - number % 40;
    default: return number;
    }
}

std::string lineOf(const char* address, const std::uint8_t* bytes, std::size_t count)
{
    char text[40];
    std::snprintf(text, sizeof text, "%p: ", static_cast<const void*>(address));
    std::string line = text;
    for (std::size_t i = 0; i < WIDTH; ++i) {
        std::snprintf(text, sizeof text, "%02X", i < count ? bytes[i] : 0U);
        line += i < count ? text : "  ";
        if (i % 4 == 3 && i + 1 < WIDTH) line += ' ';
    }
    line += " : ";
    for (std::size_t i = 0; i < count; ++i)
        line += bytes[i] >= 0x20 && bytes[i] < 0x7F ? static_cast<char>(bytes[i]) : '.';
    return line + (count == WIDTH ? " \n" : "\n");
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* count, char*** arguments)
{
    static_cast<void>(count);
    static_cast<void>(arguments);
    capturedTrace();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size <= CONFIG_SIZE) return 0;
    std::size_t length = size - CONFIG_SIZE;
    std::size_t most = setting(data, length);
    std::size_t offset = setting(data + 4, length);
    // A block of just that size, at any place of a line.
    std::size_t shift = data[8] % 8;
    std::vector<std::uint8_t> block(shift + length);
    std::memcpy(block.data() + shift, data + CONFIG_SIZE, length);
    std::uint8_t* bytes = block.data() + shift;
    const char* shownAt = data[9] % 2 == 1 ? "original" : reinterpret_cast<const char*>(bytes);

    QPX_setAPITraceDataLength(most);
    QPX_setAPITraceDataOffset(offset);
    std::string expected = "Data truncation size=" + std::to_string(most) +
                           ", offset=" + std::to_string(offset) + "\n";
    std::size_t shown = length > offset ? length - offset : 0;
    if (most != 0 && shown > most) shown = most;
    for (std::size_t at = 0; at < shown; at += WIDTH)
        expected += lineOf(shownAt + offset + at, bytes + offset + at,
                           shown - at < WIDTH ? shown - at : WIDTH);

    // As a line of the trace, whose first line is of no interest here.
    std::string text;
    if (shownAt == reinterpret_cast<const char*>(bytes)) {
        LockGuard hold(traceLock);
        std::size_t dumped = clapiTraceOutStorage(bytes, length, STOPWORD, DUMP_WIDTH, 1);
        FUZZ_CHECK(dumped == shown, "%zu bytes are dumped, not %zu", dumped, shown);
        text = capturedTrace().take();
    } else {
        DumpBlock copy = dumpOfCopy(bytes, length, shownAt);
        {
            LockGuard hold(traceLock);
            clapiWriteLine(&copy, clapiPrepareLine(tpData(1, "A line\n")), "A line\n");
        }
        text = capturedTrace().take();
        text.erase(0, text.find('\n') + 1);
    }
    FUZZ_CHECK(text == expected, "a dump is\n%s\nnot\n%s", text.c_str(), expected.c_str());
    return 0;
}

#ifdef FUZZ_PLANTED
// The planted mistake: one character more counts as one that can be printed.
extern "C" int __real_isprint(int character);
extern "C" int __wrap_isprint(int character)
{
    return character == 0x7F ? 1 : __real_isprint(character);
}
#endif
