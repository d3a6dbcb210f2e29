#include "standin/channel_changes.h"

#include <algorithm>
#include <utility>

namespace standin {

ChannelChanges::ChannelChanges(Channel called) : records_(std::move(called))
{
    for (Container& container : records_.containers) container.change = Change::Unchanged;
}

const Container* ChannelChanges::find(const std::string& name) const
{
    const auto found = std::find_if(
        records_.containers.begin(), records_.containers.end(), [&](const Container& container) {
            return container.name == name && container.change != Change::Deleted;
        });
    return found == records_.containers.end() ? nullptr : &*found;
}

Container* ChannelChanges::toChange(const std::string& name)
{
    return const_cast<Container*>(find(name));
}

bool ChannelChanges::add(Container container)
{
    if (find(container.name) != nullptr) return false;
    container.change = Change::Added;
    records_.containers.push_back(std::move(container));
    return true;
}

bool ChannelChanges::remove(const std::string& name)
{
    Container* const container = toChange(name);
    if (container == nullptr) return false;
    if (container->change == Change::Added) {
        // The client has never heard of it.
        records_.containers.erase(records_.containers.begin() +
                                  (container - records_.containers.data()));
    } else {
        container->change = Change::Deleted;
        container->data.clear();
    }
    return true;
}

bool ChannelChanges::replaceData(const std::string& name, Bytes data)
{
    Container* const container = toChange(name);
    if (container == nullptr) return false;
    if (container->change == Change::Unchanged) container->change = Change::Modified;
    container->data = std::move(data);
    return true;
}

void ChannelChanges::put(Container container)
{
    if (!replaceData(container.name, container.data)) {
        add(std::move(container));
        return;
    }
    Container* const replaced = toChange(container.name);
    replaced->type = container.type;
    replaced->ccsid = container.ccsid;
}

} // namespace standin
