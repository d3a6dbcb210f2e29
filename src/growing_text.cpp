/*
 * A text in memory that grows with what is printed to it. A stream of the C library does not serve:
 * glibc's ends well though there was no memory for the middle of its text.
 */
#include "growing_text.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

constexpr size_t FIRST_CAPACITY = 4096;

GrowingText::~GrowingText()
{
    free(text);
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

/* Prints behind the text, as much as there is room for. Returns the length of all of it. */
size_t GrowingText::printWithin(const char* format, va_list args)
{
    int printed = vsnprintf(text + length, room(), format, args);
    return static_cast<size_t>(std::max(printed, 0));
}

#pragma GCC diagnostic pop

bool GrowingText::makeRoom(size_t wanted)
{
    size_t wider = std::max({length + wanted, 2 * capacity, FIRST_CAPACITY});
    void* moved = realloc(text, wider);
    if (moved == nullptr) return false;
    text = static_cast<char*>(moved);
    capacity = wider;
    return true;
}

void GrowingText::print(const char* format, ...)
{
    if (isCut) return;
    va_list args;
    va_list again;
    va_start(args, format);
    va_copy(again, args);
    size_t printed = printWithin(format, args);
    if (printed >= room()) {
        isCut = !makeRoom(printed + 1);
        if (!isCut) printWithin(format, again);
    }
    length += printed;
    va_end(again);
    va_end(args);
}
