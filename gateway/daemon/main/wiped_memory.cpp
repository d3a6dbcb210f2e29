// All memory that the daemon's C++ parts give back is overwritten first: passwords pass through
// flows, requests and the registry's file, and none is to stay behind in any of their copies.

#include <malloc.h>
#include <string.h>

#include <cstdlib>
#include <new>

namespace {

void* obtain(std::size_t size)
{
    for (;;) {
        if (void* const memory = std::malloc(size == 0 ? 1 : size)) return memory;
        const std::new_handler handler = std::get_new_handler();
        if (handler == nullptr) throw std::bad_alloc();
        handler();
    }
}

void giveBack(void* memory) noexcept
{
    if (memory == nullptr) return;
    ::explicit_bzero(memory, ::malloc_usable_size(memory));
    std::free(memory);
}

} // namespace

void* operator new(std::size_t size)
{
    return obtain(size);
}

void* operator new[](std::size_t size)
{
    return obtain(size);
}

void operator delete(void* memory) noexcept
{
    giveBack(memory);
}

void operator delete[](void* memory) noexcept
{
    giveBack(memory);
}

void operator delete(void* memory, std::size_t) noexcept
{
    giveBack(memory);
}

void operator delete[](void* memory, std::size_t) noexcept
{
    giveBack(memory);
}
