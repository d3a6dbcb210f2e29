// The peers of the load's connections: one thread that listens on 127.0.0.1 and serves them all.
// They do what the connections' plans and the programs of calls ask for, give some answers late and
// so out of order, and never leave anything unanswered for longer than a moment.
//
// A peer takes note of everything that no client may send: malformed flows, a second handshake, a
// connection that ends within a flow or without a goodbye.
#ifndef LOAD_PEERS_H
#define LOAD_PEERS_H

#include <memory>
#include <string>
#include <vector>

namespace load {

class Peers {
public:
    explicit Peers(unsigned seed);
    ~Peers();
    Peers(const Peers&) = delete;
    Peers& operator=(const Peers&) = delete;

    int port() const;

    // Waits until every client has gone, with a limit, and ends. Whoever is still there then is a
    // problem.
    void stop();

    // What has been noted and not been asked for yet.
    std::vector<std::string> problems();

private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace load

#endif
