// The program of handoff.cpp in the best form that was found: one recv takes all that is there, a
// gate is one word that the kernel is asked about only by who has to wait, nobody is woken under a
// lock, and all replies of one recv that are collected later go on their queue at once.

#include "../common/measure.h"
#include "../common/sockets.h"
#include "../common/wire.h"
#include "rows.h"

#include <linux/futex.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <mutex>

namespace bench {

namespace {

// Opened once for each closing, by another thread than the one that waits.
class Gate {
public:
    void close() { state_.store(closed, std::memory_order_relaxed); }
    void wait()
    {
        std::uint32_t expected = closed;
        if (!state_.compare_exchange_strong(expected, awaited)) return;
        while (state_.load(std::memory_order_acquire) != opened)
            syscall(SYS_futex, &state_, FUTEX_WAIT_PRIVATE, awaited, nullptr, nullptr, 0);
    }
    void open()
    {
        if (state_.exchange(opened) == awaited)
            syscall(SYS_futex, &state_, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
    }

private:
    enum : std::uint32_t { closed, awaited, opened };
    std::atomic<std::uint32_t> state_{closed};
};

struct BestSlot {
    bool collectedLater = false;
    Gate gate;
    std::vector<char> body;
};

// Replies for whoever collects them, taken out all at once.
class ReplyQueue {
public:
    void add(std::vector<std::size_t>* ids)
    {
        if (ids->empty()) return;
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            ids_.insert(ids_.end(), ids->begin(), ids->end());
        }
        ids->clear();
        gate_.open();
    }
    std::size_t take()
    {
        while (next_ == taken_.size()) takeAll();
        return taken_[next_++];
    }

private:
    void takeAll()
    {
        taken_.clear();
        next_ = 0;
        {
            const std::lock_guard<std::mutex> lock(mutex_);
            taken_.swap(ids_);
            if (taken_.empty()) gate_.close();
        }
        if (taken_.empty()) gate_.wait();
    }

    std::mutex mutex_;
    std::vector<std::size_t> ids_;
    Gate gate_;
    std::vector<std::size_t> taken_;
    std::size_t next_ = 0;
};

class BestHandOff {
public:
    BestHandOff(std::uint16_t port, std::size_t slots, std::size_t commareaSize)
        : socket_(connectToGateway(port)), request_(callOfEcho(commareaSize)), slots_(slots)
    {
        for (std::size_t id = slots; id > 0; --id) free_.push_back(id - 1);
        receiver_ = std::thread([this] { receive(); });
    }
    ~BestHandOff()
    {
        shutdown(socket_, SHUT_RDWR);
        receiver_.join();
    }
    BestHandOff(const BestHandOff&) = delete;
    BestHandOff& operator=(const BestHandOff&) = delete;

    Bytes request() const { return request_; }

    // The request is the caller's own, made once.
    void call(Bytes* request, std::vector<char>* commarea)
    {
        const std::size_t id = takeSlot();
        slots_[id].collectedLater = false;
        slots_[id].gate.close();
        sendRequest(id, request, *commarea);
        slots_[id].gate.wait();
        takeReply(id, commarea);
    }
    void begin(Bytes* request, const std::vector<char>& commarea)
    {
        const std::size_t id = takeSlot();
        slots_[id].collectedLater = true;
        sendRequest(id, request, commarea);
    }
    void collect(std::vector<char>* commarea) { takeReply(queue_.take(), commarea); }

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

    void deliver(std::size_t id)
    {
        if (slots_[id].collectedLater)
            arrived_.push_back(id);
        else
            slots_[id].gate.open();
    }
    bool readRest(char* data, std::size_t size) const
    {
        while (size > 0) {
            const ssize_t received = recv(socket_, data, size, 0);
            if (received <= 0) return false;
            data += received;
            size -= static_cast<std::size_t>(received);
        }
        return true;
    }
    // Takes a flow whose header is there. What has not come yet of it goes past the buffer.
    bool takeFlow(const char** at, const char* end)
    {
        const std::size_t id = intAt(*at + messageIdOffset) - 1;
        const std::size_t bodySize = intAt(*at + callHeaderSize - 4);
        *at += callHeaderSize;
        const std::size_t there = std::min(bodySize, static_cast<std::size_t>(end - *at));
        std::vector<char>& body = slots_[id].body;
        body.resize(bodySize);
        std::memcpy(body.data(), *at, there);
        *at += there;
        if (!readRest(body.data() + there, bodySize - there)) return false;
        deliver(id);
        return true;
    }
    void receive()
    {
        char buffer[8 * 1024];
        std::size_t there = 0;
        for (;;) {
            const ssize_t received = recv(socket_, buffer + there, sizeof buffer - there, 0);
            if (received <= 0) return;
            const char* at = buffer;
            const char* const end = buffer + there + received;
            while (end - at >= static_cast<std::ptrdiff_t>(callHeaderSize))
                if (!takeFlow(&at, end)) return;
            queue_.add(&arrived_);
            there = static_cast<std::size_t>(end - at);
            std::memmove(buffer, at, there);
        }
    }

    int socket_;
    const Bytes request_;
    std::vector<BestSlot> slots_;
    std::mutex freeMutex_;
    std::vector<std::size_t> free_;
    std::mutex sendMutex_;
    ReplyQueue queue_;
    std::vector<std::size_t> arrived_; // by the recv at hand
    std::thread receiver_;
};

} // namespace

Figures bestHandOffRow(const Options& options)
{
    BestHandOff handOff(options.port, static_cast<std::size_t>(options.threads), options.size);
    return measureCalls(options, [&](int) {
        return [&handOff, request = handOff.request(),
                commarea = std::vector<char>(options.size, 'a')]() mutable {
            handOff.call(&request, &commarea);
        };
    });
}

Figures bestHandOffWindowRow(const Options& options)
{
    BestHandOff handOff(options.port, static_cast<std::size_t>(options.window), options.size);
    Bytes request = handOff.request();
    std::vector<char> commarea(options.size, 'a');
    return measureWindow(
        options, [&] { handOff.begin(&request, commarea); }, [&] { handOff.collect(&commarea); });
}

} // namespace bench
