// A recording as the beginning of a script: what was asked, and how it was answered.
//
// Thread: any.
#ifndef GATEWAY_SKELETON_H
#define GATEWAY_SKELETON_H

#include <string>
#include <vector>

#include "replay/recorded.h"

namespace replay {

// The text of a script that answers the recorded calls of programs as they were answered, each
// program with the same data in one [[on]]. What a script cannot answer is a comment.
std::string skeletonOf(const std::vector<Connection>& connections);

} // namespace replay

#endif
