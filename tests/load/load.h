// Threads that do everything at once that applications do with connections: open them, call on
// them in every way, close them by name, purge them, close all of them, and go on with what others
// have closed.
//
//     Load load(seed, threads, peers.port(), watch);
//     load.warmUp();
//     load.run(std::chrono::seconds(8), progress);
//     load.settle();
//
// Uses the library's exported calls only. What a call returns is held against what is known about
// its connection, see connections.h, and what it brings against what it has asked for.
#ifndef LOAD_LOAD_H
#define LOAD_LOAD_H

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "load/watch.h"

namespace load {

// Is told how long it has been, and what has been done.
using Progress = std::function<void(std::chrono::seconds passed, const std::string& counts)>;

class Load {
public:
    Load(unsigned seed, int threads, int port, Watch& watch);
    ~Load();
    Load(const Load&) = delete;
    Load& operator=(const Load&) = delete;

    // Everything that the library makes once and keeps is there afterwards.
    void warmUp();

    // Tells of its progress now and then.
    void run(std::chrono::seconds length, const Progress& progress);

    // Closes all connections and deletes all channels.
    void settle();

    // What has been done, in words.
    std::string counts() const;

    // Whether every kind of thing has been done.
    bool hasDoneEverything() const;

private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace load

#endif
