// The calls that are under way, for the observers and the watcher of a Gateway. Without one nothing
// is kept.
//
// Thread: the Gateway's thread only.
#ifndef STANDIN_CALL_BOOK_H
#define STANDIN_CALL_BOOK_H

#include <chrono>
#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "standin/call_record.h"
#include "standin/records.h"
#include "standin/watcher.h"

namespace standin {

class CallBook {
public:
    // Each may be empty.
    CallBook(CallObserver observer, CallObserver arrivals, std::shared_ptr<Watcher> watcher)
        : observer_(std::move(observer)), arrivals_(std::move(arrivals)),
          watcher_(std::move(watcher))
    {
    }

    // A request has come. With a problem it is malformed.
    void begin(const ReceivedRequest& request, const std::string& problem = {});

    // Notes something about the oldest call with this message id that it is not known of yet.
    void struckBy(int connection, std::int32_t messageId, const std::string& fault);
    void reply(int connection, std::int32_t messageId, const EciReply& reply);
    void reply(int connection, std::int32_t messageId, const EsiReply& reply);
    void exception(int connection, std::int32_t messageId, const std::string& text);

    // These flows go out for it now, or none will; the observer is told.
    void answer(int connection, std::int32_t messageId, const std::vector<Bytes>& flows);

    // Nothing will go out for the request that has come last on the connection.
    void refuse(int connection);

    // Nothing goes out any more; the observer is told of what is under way.
    void endConnection(int connection);

private:
    struct Entry {
        CallRecord record;
        std::chrono::steady_clock::time_point came;
        bool isDecided = false; // what is answered is known
    };

    // Null when there is none, or no observer.
    Entry* find(int connection, std::int32_t messageId);
    void tell(Entry& entry) const;

    CallObserver observer_;
    CallObserver arrivals_;
    std::shared_ptr<Watcher> watcher_;
    std::uint64_t lastNumber_ = 0;
    std::map<int, std::list<Entry>> entries_; // by connection, the oldest first
};

} // namespace standin

#endif
