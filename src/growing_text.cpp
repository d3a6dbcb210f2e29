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

bool GrowingText::makeRoom(size_t wanted)
{
    size_t wider = std::max({length + wanted, 2 * capacity, FIRST_CAPACITY});
    void* moved = realloc(text, wider);
    if (moved == nullptr) return false;
    text = static_cast<char*>(moved);
    capacity = wider;
    return true;
}

/* Prints behind the text; false if that cannot be, or there is no memory for all of it. */
bool GrowingText::printAll(const char* format, va_list args, va_list again)
{
    int printed = vsnprintf(text + length, room(), format, args);
    if (printed < 0) return false;
    size_t size = static_cast<size_t>(printed);
    if (size >= room()) {
        if (!makeRoom(size + 1)) return false;
        static_cast<void>(vsnprintf(text + length, room(), format, again));
    }
    length += size;
    return true;
}

void GrowingText::print(const char* format, ...)
{
    if (isCut) return;
    va_list args;
    va_list again;
    va_start(args, format);
    va_copy(again, args);
    isCut = !printAll(format, args, again);
    va_end(again);
    va_end(args);
}
