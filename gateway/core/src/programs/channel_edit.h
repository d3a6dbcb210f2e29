// What the program CHANEDIT does to a channel: the instructions in its container EDITS, one to a
// line.
//
//     add NAME char CCSID TEXT    adds a container of characters
//     add NAME bit HEX            adds a binary container
//     delete NAME
//     replace NAME TEXT           other data; HEX for a binary container
//     reverse NAME                other data of the same length: the bytes backwards
//     resize NAME LENGTH          cuts the data, or fills it up with 0x00 or, characters, blanks
//
// Words are separated by one blank; TEXT and HEX go to the end of the line and may be empty. Empty
// lines and those that begin with '#' are passed over. EDITS itself is a container as any other.
// There may be 1,000 instructions and 10,000 containers, and all instructions together may write
// 32 MB, so that no channel keeps the Gateway busy for long.
#ifndef STANDIN_CHANNEL_EDIT_H
#define STANDIN_CHANNEL_EDIT_H

#include "standin/messages.h"

namespace standin {

// The answer to the channel. When an instruction is wrong, none is carried out, and a container
// ERROR, in characters, tells which and why.
Channel editChannel(const Channel& called);

} // namespace standin

#endif
