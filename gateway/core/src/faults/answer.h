// What goes out for one request.
#ifndef STANDIN_ANSWER_H
#define STANDIN_ANSWER_H

#include <vector>

#include "standin/messages.h"

namespace standin {

struct Answer {
    enum class Then { GoOn, Drop, Reset };

    std::vector<Bytes> flows; // sent one behind the other
    Then then = Then::GoOn;   // what happens to the connection afterwards
};

} // namespace standin

#endif
