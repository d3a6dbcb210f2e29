// A file with the port's number, there for as long as the daemon listens. It appears with its
// content complete, so that a script may wait for it.
//
// Who writes the file holds a lock on it. So a file without one is what a daemon that was killed
// has left behind, and a file that has been replaced by another daemon's is not taken away.
#ifndef GATEWAY_PORT_FILE_H
#define GATEWAY_PORT_FILE_H

#include <cstdint>
#include <string>

namespace daemon_options {

class PortFile {
public:
    // Takes away what a daemon that was killed has left behind under this name; empty: no file.
    explicit PortFile(std::string name);
    ~PortFile();

    PortFile(const PortFile&) = delete;
    PortFile& operator=(const PortFile&) = delete;

    // False when the file cannot be written.
    bool write(std::uint16_t port);

private:
    bool isStillOurs() const;

    const std::string name_;
    int descriptor_ = -1; // of the file that has been written; it holds the lock
};

} // namespace daemon_options

#endif
