// How many blocks of memory the library has allocated and not freed yet, and how much it has
// mapped, as it does for large data. The counting gives the threads no order that they would not
// have without it.
#ifndef LOAD_LIVE_BLOCKS_H
#define LOAD_LIVE_BLOCKS_H

namespace load {

long liveBlocks();

// In bytes, as long as the library has asked for: an end that is not a whole page counts as it is.
long mappedBytes();

// All memory comes from one arena from now on, so that an address serves again at once, whichever
// thread has freed it. To be called before there is a second thread.
void useOneArena();

} // namespace load

#endif
