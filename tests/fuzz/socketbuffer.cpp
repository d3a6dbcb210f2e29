// The socket buffer, reading ahead or not, against a model that knows the whole stream: messages of
// any length, fields of every kind, a stream that ends or fails anywhere; and writing, with sends
// that take a part or fail.
//
// Input: how the stream is paced and how it ends, its length, then one operation after another.
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "clapi_rc.h"
#include "clapi_socketbuffer.h"
#include "input.h"
#include "qpxclient.h"
#include "wire.h"
#include "world.h"

namespace {

constexpr std::size_t CONFIG_SIZE = 6;

// What there is of the input; behind its end every number is 0.
class Input : public InputBytes {
public:
    using InputBytes::InputBytes;

    std::uint32_t pair()
    {
        std::uint32_t high = byte();
        return high * 256 + byte();
    }
    // A length: mostly small, now and then as large as the buffer, or larger.
    std::uint32_t length()
    {
        std::uint32_t kind = byte();
        if (kind < 160) return kind % 40;
        if (kind < 200) return 1000 + byte() * 8;
        if (kind < 230) return pair();
        if (kind < 250) return 32980 + byte() % 40;
        return kind < 253 ? 0x7FFFFFFF - byte() : 0xFFFFFFFF - byte();
    }
};

char streamByte(std::size_t at)
{
    return static_cast<char>(at % 251 + at / 251);
}

constexpr std::size_t LONGEST_STREAM = 80000;

const std::string& wholeStream()
{
    static const std::string* stream = [] {
        auto* made = new std::string(LONGEST_STREAM, '\0');
        for (std::size_t i = 0; i < LONGEST_STREAM; ++i) (*made)[i] = streamByte(i);
        return made;
    }();
    return *stream;
}

// What a buffer does with a stream, told by position and length alone.
struct Model {
    std::size_t length = 0;   // of the stream
    int endError = 0;         // what a read behind its end fails with
    std::size_t position = 0; // of the next byte that is read
    std::size_t room = 0;     // of the storage
    std::size_t buffered = 0;
    std::size_t rest = 0; // of the message, not taken from the stream
    int error = 0;

    std::size_t left() const { return buffered + rest; }

    // What bytes there are yet to come from the stream.
    std::size_t toCome() const
    {
        std::size_t taken = position + buffered;
        return length - (taken < length ? taken : length);
    }

    bool fill()
    {
        if (error != 0) return false;
        std::size_t wanted = rest < room - buffered ? rest : room - buffered;
        std::size_t come = wanted < toCome() ? wanted : toCome();
        buffered += come;
        rest -= come;
        if (come < wanted) error = endError;
        return come == wanted;
    }

    // Whether a value is read; it then stands at position - width.
    bool value(std::size_t width)
    {
        if (buffered < width) fill();
        if (error != 0) return false;
        if (buffered < width) {
            error = EBADMSG;
            return false;
        }
        buffered -= width;
        position += width;
        return true;
    }

    // How many of the bytes are stored.
    std::size_t bytes(std::size_t wanted)
    {
        if (error != 0) return 0;
        std::size_t have = wanted < buffered ? wanted : buffered;
        buffered -= have;
        position += have;
        std::size_t missing = wanted - have;
        if (missing == 0) return have;
        if (missing <= room) return value(missing) ? wanted : have;
        if (missing > rest) {
            error = EBADMSG;
            return have;
        }
        std::size_t come = missing < toCome() ? missing : toCome();
        position += come;
        rest -= come;
        if (come < missing) error = endError;
        return have + come;
    }

