// A world of one thread for the library: sockets that are strings, threads that are fibers, and a
// heap that is counted. What the library does in it depends on the input alone.
//
// The linker puts the functions of world.cpp between the library and the system (CMakeLists.txt has
// their names). A thread that the library starts runs when the application waits, and until it has
// to wait itself; where everybody waits, onIdle says what happens next.
#ifndef FUZZ_WORLD_H
#define FUZZ_WORLD_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

namespace world {

// Numbers that look chosen by chance and are always the same for the same seed.
class Chance {
public:
    explicit Chance(std::uint32_t seed) : state_(seed * 2654435761U + 0x9E3779B9U) {}
    std::uint32_t next()
    {
        state_ ^= state_ << 13U;
        state_ ^= state_ >> 17U;
        state_ ^= state_ << 5U;
        if (state_ == 0) state_ = 0x9E3779B9U;
        return state_;
    }
    std::uint32_t below(std::uint32_t limit) { return limit == 0 ? 0 : next() % limit; }
    bool oneIn(std::uint32_t times) { return below(times) == 0; }

private:
    std::uint32_t state_;
};

// How a socket hands out what has come, and takes what is sent.
enum class Pace {
    Whole,  // as much as is asked for
    Pieces, // pieces of any size, with signals in between
    Bytes   // one byte at a time
};

struct Socket {
    std::string incoming; // what the peer has sent
    std::size_t taken = 0;
    bool ended = false; // behind the incoming bytes nothing comes
    int endError = 0;   // 0 for an orderly end, else what recv fails with
    std::string outgoing;
    bool isShutDown = false;
    bool isOpen = false;
};

struct Rules {
    Pace pace = Pace::Whole;
    bool reusesBlocks = false; // a block that is freed comes back with the next of its size
    bool noTables = false;     // there is no memory for tables of pointers
    Chance chance{1};
    // Everybody waits: makes something happen, or returns false.
    std::function<bool()> onIdle;
    // Before bytes leave: how many may, or a negated errno.
    std::function<long(Socket&, const char*, std::size_t)> onSend;
    // A connection is made: 0 or an errno.
    std::function<int(Socket&)> onConnect;
    // A block goes back to the heap.
    std::function<void(const char*, std::size_t)> onFree;
};

extern Rules rules;

// Forgets everything of the input before, and begins to count.
void begin();

// Lets the library's threads run until each of them waits or has ended; false if none could.
bool runThreads();

// A socket by its descriptor; null if there is none that is open.
Socket* socketOf(int descriptor);
int openSockets();
int livingThreads();
int heldLocks();

// The condition that the application waits for.
const void* awaited();

// What the library has of the heap, in blocks and in bytes, and the most bytes since begin().
long liveBlocks();
void showBlocks(std::size_t notBelow); // on stderr
std::size_t liveBytes();
std::size_t peakBytes();

// Says what is wrong, and ends the program.
[[noreturn]] void fail(const char* format, ...) __attribute__((format(printf, 1, 2)));

} // namespace world

#define FUZZ_CHECK(condition, ...)                  \
    do {                                            \
        if (!(condition)) world::fail(__VA_ARGS__); \
    } while (false)

#endif
