// A running process that uses the library, seen from outside.
#ifndef QPX_PROCESS_H
#define QPX_PROCESS_H

#include "failure.h"
#include "settings.h"

namespace qpx {

// Tells of its library, its receivers and its connections, and neither stops nor asks the process.
// Throws a Failure if there is none, or if it may not be looked at.
ExitCode examineProcess(const Settings& settings, int pid);

} // namespace qpx

#endif