    void skip(std::size_t wanted)
    {
        std::size_t skipped = 0;
        while (skipped < wanted && error == 0) {
            if (buffered == 0) {
                fill();
                if (buffered == 0 && error == 0) error = EBADMSG;
            }
            std::size_t step = wanted - skipped < buffered ? wanted - skipped : buffered;
            buffered -= step;
            position += step;
            skipped += step;
        }
    }
};

class Reading {
public:
    Reading(Input* input, world::Pace pace, std::uint32_t flags, std::uint32_t seed,
            std::size_t streamLength)
        : input_(*input)
    {
        world::begin();
        world::rules.pace = pace;
        world::rules.chance = world::Chance(seed);
        descriptor_ = ::socket(0, 0, 0); // the world's
        socket_ = world::socketOf(descriptor_);
        socket_->incoming = wholeStream().substr(0, streamLength);
        socket_->ended = true;
        socket_->endError = (flags & 1U) != 0 ? ECONNRESET : ((flags & 2U) != 0 ? ETIMEDOUT : 0);
        model_.length = streamLength;
        model_.endError = socket_->endError != 0 ? socket_->endError : ECONNRESET;
        isAhead_ = (flags & 4U) != 0;
        begin(SOCKET_BUFFER_CAPACITY);
    }

    ~Reading()
    {
        wipeBuffer(&buffer_);
        ::close(descriptor_);
    }

    void run()
    {
        for (int operations = 0; !input_.isOver() && operations < 60; ++operations) step();
    }

private:
    void begin(std::size_t length)
    {
        if (isAhead_) buffer_.ahead = &ahead_;
        FUZZ_CHECK(initReadBuffer(&buffer_, descriptor_, length) == QPX_OK, "no buffer");
        std::size_t wanted = length < SOCKET_BUFFER_CAPACITY ? length : SOCKET_BUFFER_CAPACITY;
        if (model_.room < wanted) model_.room = wanted;
        model_.rest = length;
        model_.error = 0;
        model_.buffered = 0;
    }

    void step()
    {
        switch (input_.byte() % 10) {
        case 0: { // the next message begins where this one ends
            skipBytes(&buffer_, model_.left());
            model_.skip(model_.left());
            check();
            if (model_.error == 0) begin(input_.length());
            break;
        }
        case 1: FUZZ_CHECK(waitForResponse(&buffer_, 0) == QPX_OK, "a wait fails"); break;
        case 2: value(1); break;
        case 3: value(2); break;
        case 4: value(4); break;
        case 5: bytes(input_.length()); break;
        case 6: arriving(input_.length()); break;
        case 7: {
            std::size_t length = input_.length();
            skipBytes(&buffer_, length);
            model_.skip(length);
            break;
        }
        case 8:
            FUZZ_CHECK((fillBuffer(&buffer_) == QPX_OK) == model_.fill(), "a fill ends otherwise");
            break;
        default: rest(); break;
        }
        check();
    }

    void value(std::size_t width)
    {
        std::uint32_t expected = 0;
        bool isRead = model_.value(width);
        for (std::size_t i = 0; isRead && i < width; ++i)
            expected = expected << 8U |
                       static_cast<unsigned char>(streamByte(model_.position - width + i));
        std::uint32_t got = 0;
        if (width == 1) got = static_cast<unsigned char>(readByte(&buffer_));
        if (width == 2) got = static_cast<unsigned short>(readShort(&buffer_));
        if (width == 4) got = static_cast<std::uint32_t>(readInt(&buffer_));
        FUZZ_CHECK(got == expected, "a value of %zu bytes at %zu is %x, not %x", width,
                   model_.position, got, expected);
    }

    void compare(const char* data, std::size_t stored)
    {
        // After an error some bytes may have come besides those that the model knows of.
        std::size_t from = model_.position - stored;
        FUZZ_CHECK(wholeStream().compare(from, stored, data, stored) == 0,
                   "what is read from %zu on is not the stream's", from);
    }

    void bytes(std::size_t length)
    {
        if (length > 70000) return; // the caller has no room for so many
        std::string data(length, '.');
        std::size_t stored = model_.bytes(length);
        readBytes(&buffer_, &data[0], length);
        compare(data.data(), stored);
    }

    void arriving(std::size_t length)
    {
        if (length == 0) return;
        std::size_t stored = model_.bytes(length);
        ArrivingBytes data = {};
        int rc = readArrivingBytes(&buffer_, &data, length);
        FUZZ_CHECK(rc == QPX_OK, "no memory for %zu bytes", length);
        FUZZ_CHECK(data.length == stored, "%zu bytes arrive, not %zu", data.length, stored);
        std::size_t most = 2 * stored > OWN_PAGES_FROM ? 2 * stored : OWN_PAGES_FROM;
        FUZZ_CHECK(data.capacity <= most, "room for %zu where %zu came", data.capacity, stored);
        compare(data.data, stored);
        clapiFreeArrived(&data);
    }

