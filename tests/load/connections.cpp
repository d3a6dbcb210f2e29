#include "load/connections.h"

#include <algorithm>

namespace load {

namespace {

// The library lets the memory of at least 64 freed tokens rest. What lives at the time a token is
// freed (the connections of the list, and one in each thread's hands) and what is opened afterwards
// must be fewer than that together.
constexpr long opensWhileStale = 36;

// A stale token is used at all while so many have been opened since.
constexpr long opensUntilForgotten = 24;

} // namespace

Connections::Connections(int threads) : uses_(static_cast<std::size_t>(threads)) {}

ConnectionPtr Connections::beginUse(int thread, unsigned choice, bool mine)
{
    std::lock_guard<std::mutex> guard(mutex_);
    std::vector<std::size_t> candidates;
    for (std::size_t at = list_.size(); at-- > 0;) {
        if (list_[at]->maybeFree && opens_ - list_[at]->freeFrom >= opensUntilForgotten)
            removeLocked(at);
    }
    for (std::size_t at = 0; at < list_.size(); ++at)
        if (!mine || list_[at]->owner == thread) candidates.push_back(at);
    if (candidates.empty()) return nullptr;

    ConnectionPtr chosen = list_[candidates[choice % candidates.size()]];
    Use& use = uses_[static_cast<std::size_t>(thread)];
    use.under_way = true;
    use.since = chosen->maybeFree ? chosen->freeFrom : opens_;
    return chosen;
}

void Connections::endUse(int thread)
{
    std::lock_guard<std::mutex> guard(mutex_);
    uses_[static_cast<std::size_t>(thread)].under_way = false;
}

Knowledge Connections::know(const ConnectionPtr& connection) const
{
    std::lock_guard<std::mutex> guard(mutex_);
    Knowledge known;
    bool allBegunSince = allBegun_ > connection->openBegan;
    bool allEndedSince = lastBegunOfEnded_ > connection->opened;
    known.closing = connection->closesBegun > 0 || allBegunSince;
    known.closingTwice = connection->closesBegun + (allBegunSince ? 1 : 0) > 1;
    known.refuses = connection->closeReturned || allEndedSince;
    known.gone = connection->gone;
    known.ending = connection->endAsked;
    return known;
}

bool Connections::mayOpen(Connection* connection)
{
    std::lock_guard<std::mutex> guard(mutex_);
    if (list_.size() >= most) return false;
    for (const Use& use : uses_)
        if (use.under_way && opens_ - use.since >= opensWhileStale) return false;
    opens_ += 1;
    connection->number = static_cast<int>(opens_);
    connection->openBegan = allEnded_;
    connection->freeFrom = opens_;
    return true;
}

void Connections::add(const ConnectionPtr& connection)
{
    std::lock_guard<std::mutex> guard(mutex_);
    connection->opened = allBegun_;
    // A close of all that was under way may have taken it.
    connection->maybeFree = allBegun_ > connection->openBegan;
    list_.push_back(connection);
}

void Connections::noteClose(const ConnectionPtr& connection)
{
    std::lock_guard<std::mutex> guard(mutex_);
    connection->closesBegun += 1;
    if (connection->maybeFree) return;
    connection->maybeFree = true;
    connection->freeFrom = opens_;
}

void Connections::removeLocked(std::size_t position)
{
    list_[position]->buried = allBegun_;
    buried_.push_back(list_[position]);
    list_.erase(list_.begin() + static_cast<std::ptrdiff_t>(position));
}

void Connections::remove(const ConnectionPtr& connection)
{
    std::lock_guard<std::mutex> guard(mutex_);
    auto found = std::find(list_.begin(), list_.end(), connection);
    if (found != list_.end()) removeLocked(static_cast<std::size_t>(found - list_.begin()));
}

void Connections::removeAll()
{
    std::lock_guard<std::mutex> guard(mutex_);
    while (!list_.empty()) removeLocked(list_.size() - 1);
}

long Connections::beginCloseAll()
{
    std::lock_guard<std::mutex> guard(mutex_);
    for (const ConnectionPtr& connection : list_) {
        if (connection->maybeFree) continue;
        connection->maybeFree = true;
        connection->freeFrom = opens_;
    }
    return ++allBegun_;
}

std::vector<ConnectionPtr> Connections::endCloseAll(long begun)
{
    std::lock_guard<std::mutex> guard(mutex_);
    allEnded_ += 1;
    lastBegunOfEnded_ = std::max(lastBegunOfEnded_, begun);
    std::vector<ConnectionPtr> gone;
    // One that another close of all works on may still be there.
    if (allEnded_ != allBegun_) return gone;
    for (std::size_t at = buried_.size(); at-- > 0;) {
        ConnectionPtr& connection = buried_[at];
        if (connection->buried >= lastBegunOfEnded_ || connection.use_count() > 1) continue;
        gone.push_back(std::move(connection));
        buried_.erase(buried_.begin() + static_cast<std::ptrdiff_t>(at));
    }
    return gone;
}

std::size_t Connections::count() const
{
    std::lock_guard<std::mutex> guard(mutex_);
    return list_.size();
}

long Connections::opens() const
{
    std::lock_guard<std::mutex> guard(mutex_);
    return opens_;
}

} // namespace load
