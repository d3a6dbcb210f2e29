// A regular expression, for text in UTF-8. Where RE2 is missing there is none: pattern_none.cpp.
//
// Thread: any.
#ifndef SCRIPT_PATTERN_H
#define SCRIPT_PATTERN_H

#include <memory>
#include <string>

#include "conf/value.h"

namespace script {

class Pattern {
public:
    virtual ~Pattern() = default;

    // Throws conf::Wrong at the place of the value for an expression that cannot be used.
    static std::shared_ptr<const Pattern> read(const std::string& text, const conf::Value& value);

    // Whether it fits some part of the text.
    virtual bool isIn(const std::string& text) const = 0;
};

} // namespace script

#endif
