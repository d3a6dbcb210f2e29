// In the place of scripts.cpp where what scripts are read with is missing.

#include "scripts.h"

namespace standin {

class Scripts::Impl {};

Scripts::Scripts(Gateway&, LogSink) {}

Scripts::~Scripts() = default;

void Scripts::use(const std::string&)
{
    throw BadScript(
        "this build of the library has no scripts; it needs toml++ and nlohmann's JSON");
}

void Scripts::useNone() {}

void Scripts::abandon() {}

} // namespace standin
