#include "load/live_blocks.h"

#include <malloc.h>
#include <sys/mman.h>

#include <atomic>
#include <cstddef>

namespace {

std::atomic<long> live{0};
std::atomic<long> mapped{0};

void* counted(void* block)
{
    if (block != nullptr) live.fetch_add(1, std::memory_order_relaxed);
    return block;
}

void* countedPages(void* pages, std::size_t added, std::size_t given)
{
    if (pages == MAP_FAILED) return pages;
    mapped.fetch_add(static_cast<long>(added) - static_cast<long>(given),
                     std::memory_order_relaxed);
    return pages;
}

} // namespace

// The linker puts these between the library's objects and the C library.
extern "C" {

void* __real_malloc(std::size_t size);
void* __real_calloc(std::size_t count, std::size_t size);
void* __real_realloc(void* block, std::size_t size);
char* __real_strdup(const char* text);
void __real_free(void* block);
void* __real_mmap(void* place, std::size_t length, int access, int flags, int file, off_t offset);
void* __real_mmap64(void* place, std::size_t length, int access, int flags, int file,
                    off64_t offset);
void* __real_mremap(void* pages, std::size_t length, std::size_t newLength, int flags);
int __real_munmap(void* pages, std::size_t length);

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

void* __wrap_mmap(void* place, std::size_t length, int access, int flags, int file, off_t offset)
{
    return countedPages(__real_mmap(place, length, access, flags, file, offset), length, 0);
}

void* __wrap_mmap64(void* place, std::size_t length, int access, int flags, int file,
                    off64_t offset)
{
    return countedPages(__real_mmap64(place, length, access, flags, file, offset), length, 0);
}

void* __wrap_mremap(void* pages, std::size_t length, std::size_t newLength, int flags)
{
    return countedPages(__real_mremap(pages, length, newLength, flags), newLength, length);
}

int __wrap_munmap(void* pages, std::size_t length)
{
    int result = __real_munmap(pages, length);
    if (result == 0) countedPages(pages, 0, length);
    return result;
}
}

namespace load {

long liveBlocks()
{
    return live.load();
}

long mappedBytes()
{
    return mapped.load();
}

void useOneArena()
{
    mallopt(M_ARENA_MAX, 1);
}

} // namespace load
