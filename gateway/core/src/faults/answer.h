// What goes out for one request.
#ifndef STANDIN_ANSWER_H
#define STANDIN_ANSWER_H

#include <chrono>
#include <cstddef>
#include <optional>
#include <vector>

#include "standin/messages.h"

namespace standin {

// How something is sent.
struct Manner {
    std::size_t pieceSize = 0;            // in pieces of so many bytes; 0: as a whole
    std::chrono::microseconds latency{0}; // so much later
    std::optional<std::size_t> stallAt;   // so many bytes of it, then nothing until released
};

struct Answer {
    enum class Then { GoOn, FallSilent, HalfClose, Drop, Reset };

    std::vector<Bytes> flows; // sent one behind the other
    Then then = Then::GoOn;   // what happens to the connection afterwards
    Manner manner;            // of each flow; the last one is what stalls
};

} // namespace standin

#endif
