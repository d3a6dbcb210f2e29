/*
 * address_set.h - a set of records, by which an address that an application passes in is known
 * before anything of it is read.
 *
 * A hash table whose chains go through the records themselves, so that adding one cannot fail. The
 * table grows with the number of records; where there is no memory for a longer one the chains get
 * longer instead. Locks: all of it under the lock of the records' list.
 */
#ifndef ADDRESS_SET_H
#define ADDRESS_SET_H

#include <cstddef>
#include <cstdint>
#include <cstdlib>

/* nextInSet is the set's own field of the record. */
template <typename Record, Record* Record::*nextInSet>
class AddressSet {
public:
    constexpr AddressSet() : ownBuckets(), buckets(ownBuckets), bits(FIRST_BITS), count(0) {}
    AddressSet(const AddressSet&) = delete;
    AddressSet& operator=(const AddressSet&) = delete;

    /* Whether there is a record at that address, which may be any. */
    bool contains(const Record* address) const
    {
        const Record* record = buckets[bucketOf(address)];
        while (record != nullptr && record != address) record = record->*nextInSet;
        return record != nullptr;
    }

    void add(Record* record)
    {
        if (count >= size()) grow();
        link(record);
        count += 1;
    }

    /* Takes a record out, if it is in. */
    void remove(const Record* record)
    {
        Record** linkPtr = &buckets[bucketOf(record)];
        while (*linkPtr != nullptr && *linkPtr != record) linkPtr = &((*linkPtr)->*nextInSet);
        if (*linkPtr == nullptr) return;
        *linkPtr = record->*nextInSet;
        count -= 1;
        if (count == 0) shrink();
    }

    /* Takes all records out. */
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
    size_t bucketOf(const Record* record) const
    {
        std::uint64_t address = reinterpret_cast<std::uintptr_t>(record);
        std::uint32_t folded = static_cast<std::uint32_t>((address >> 4U) ^ (address >> 36U));
        return (folded * 0x9E3779B1U) >> (32U - bits);
    }

    void link(Record* record)
    {
        Record** headPtr = &buckets[bucketOf(record)];
        record->*nextInSet = *headPtr;
        *headPtr = record;
    }

    void grow()
    {
        if (bits >= MOST_BITS) return;
        Record** before = buckets;
        size_t sizeBefore = size();
        void* longer = calloc(sizeBefore * 2, sizeof(void*));
        if (longer == nullptr) return;
        buckets = static_cast<Record**>(longer);
        bits += 1;
        for (size_t i = 0; i < sizeBefore; ++i) {
            for (Record* record = before[i]; record != nullptr;) {
                Record* next = record->*nextInSet;
                link(record);
                record = next;
            }
        }
        if (before != ownBuckets) {
            free(before);
            return;
        }
        for (Record*& bucket : ownBuckets) bucket = nullptr; // for when it is in use again
    }

    /* An empty set has no memory of its own. */
    void shrink()
    {
        if (buckets != ownBuckets) free(buckets);
        buckets = ownBuckets;
        bits = FIRST_BITS;
    }

    Record* ownBuckets[1U << FIRST_BITS];
    Record** buckets;
    unsigned int bits;
    size_t count;
};

#endif
