// What an examination finds.
#ifndef QPX_REPORT_H
#define QPX_REPORT_H

#include <string>

#include <nlohmann/json.hpp>

#include "failure.h"
#include "settings.h"

namespace qpx {

// What is found, in the order in which it is: good, worth knowing, or wrong; what to do about it.
class Report {
public:
    explicit Report(const Settings& settings) : settings_(settings) {}

    void good(const std::string& about, const std::string& what) { add("good", about, what, ""); }

    void bad(const std::string& about, const std::string& what, const std::string& advice)
    {
        add("bad", about, what, advice);
        anyBad_ = true;
    }

    void know(const std::string& about, const std::string& what, const std::string& advice = "")
    {
        add("know", about, what, advice);
    }

    bool anyBad() const { return anyBad_; }

    const Json& json() const { return findings_; }

private:
    void add(const std::string& state, const std::string& about, const std::string& what,
             const std::string& advice);

    const Settings& settings_;
    Json findings_ = Json::array();
    bool anyBad_ = false;
};

} // namespace qpx

#endif
