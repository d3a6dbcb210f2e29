/*
 * The memory of container data and of what arrives from a Gateway.
 */
#include "data_storage.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

static bool hasOwnPages(size_t length)
{
    return length >= OWN_PAGES_FROM;
}

char* clapiAllocateData(size_t length)
{
    if (!hasOwnPages(length)) return static_cast<char*>(malloc(length));
    // cppcheck-suppress invalidFunctionArg ; -1 stands for no file
    void* pages = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    return pages != MAP_FAILED ? static_cast<char*>(pages) : nullptr;
}

/* The process does not get pages back with what they held. Where it has as many mappings as it may,
 * those between others stay, but with nothing in them: they are given back one by one, or, locked
 * into memory, overwritten. */
static void freePages(char* data, size_t length)
{
    if (munmap(data, length) == 0 || madvise(data, length, MADV_DONTNEED) == 0) return;
    explicit_bzero(data, length);
}

void clapiFreeData(char* data, size_t length)
{
    if (data == nullptr) return;
    if (hasOwnPages(length)) {
        freePages(data, length);
        return;
    }
    explicit_bzero(data, length);
    free(data);
}

/* Pages that stay, for they are locked into memory, go when the data is freed. */
char* clapiGiveBackPages(char* pages, const char* end)
{
    constexpr ptrdiff_t step = OWN_PAGES_FROM;
    while (end - pages >= step) {
        madvise(pages, OWN_PAGES_FROM, MADV_DONTNEED);
        pages += step;
    }
    return pages;
}

/* More room for data that has pages of its own, or null. */
static char* growPages(char* data, size_t length, size_t newLength)
{
    void* pages = mremap(data, length, newLength, MREMAP_MAYMOVE);
    return pages != MAP_FAILED ? static_cast<char*>(pages) : nullptr;
}

bool clapiProvideRoom(ArrivingBytes* bytes, size_t announced)
{
    if (bytes->length < bytes->capacity || bytes->capacity == announced) return true;

    // Room below OWN_PAGES_FROM is made once, for all that is announced.
    size_t doubled = bytes->capacity > announced / 2 ? announced : 2 * bytes->capacity;
    size_t capacity = std::min(announced, std::max(doubled, OWN_PAGES_FROM));
    char* data = bytes->capacity == 0 ? clapiAllocateData(capacity)
                                      : growPages(bytes->data, bytes->capacity, capacity);
    if (data == nullptr) return false;
    bytes->data = data;
    bytes->capacity = capacity;
    return true;
}

void clapiFreeArrived(ArrivingBytes* bytes)
{
    clapiFreeData(bytes->data, bytes->capacity);
    *bytes = ArrivingBytes{};
}
