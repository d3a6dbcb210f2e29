// In the place of pattern_re2.cpp where there is no RE2 of the word size.

#include "conf/section.h"
#include "script/pattern.h"

namespace script {

std::shared_ptr<const Pattern> Pattern::read(const std::string&, const conf::Value& value)
{
    conf::complain(value, "this build has no patterns, since there was no RE2 of its word size");
}

} // namespace script
