// The least program of the library's design. A caller takes a slot, writes its request under a
// mutex and waits at the slot's gate; one thread waits for replies, reads the header and then the
// body of each into its slot, and opens the gate. Gates are mutexes with conditions. Replies to
// requests that are collected later go on a queue.

#include "../common/measure.h"
#include "../common/sockets.h"
#include "../common/wire.h"
#include "rows.h"

#include <sys/select.h>
#include <sys/socket.h>

#include <condition_variable>
#include <deque>
#include <mutex>

namespace bench {

namespace {

struct Slot {
    bool collectedLater = false;
    bool answered = false;
    std::mutex mutex;
    std::condition_variable gate;
    std::vector<char> body;
};

class HandOff {
public:
    HandOff(std::uint16_t port, std::size_t slots, std::size_t commareaSize)
        : socket_(connectToGateway(port)), request_(callOfEcho(commareaSize)), slots_(slots)
    {
        for (std::size_t id = slots; id > 0; --id) free_.push_back(id - 1);
        receiver_ = std::thread([this] { receive(); });
    }
    ~HandOff()
    {
        shutdown(socket_, SHUT_RDWR);
        receiver_.join();
    }
    HandOff(const HandOff&) = delete;
    HandOff& operator=(const HandOff&) = delete;

    Bytes request() const { return request_; }

    // The request is the caller's own, made once.
    void call(Bytes* request, std::vector<char>* commarea)
    {
        const std::size_t id = takeSlot();
        Slot& slot = slots_[id];
        slot.answered = false;
        slot.collectedLater = false;
        sendRequest(id, request, *commarea);
        {
            std::unique_lock<std::mutex> lock(slot.mutex);
            slot.gate.wait(lock, [&] { return slot.answered; });
        }
        takeReply(id, commarea);
    }
    void begin(Bytes* request, const std::vector<char>& commarea)
    {
        const std::size_t id = takeSlot();
        slots_[id].collectedLater = true;
        sendRequest(id, request, commarea);
    }
    void collect(std::vector<char>* commarea)
    {
        std::size_t id;
        {
            std::unique_lock<std::mutex> lock(queueMutex_);
            replyThere_.wait(lock, [this] { return !queue_.empty(); });
            id = queue_.front();
            queue_.pop_front();
        }
        takeReply(id, commarea);
    }

private:
    std::size_t takeSlot()
    {
        const std::lock_guard<std::mutex> lock(freeMutex_);
        const std::size_t id = free_.back();
        free_.pop_back();
        return id;
    }
    void sendRequest(std::size_t id, Bytes* request, const std::vector<char>& commarea)
    {
        putInt(&(*request)[messageIdOffset], static_cast<std::uint32_t>(id + 1));
        std::memcpy(&(*request)[requestHeadSize], commarea.data(), commarea.size());
        const std::lock_guard<std::mutex> lock(sendMutex_);
        sendAll(socket_, request->data(), request->size());
    }
    void takeReply(std::size_t id, std::vector<char>* commarea)
    {
        std::memcpy(commarea->data(), &slots_[id].body[replyHeadSize - callHeaderSize],
                    commarea->size());
        const std::lock_guard<std::mutex> lock(freeMutex_);
        free_.push_back(id);
    }

    // ---- The receiving thread ----

    bool awaitReply() const
    {
        fd_set readable;
        FD_ZERO(&readable);
        FD_SET(socket_, &readable);
        return select(socket_ + 1, &readable, nullptr, nullptr, nullptr) == 1;
    }
    bool read(char* data, std::size_t size) const
    {
        while (size > 0) {
            const ssize_t received = recv(socket_, data, size, 0);
            if (received <= 0) return false;
            data += received;
            size -= static_cast<std::size_t>(received);
        }
        return true;
    }
    void deliver(std::size_t id)
    {
        Slot& slot = slots_[id];
        if (slot.collectedLater) {
            const std::lock_guard<std::mutex> lock(queueMutex_);
            queue_.push_back(id);
            replyThere_.notify_one();
            return;
        }
        const std::lock_guard<std::mutex> lock(slot.mutex);
        slot.answered = true;
        slot.gate.notify_one();
    }
    void receive()
    {
        char header[callHeaderSize];
        while (awaitReply() && read(header, sizeof header)) {
            const std::size_t id = intAt(header + messageIdOffset) - 1;
            const std::size_t bodySize = intAt(header + callHeaderSize - 4);
            slots_[id].body.resize(bodySize);
            if (!read(slots_[id].body.data(), bodySize)) return;
            deliver(id);
        }
    }

    int socket_;
    const Bytes request_;
    std::deque<Slot> slots_;
    std::mutex freeMutex_;
    std::vector<std::size_t> free_;
    std::mutex sendMutex_;
    std::mutex queueMutex_;
    std::condition_variable replyThere_;
    std::deque<std::size_t> queue_;
    std::thread receiver_;
};

} // namespace

Figures handOffRow(const Options& options)
{
    HandOff handOff(options.port, static_cast<std::size_t>(options.threads), options.size);
    return measureCalls(options, [&](int) {
        return [&handOff, request = handOff.request(),
                commarea = std::vector<char>(options.size, 'a')]() mutable {
            handOff.call(&request, &commarea);
        };
    });
}

Figures handOffWindowRow(const Options& options)
{
    HandOff handOff(options.port, static_cast<std::size_t>(options.window), options.size);
    Bytes request = handOff.request();
    std::vector<char> commarea(options.size, 'a');
    return measureWindow(
        options, [&] { handOff.begin(&request, commarea); }, [&] { handOff.collect(&commarea); });
}

} // namespace bench
