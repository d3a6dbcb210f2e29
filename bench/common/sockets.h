// Blocking sockets of the loopback, as the bench's own programs use them. Whatever fails ends the
// program with a message.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace bench {

[[noreturn]] void fail(const std::string& message);

// Lets the process have as many descriptors and so connections as it may.
void allowManyDescriptors();

// A socket that listens on a free port of the loopback; the port is stored.
int listenOnLoopback(std::uint16_t* port);

void sendAtOnce(int socket);
void sendAll(int socket, const char* data, std::size_t size);
void receiveAll(int socket, char* data, std::size_t size);

// A connection to the port; the second has its handshake behind it.
int connectTo(std::uint16_t port);
int connectToGateway(std::uint16_t port);

} // namespace bench
