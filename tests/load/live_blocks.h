// How many blocks of memory the library has allocated and not freed yet. The counting gives the
// threads no order that they would not have without it.
#ifndef LOAD_LIVE_BLOCKS_H
#define LOAD_LIVE_BLOCKS_H

namespace load {

long liveBlocks();

// All memory comes from one arena from now on, so that an address serves again at once, whichever
// thread has freed it. To be called before there is a second thread.
void useOneArena();

} // namespace load

#endif