    void rest()
    {
        std::size_t announced = model_.left();
        if (announced > 100000) return;
        ArrivingBytes data = {};
        int rc = readRest(&buffer_, &data);
        std::size_t stored = 0;
        while (stored < announced) {
            if (model_.buffered == 0 && !model_.fill()) break;
            stored += model_.buffered;
            model_.position += model_.buffered;
            model_.buffered = 0;
        }
        FUZZ_CHECK((rc == QPX_OK) == (stored == announced), "a rest ends with %d", rc);
        FUZZ_CHECK(data.length == stored, "%zu bytes are the rest, not %zu", data.length, stored);
        compare(data.data, stored);
        clapiFreeArrived(&data);
    }

    // No byte behind the message is taken, but into what is read ahead; and errors are the same.
    void check()
    {
        FUZZ_CHECK(buffer_.socketErr == model_.error, "the error is %d, not %d", buffer_.socketErr,
                   model_.error);
        if (model_.error != 0) return;
        FUZZ_CHECK(buffer_.count == model_.buffered && buffer_.totalCount == model_.rest,
                   "%zu and %zu bytes are left, not %zu and %zu", buffer_.count, buffer_.totalCount,
                   model_.buffered, model_.rest);
        std::size_t taken = socket_->taken - (isAhead_ ? ahead_.count : 0);
        FUZZ_CHECK(taken == model_.position + model_.buffered, "%zu bytes are taken, not %zu",
                   taken, model_.position + model_.buffered);
    }

    Input input_;
    int descriptor_ = -1;
    world::Socket* socket_ = nullptr;
    bool isAhead_ = false;
    SocketBuffer buffer_ = {};
    ReadAhead ahead_ = {};
    Model model_;
};

char scrambled(char byte, char before, bool isFirst)
{
    return static_cast<char>(isFirst ? ~byte : byte ^ before);
}

// What is written arrives whole and in order, or not at all behind the first failure.
class Writing {
public:
    Writing(Input* input, std::uint32_t flags, std::uint32_t seed, std::size_t failAt)
        : input_(*input)
    {
        world::begin();
        world::rules.pace = world::Pace::Pieces;
        world::rules.chance = world::Chance(seed);
        bool fails = (flags & 1U) != 0;
        world::rules.onSend = [fails, failAt](world::Socket& socket, const char*,
                                              std::size_t length) -> long {
            if (!fails) return static_cast<long>(length);
            std::size_t room = failAt - socket.outgoing.size();
            return room == 0 ? -EPIPE : static_cast<long>(room);
        };
        QPX_setAPITraceLevel((flags & 2U) != 0 ? 5 : 0);
        descriptor_ = ::socket(0, 0, 0);
        socket_ = world::socketOf(descriptor_);
        failAt_ = fails ? failAt : static_cast<std::size_t>(-1);
        capacity_ = 1 + input_.length() % SOCKET_BUFFER_CAPACITY;
        FUZZ_CHECK(initWriteBuffer(&buffer_, descriptor_, capacity_) == QPX_OK, "no buffer");
    }

    ~Writing()
    {
        QPX_setAPITraceLevel(0);
        wipeBuffer(&buffer_);
        ::close(descriptor_);
    }

