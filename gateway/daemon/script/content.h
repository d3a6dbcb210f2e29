// What a script answers with: data made of a text with fields of the call in it, of hexadecimal
// digits, or of a file.
//
// Thread: one at a time.
#ifndef SCRIPT_CONTENT_H
#define SCRIPT_CONTENT_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "conf/value.h"
#include "standin/messages.h"
#include "standin/program.h"

namespace script {

// Texts by name, as a script keeps them for a connection or a unit of work.
using State = std::map<std::string, std::string>;

// The call that is answered, and what has been counted up to it.
struct Situation {
    const standin::EciRequest& request;
    int connection = 0;
    std::int32_t message = 0;
    std::int32_t unit = 0;  // token; 0: none
    std::uint64_t call = 0; // of those that this part of the script has answered, from 1
    std::map<std::string, std::uint64_t>& counters;
    const State& ofConnection;
    const State& ofUnit;
};

// A text with ${...} in it; docs/gateway.md lists what may stand there.
class Template {
public:
    // Throws conf::Wrong.
    Template(const conf::Value& value, const std::string& name, std::int32_t ccsid);

    // What it comes to, as bytes of its CCSID. Throws std::length_error when that is too much.
    standin::Bytes fill(const Situation& situation) const;

private:
    struct Field {
        std::function<standin::Bytes(const Situation&)> bytes; // taken as they are
        std::function<std::string(const Situation&)> text;     // or converted
    };
    using Part = std::variant<standin::Bytes, Field>;

    Field fieldFrom(const conf::Value& value, const std::string& words) const;

    std::int32_t ccsid_;
    std::vector<Part> parts_;
};

class Content {
public:
    // A text, or a table with one of text, hex and file, and with ccsid and length. `folder` is
    // where files are that are not named from the root on; `others` are keys that belong to
    // somebody else. Throws conf::Wrong.
    static Content read(const conf::Value& value, const std::string& name,
                        const std::string& folder, const std::vector<std::string>& others = {});

    // Whether a table has any of text, hex and file.
    static bool isIn(const conf::Value& table);

    // What is in a CCSID when the script does not say in which.
    standin::Bytes fill(const Situation& situation) const;

    bool isText() const { return std::holds_alternative<Template>(data_); }
    std::int32_t ccsid() const { return ccsid_; }

private:
    Content(std::variant<Template, standin::Bytes> data, std::int32_t ccsid)
        : data_(std::move(data)), ccsid_(ccsid)
    {
    }

    std::variant<Template, standin::Bytes> data_;
    std::int32_t ccsid_;
    std::size_t length_ = 0; // filled up to this with blanks, or with 0x00 where it is no text
};

} // namespace script

#endif
