// The answer of a program to a channel: a record for each container that tells what has become of
// it, from which the client brings its own channel up to date.
#ifndef STANDIN_CHANNEL_CHANGES_H
#define STANDIN_CHANNEL_CHANGES_H

#include <string>

#include "standin/messages.h"

namespace standin {

class ChannelChanges {
public:
    // Begins with every container of the call unchanged.
    explicit ChannelChanges(Channel called);

    // The container as it is now; null when there is none of this name. Valid until the next
    // change.
    const Container* find(const std::string& name) const;

    // Each is false, and changes nothing, when there is one of the name already (add), or none.
    bool add(Container container);
    bool remove(const std::string& name);
    bool replaceData(const std::string& name, Bytes data);

    // Adds the container, or puts it in the place of the one of its name.
    void put(Container container);

    // The records: the containers of the call in their order, behind them those that were added.
    const Channel& records() const { return records_; }

private:
    Container* toChange(const std::string& name);

    Channel records_;
};

} // namespace standin

#endif
