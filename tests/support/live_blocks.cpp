#include "support/live_blocks.h"

#include <cstdint>
#include <mutex>
#include <set>

namespace support {

namespace {

struct Blocks {
    std::mutex mutex;
    std::set<std::uintptr_t> live;
    bool counting = false;
};

// Never destroyed: the library's threads may outlive the statics.
Blocks& blocks()
{
    static Blocks* const only = new Blocks;
    return *only;
}

// The set frees memory of its own while it is changed.
thread_local bool changing = false;

void noteAllocated(const CallInfo& info)
{
    changing = true;
    {
        std::lock_guard<std::mutex> guard(blocks().mutex);
        blocks().live.erase(info.first); // the block that has been moved by realloc
        if (info.result != 0) blocks().live.insert(static_cast<std::uintptr_t>(info.result));
    }
    changing = false;
}

void noteFreed(const void* block)
{
    if (changing) return;
    changing = true;
    {
        std::lock_guard<std::mutex> guard(blocks().mutex);
        if (blocks().counting) blocks().live.erase(reinterpret_cast<std::uintptr_t>(block));
    }
    changing = false;
}

void setCounting(bool counting)
{
    changing = true;
    {
        std::lock_guard<std::mutex> guard(blocks().mutex);
        blocks().counting = counting;
        blocks().live.clear();
    }
    changing = false;
}

} // namespace

LiveBlocks::LiveBlocks()
    : allocating_((setCounting(true), afterCall(Call::Malloc, 0, noteAllocated)))
{
}

LiveBlocks::~LiveBlocks()
{
    allocating_.end();
    setCounting(false);
}

int LiveBlocks::count() const
{
    std::lock_guard<std::mutex> guard(blocks().mutex);
    return static_cast<int>(blocks().live.size());
}

} // namespace support

extern "C" void real_free(void* block) __asm__("__real_free");
extern "C" void wrap_free(void* block) __asm__("__wrap_free");
extern "C" void wrap_free(void* block)
{
    if (block != nullptr) support::noteFreed(block);
    real_free(block);
}
