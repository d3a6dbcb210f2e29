// What the Gateway core tells its surroundings while it runs.
#ifndef STANDIN_LOG_H
#define STANDIN_LOG_H

#include <functional>
#include <string>

namespace standin {

enum class LogLevel { Debug, Info, Warning, Error };

// Receives one event as one readable line without a line end. Text that came from a client is made
// printable first, and no password is ever part of it. Runs on the Gateway's own thread, except for
// the lines about starting and stopping; it must not call back into the Gateway.
using LogSink = std::function<void(LogLevel level, const std::string& line)>;

} // namespace standin

#endif
