// Descriptors that somebody else may have opened, and in such a way that they do not block.
#ifndef QPX_DESCRIPTOR_H
#define QPX_DESCRIPTOR_H

#include <sys/types.h>

#include <cstddef>

namespace qpx {

// The next bytes, at most so many. 0 is the end, -1 a failure that errno tells. Waits for them.
ssize_t readSome(int descriptor, char* room, std::size_t size);

// Has the writing to a descriptor wait, too. That is its own affair: whoever shares the file with
// it does not notice. Nothing changes where that cannot be, as with a socket.
void letWritingWait(int descriptor);

} // namespace qpx

#endif
