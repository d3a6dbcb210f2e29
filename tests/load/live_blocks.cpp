#include "load/live_blocks.h"

#include <malloc.h>

#include <atomic>
#include <cstddef>

namespace {

std::atomic<long> live{0};

void* counted(void* block)
{
    if (block != nullptr) live.fetch_add(1, std::memory_order_relaxed);
    return block;
}

} // namespace

// The linker puts these between the library's objects and the C library.
extern "C" {

void* __real_malloc(std::size_t size);
void* __real_calloc(std::size_t count, std::size_t size);
void* __real_realloc(void* block, std::size_t size);
char* __real_strdup(const char* text);
void __real_free(void* block);

void* __wrap_malloc(std::size_t size)
{
    return counted(__real_malloc(size));
}

void* __wrap_calloc(std::size_t count, std::size_t size)
{
    return counted(__real_calloc(count, size));
}

void* __wrap_realloc(void* block, std::size_t size)
{
    void* moved = __real_realloc(block, size);
    return block == nullptr ? counted(moved) : moved;
}

char* __wrap_strdup(const char* text)
{
    return static_cast<char*>(counted(__real_strdup(text)));
}

void __wrap_free(void* block)
{
    if (block != nullptr) live.fetch_sub(1, std::memory_order_relaxed);
    __real_free(block);
}
}

namespace load {

long liveBlocks()
{
    return live.load();
}

void useOneArena()
{
    mallopt(M_ARENA_MAX, 1);
}

} // namespace load
