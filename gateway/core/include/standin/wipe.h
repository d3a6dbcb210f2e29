// Overwrites what calls that have returned may have left behind on the stack, passwords among it.
#ifndef STANDIN_WIPE_H
#define STANDIN_WIPE_H

namespace standin {

// Reaches 64 kB down from the caller. Thread: any; its own stack.
void wipeStack();

} // namespace standin

#endif
