// The control port: the Gateway's state and its switches over HTTP, as docs/gateway-control.json
// describes them, and the page that shows them.
//
// Thread: any. What changes the Gateway goes through its own functions, which wait for its thread;
// what only asks is answered from the Book.
#ifndef CONTROL_H
#define CONTROL_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "control/book.h"
#include "script/script_file.h"
#include "standin/gateway.h"

namespace control {

struct Settings {
    std::string host = "127.0.0.1";
    std::uint16_t port = 0;
    std::string token;                         // empty: none is asked for
    std::string version;                       // of the daemon
    std::string database;                      // may have a password; empty: there is none
    std::string journal;                       // empty: there is none
    std::string recordings;                    // folder that is replayed; empty: none
    std::vector<standin::SystemEntry> systems; // without a database
};

class Control {
public:
    // Listens at once; throws std::runtime_error when the address cannot be had. The Gateway and
    // the script (null: none) must outlive it.
    Control(Settings settings, std::shared_ptr<Book> book, standin::Gateway& gateway,
            script::ScriptFile* script);

    // Ends every connection.
    ~Control();

    Control(const Control&) = delete;
    Control& operator=(const Control&) = delete;

    std::uint16_t port() const;

    // The operations that there are, as "GET /api/calls/{call}".
    static std::vector<std::string> operations();

private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace control

#endif
