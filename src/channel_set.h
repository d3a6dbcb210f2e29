/*
 * channel_set.h - the set of the channels that there are, by which a handle is known before
 * anything of it is read.
 *
 * A hash table whose chains go through the channels' own records, so that adding a channel cannot
 * fail. The table grows with the number of channels; where there is no memory for a longer one the
 * chains get longer instead. Locks: all of it under chanListLock.
 */
#ifndef CHANNEL_SET_H
#define CHANNEL_SET_H

#include <cstdint>
#include <cstdlib>

#include "clapi_channel.h"

class ChannelSet {
public:
    constexpr ChannelSet() : ownBuckets(), buckets(ownBuckets), bits(FIRST_BITS), count(0) {}
    ChannelSet(const ChannelSet&) = delete;
    ChannelSet& operator=(const ChannelSet&) = delete;

    /* Whether there is a channel at that address, which may be any. */
    bool contains(const ECI_Channel_t* handle) const
    {
        const ECI_Channel_t* channel = buckets[bucketOf(handle)];
        while (channel != nullptr && channel != handle) channel = channel->nextInSet;
        return channel != nullptr;
    }

    void add(ECI_Channel_t* channel)
    {
        if (count >= size()) grow();
        link(channel);
        count += 1;
    }

    /* Takes a channel out, if it is in. */
    void remove(const ECI_Channel_t* channel)
    {
        ECI_Channel_t** linkPtr = &buckets[bucketOf(channel)];
        while (*linkPtr != nullptr && *linkPtr != channel) linkPtr = &(*linkPtr)->nextInSet;
        if (*linkPtr == nullptr) return;
        *linkPtr = channel->nextInSet;
        count -= 1;
        if (count == 0) shrink();
    }

    /* Takes all channels out. */
    void clear()
    {
        count = 0;
        for (size_t i = 0; i < size(); ++i) buckets[i] = nullptr;
    }

private:
    static constexpr unsigned int FIRST_BITS = 8;
    static constexpr unsigned int MOST_BITS = 24;

    size_t size() const { return size_t{1} << bits; }

    /* The records are blocks of malloc, so the lowest bits of their addresses are alike. */
    size_t bucketOf(const ECI_Channel_t* channel) const
    {
        std::uint64_t address = reinterpret_cast<std::uintptr_t>(channel);
        std::uint32_t folded = static_cast<std::uint32_t>((address >> 4U) ^ (address >> 36U));
        return (folded * 0x9E3779B1U) >> (32U - bits);
    }

    void link(ECI_Channel_t* channel)
    {
        ECI_Channel_t** headPtr = &buckets[bucketOf(channel)];
        channel->nextInSet = *headPtr;
        *headPtr = channel;
    }

    void grow()
    {
        if (bits >= MOST_BITS) return;
        ECI_Channel_t** before = buckets;
        size_t sizeBefore = size();
        void* longer = calloc(sizeBefore * 2, sizeof(void*));
        if (longer == nullptr) return;
        buckets = static_cast<ECI_Channel_t**>(longer);
        bits += 1;
        for (size_t i = 0; i < sizeBefore; ++i) {
            for (ECI_Channel_t* channel = before[i]; channel != nullptr;) {
                ECI_Channel_t* next = channel->nextInSet;
                link(channel);
                channel = next;
            }
        }
        if (before != ownBuckets) {
            free(before);
            return;
        }
        for (ECI_Channel_t*& bucket : ownBuckets) bucket = nullptr; // for when it is in use again
    }

    /* An empty set has no memory of its own. */
    void shrink()
    {
        if (buckets != ownBuckets) free(buckets);
        buckets = ownBuckets;
        bits = FIRST_BITS;
    }

    ECI_Channel_t* ownBuckets[1U << FIRST_BITS];
    ECI_Channel_t** buckets;
    unsigned int bits;
    size_t count;
};

#endif
