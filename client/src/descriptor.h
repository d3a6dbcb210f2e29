// What comes from a descriptor that somebody else may have opened.
#ifndef QPX_DESCRIPTOR_H
#define QPX_DESCRIPTOR_H

#include <sys/types.h>

#include <cstddef>

namespace qpx {

// The next bytes, at most so many. 0 is the end, -1 a failure that errno tells. Waits for them also
// where the descriptor does not block: who has started qpx may have given it such a pipe.
ssize_t readSome(int descriptor, char* room, std::size_t size);

} // namespace qpx

#endif
