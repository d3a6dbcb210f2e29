// Ctrl-C while calls are waited for, which no signal ends: a thread takes it, has what is known by
// then told, and ends the program.
#ifndef QPX_INTERRUPTION_H
#define QPX_INTERRUPTION_H

#include <functional>

namespace qpx {

// Must be called before other threads are started, and throws a Failure where there is none to be
// had. From then on SIGINT and SIGTERM call tell, which takes the locks that it needs, and end the
// program with the code that tell gives, or that endWith() makes of it. A second one ends it at
// once.
void onInterruption(std::function<int()> tell);

} // namespace qpx

#endif
