// The script of a gateway, if this build of the library can have one.
//
// Thread: one at a time; not the gateway's.
#ifndef STANDIN_SCRIPTS_H
#define STANDIN_SCRIPTS_H

#include <memory>
#include <stdexcept>
#include <string>

#include "standin/gateway.h"
#include "standin/log.h"

namespace standin {

// what() says why, and where in the file.
class BadScript : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class Scripts {
public:
    // The sink must not be empty.
    Scripts(Gateway& gateway, LogSink log);
    ~Scripts();

    Scripts(const Scripts&) = delete;
    Scripts& operator=(const Scripts&) = delete;

    // Puts the script of the file in front of the gateway's programs. Throws BadScript; the one
    // before stays in force then.
    void use(const std::string& file);

    void useNone();

    // Nothing is waited for any more. To be called before the gateway stops.
    void abandon();

private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace standin

#endif
