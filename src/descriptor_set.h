/*
 * descriptor_set.h - the set with one descriptor that select takes, for descriptors of any
 * number. A plain fd_set has room for the numbers below FD_SETSIZE only; the kernel itself takes
 * a set as long as its highest number needs.
 */
#ifndef DESCRIPTOR_SET_H
#define DESCRIPTOR_SET_H

#include <sys/select.h>

#include <cstdlib>

class DescriptorSet {
public:
    explicit DescriptorSet(int descriptor)
        : number(descriptor), words(ownWords), wordCount(sizeof ownWords / sizeof ownWords[0])
    {
        if (descriptor >= FD_SETSIZE) {
            wordCount = static_cast<size_t>(descriptor) / NFDBITS + 1;
            words = static_cast<fd_mask*>(malloc(wordCount * sizeof(fd_mask)));
        }
        if (!valid()) return;
        for (size_t i = 0; i < wordCount; ++i) words[i] = 0;
        words[wordOf()] |= bit();
    }
    ~DescriptorSet()
    {
        if (words != ownWords) free(words);
    }
    DescriptorSet(const DescriptorSet&) = delete;
    DescriptorSet& operator=(const DescriptorSet&) = delete;

    /* False if the descriptor is none, or if there was no memory for its set. */
    bool valid() const { return number >= 0 && words != nullptr; }

    bool contains() const { return (words[wordOf()] & bit()) != 0; }
    int range() const { return number + 1; }
    fd_set* set() { return reinterpret_cast<fd_set*>(words); }

private:
    size_t wordOf() const { return static_cast<size_t>(number) / NFDBITS; }
    fd_mask bit() const { return static_cast<fd_mask>(1UL << (number % NFDBITS)); }

    int number;
    fd_mask ownWords[FD_SETSIZE / NFDBITS];
    fd_mask* words;
    size_t wordCount;
};

#endif
