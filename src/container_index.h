/*
 * container_index.h - finds the containers of a channel by their names.
 *
 * A hash table whose chains go through the containers, and in each chain the newest comes first, as
 * in the list: of two with one name the newer is found. It is made for a channel with many
 * containers only; a channel with few, or one for which there is no memory, is searched along its
 * list. Locks: none, it belongs to who holds the channel.
 */
#ifndef CONTAINER_INDEX_H
#define CONTAINER_INDEX_H

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "clapi_channel.h"

/* Channels with fewer containers have no index. */
constexpr int INDEXED_FROM = 16;

inline bool clapiHasName(const ECI_Container_t* container, const char* name)
{
    return strncmp(container->name, name, CHANNEL_NAME_SIZE) == 0;
}

/* Names that are alike up to their end have the same chain. */
inline ECI_Container_t** clapiChainOf(const ECI_Channel_t* channel, const char* name)
{
    std::uint32_t hash = 0x811C9DC5U;
    for (size_t at = 0; at < CHANNEL_NAME_SIZE && name[at] != '\0'; ++at)
        hash = (hash ^ static_cast<unsigned char>(name[at])) * 0x01000193U;
    return &channel->index[(hash * 0x9E3779B1U) >> (32U - channel->indexBits)];
}

inline void clapiDropIndex(ECI_Channel_t* channel)
{
    free(channel->index);
    channel->index = nullptr;
    channel->indexBits = 0;
}

inline void clapiIndexContainer(const ECI_Channel_t* channel, ECI_Container_t* container)
{
    ECI_Container_t** chain = clapiChainOf(channel, container->name);
    container->nextInIndex = *chain;
    *chain = container;
}

/* Makes the index of a channel anew, with chains of one container or two. */
inline void clapiRebuildIndex(ECI_Channel_t* channel)
{
    unsigned int bits = channel->indexBits != 0 ? channel->indexBits + 1 : 5;
    void* chains = calloc(size_t{1} << bits, sizeof(ECI_Container_t*));
    if (chains == nullptr) return;
    free(channel->index);
    channel->index = static_cast<ECI_Container_t**>(chains);
    channel->indexBits = bits;

    ECI_Container_t* oldest = channel->firstCont;
    while (oldest->nextCont != nullptr) oldest = oldest->nextCont;
    for (ECI_Container_t* container = oldest; container != nullptr;
         container = container->previousCont)
        clapiIndexContainer(channel, container);
}

/* A container has been put at the head of the list. */
inline void clapiNoteLinked(ECI_Channel_t* channel, ECI_Container_t* container)
{
    int count = channel->numContainers;
    bool isFull = channel->index == nullptr ? count >= INDEXED_FROM
                                            : count >> channel->indexBits >= 2;
    if (channel->index != nullptr) clapiIndexContainer(channel, container);
    if (isFull) clapiRebuildIndex(channel);
}

/* A container leaves the list. */
inline void clapiNoteUnlinked(ECI_Channel_t* channel, const ECI_Container_t* container)
{
    if (channel->index == nullptr) return;
    ECI_Container_t** link = clapiChainOf(channel, container->name);
    while (*link != container) link = &(*link)->nextInIndex;
    *link = container->nextInIndex;
}

inline ECI_Container_t* clapiFirstOfName(const ECI_Channel_t* channel, const char* name)
{
    bool isIndexed = channel->index != nullptr;
    ECI_Container_t* container = isIndexed ? *clapiChainOf(channel, name) : channel->firstCont;
    while (container != nullptr && !clapiHasName(container, name))
        container = isIndexed ? container->nextInIndex : container->nextCont;
    return container;
}

#endif
