/*
 * growing_text.h - a text in memory that grows with what is printed to it.
 *
 * Once a piece cannot be printed whole there is no text: what is printed from then on is dropped.
 * Locks: none, it belongs to who has made it.
 */
#ifndef GROWING_TEXT_H
#define GROWING_TEXT_H

#include <cstdarg>
#include <cstddef>

class GrowingText {
public:
    GrowingText() = default;
    ~GrowingText();
    GrowingText(const GrowingText&) = delete;
    GrowingText& operator=(const GrowingText&) = delete;

    __attribute__((format(printf, 2, 3))) void print(const char* format, ...);

    /* All that has been printed, owned by this object; null if there was no memory for it, or
     * nothing has been printed. */
    const char* whole() const { return isCut ? nullptr : text; }

private:
    size_t room() const { return capacity - length; }
    __attribute__((format(printf, 2, 0))) bool printAll(const char* format, va_list args,
                                                        va_list again);
    bool makeRoom(size_t wanted);

    char* text = nullptr; // capacity bytes, owned
    size_t length = 0;    // without its terminator
    size_t capacity = 0;
    bool isCut = false;
};

#endif
