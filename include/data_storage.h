/*
 * data_storage.h - the memory of container data and of what arrives from a Gateway. It is known by
 * its address and its length, and is overwritten, or gone from the process, once it is freed.
 *
 * Large data has pages of its own: it grows without being copied, and a length that a peer only
 * announces costs nothing until its bytes have come. Locks: none.
 */
#ifndef DATA_STORAGE_H
#define DATA_STORAGE_H

#include <cstddef>

/* Data of this many bytes and more has pages of its own. */
constexpr size_t OWN_PAGES_FROM = 1024 * 1024;

/* Room for length bytes, of which there is at least one, or null if there is no memory. The bytes
 * are of any value. Freed with clapiFreeData and the same length. */
char* clapiAllocateData(size_t length);

/* Overwrites data of that length and frees it; null is nothing. */
void clapiFreeData(char* data, size_t length);

/* Gives back what the data from pages to end holds, as far as that makes up OWN_PAGES_FROM or a
 * multiple, and returns where the rest begins. What has no pages of its own is never so long. The
 * data is freed as before. */
char* clapiGiveBackPages(char* pages, const char* end);

/*
 * Bytes on their way in. The room for them grows with them: it is never more than OWN_PAGES_FROM
 * or twice what has come, nor more than what is announced. When all that is announced is there,
 * data and length are storage as clapiAllocateData gives it.
 */
struct ArrivingBytes {
    char* data; // capacity bytes, owned
    size_t length;
    size_t capacity;
};

/* Makes room for at least one more of the announced bytes, unless all are there; false if there is
 * no memory. */
bool clapiProvideRoom(ArrivingBytes* bytes, size_t announced);

/* Overwrites and frees what is there. */
void clapiFreeArrived(ArrivingBytes* bytes);

/* Hands what is there over to the caller, and leaves nothing. */
inline ArrivingBytes clapiTakeArrived(ArrivingBytes* bytes)
{
    ArrivingBytes taken = *bytes;
    *bytes = ArrivingBytes{};
    return taken;
}

#endif
