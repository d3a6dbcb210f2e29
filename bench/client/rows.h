// The rows that qpxbench measures; each takes the options it needs and gives figures.
#pragma once

#include "../common/figures.h"
#include "../common/options.h"

namespace bench {

// The least that can be done: no library, and no thread but the caller's.
Figures floorRow(const Options& options);

// The least program of the library's design, plain and in the best form found.
Figures handOffRow(const Options& options);
Figures handOffWindowRow(const Options& options);
Figures bestHandOffRow(const Options& options);
Figures bestHandOffWindowRow(const Options& options);

// Calls through the library.
Figures syncRow(const Options& options);
Figures asyncRow(const Options& options);
Figures channelRow(const Options& options);
Figures passwordRow(const Options& options);
Figures connectionsRow(const Options& options);
Figures outstandingRow(const Options& options);
Figures bulkRow(const Options& options);

// Containers read by name, and the like in a map of the C++ library.
Figures containerRow(const Options& options);
Figures mapRow(const Options& options);

// Lines of the trace, and the same text printed and flushed.
Figures traceLineRow(const Options& options);
Figures printLineRow(const Options& options);

} // namespace bench