    void run()
    {
        for (int operations = 0; !input_.isOver() && operations < 20; ++operations) step();
        int rc = flushBuffer(&buffer_);
        bool isWhole = expected_.size() <= failAt_;
        FUZZ_CHECK((rc == QPX_OK) == isWhole, "the flush ends with %d", rc);
        std::size_t sent = isWhole ? expected_.size() : failAt_;
        FUZZ_CHECK(socket_->outgoing.size() == sent, "%zu bytes are sent, not %zu",
                   socket_->outgoing.size(), sent);
        FUZZ_CHECK(expected_.compare(0, sent, socket_->outgoing) == 0, "other bytes are sent");
        FUZZ_CHECK(buffer_.sentCount == sent, "%zu bytes count as sent", buffer_.sentCount);
        bool mustEnd = !isWhole && sent != 0;
        FUZZ_CHECK(socket_->isShutDown == mustEnd, "a stream that broke off goes on, or another");
    }

private:
    void step()
    {
        std::uint32_t number = 0x12345678 + static_cast<std::uint32_t>(expected_.size());
        switch (input_.byte() % 7) {
        case 0:
            if (capacity_ < 1) break;
            writeByte(&buffer_, static_cast<char>(number));
            wire::put8(expected_, number);
            break;
        case 1:
            if (capacity_ < 2) break;
            writeShort(&buffer_, static_cast<short>(number));
            wire::put16(expected_, number & 0xFFFFU);
            break;
        case 2:
            if (capacity_ < 4) break;
            writeInt(&buffer_, static_cast<int>(number));
            wire::put32(expected_, number);
            break;
        case 3: {
            std::string data = someData(input_.length() % longest());
            writeBytes(&buffer_, data.data(), data.size());
            expected_ += data;
            break;
        }
        case 4: {
            std::string data = someData(input_.length() % longest());
            std::size_t total = input_.length() % (capacity_ + 1);
            writePaddedBytes(&buffer_, data.data(), data.size(), total);
            data.resize(total, '\0');
            expected_ += data;
            break;
        }
        case 5: {
            std::string data = someData(input_.length() % longest());
            writeBytesMasked(&buffer_, data.data(), data.size());
            for (std::size_t i = 0; i < data.size(); ++i)
                expected_.push_back(scrambled(data[i], i == 0 ? '\0' : data[i - 1], i == 0));
            break;
        }
        default: flushBuffer(&buffer_); break;
        }
    }

    // What passes through a buffer of a few bytes takes its time.
    std::size_t longest() const { return capacity_ < 256 ? 300 : 70000; }

    std::string someData(std::size_t length)
    {
        std::string data(length, '\0');
        for (std::size_t i = 0; i < length; ++i) data[i] = streamByte(expected_.size() + i);
        return data;
    }

    Input input_;
    int descriptor_ = -1;
    world::Socket* socket_ = nullptr;
    std::size_t failAt_ = 0;
    std::size_t capacity_ = 0;
    SocketBuffer buffer_ = {};
    std::string expected_;
};

} // namespace

extern "C" int LLVMFuzzerInitialize(int* count, char*** arguments)
{
    static_cast<void>(count);
    static_cast<void>(arguments);
    static char nowhere[] = "/dev/null";
    QPX_setAPITraceFile(nowhere);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size < CONFIG_SIZE) return 0;
    std::uint32_t flags = data[0];
    std::uint32_t seed = data[1];
    std::size_t length = (data[2] * 65536U + data[3] * 256U + data[4]) % LONGEST_STREAM;
    Input input(data + CONFIG_SIZE, size - CONFIG_SIZE);
    long blocksBefore = world::liveBlocks();
    if ((flags & 128U) != 0) {
        Writing(&input, flags, seed, length).run();
    } else {
        for (world::Pace pace : {world::Pace::Whole, world::Pace::Pieces, world::Pace::Bytes})
            Reading(&input, pace, flags, seed, length).run();
    }
    FUZZ_CHECK(world::liveBlocks() == blocksBefore, "%ld blocks are left over",
               world::liveBlocks() - blocksBefore);
    return 0;
}

#ifdef FUZZ_PLANTED
// The planted mistake: the room for what arrives is a byte short of what is said.
extern "C" bool __real__Z16clapiProvideRoomP13ArrivingBytesj(ArrivingBytes* bytes,
                                                             std::size_t announced);
extern "C" bool __wrap__Z16clapiProvideRoomP13ArrivingBytesj(ArrivingBytes* bytes,
                                                             std::size_t announced)
{
    bool isFirst = bytes->capacity == 0;
    if (!__real__Z16clapiProvideRoomP13ArrivingBytesj(bytes, announced)) return false;
    if (isFirst && bytes->capacity > 2000 && bytes->capacity < OWN_PAGES_FROM) {
        clapiFreeData(bytes->data, bytes->capacity);
        bytes->data = clapiAllocateData(bytes->capacity - 1);
    }
    return true;
}
#endif
