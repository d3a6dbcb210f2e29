// What the preloaded shim offers to the program that it is preloaded into.
//
// The shim stands between libqpxclient.so and the C library: of each call it looks at the address
// that it returns to, and only those count that the code of libqpxclient.so makes.
#ifndef TORTURE_SHIM_H
#define TORTURE_SHIM_H

#include <cstddef>

namespace torture {

// Something that is held at this moment: a block of memory, a mapping, a stream or a list of
// addresses. Its site is where in the library it was made.
struct Held {
    std::size_t site;
    std::size_t size;
};

// How what the library reads and writes is cut up. Nothing fails thereby: these are the sizes and
// the interruptions that the system may have for any program.
enum class Shredding {
    None,
    ReceivedOneByOne, // recv gives one byte
    ReceivedAtRandom, // recv gives any number up to what is asked for
    SentByHalves,     // send takes half
    Interrupted       // every third call that may be interrupted is
};

struct Shim {
    // How many faults there are, and the name of each.
    int (*faults)();
    const char* (*faultName)(int fault);

    // The k-th call from now on that the fault is of fails, or that one and all behind it. With k 0
    // calls are counted only.
    void (*arm)(int fault, int k, bool fromThenOn);
    void (*disarm)();
    int (*calls)(int fault); // since the arming
    int (*hits)();           // how many of them have failed
    std::size_t (*place)();  // where in the library the first of them was

    // Called behind each failure, on its thread; may make no call of the library.
    void (*onHit)(void (*hook)());

    // From now on; the seed is that of the random sizes.
    void (*shred)(Shredding way, unsigned seed);
    int (*shreds)();              // how many calls have been cut or interrupted
    int (*interruptedConnects)(); // how many connects a signal has ended

    // Fills in what is held, as far as there is room; the number is that of all.
    int (*held)(Held* room, int count);
};

// The name of the function of the shim that gives these: const Shim* qpxTortureShim().
constexpr const char* shimEntry = "qpxTortureShim";

} // namespace torture

#endif
