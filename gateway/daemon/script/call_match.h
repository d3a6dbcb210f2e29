// Which calls a script means, and a list of expectations.
//
// Thread: one at a time.
#ifndef SCRIPT_CALL_MATCH_H
#define SCRIPT_CALL_MATCH_H

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "conf/section.h"
#include "script/data_match.h"
#include "standin/messages.h"

namespace script {

// A name, or one of several, in which * stands for any characters and ? for any one.
class NameMatch {
public:
    static NameMatch read(const conf::Value& value, const std::string& name);

    bool fits(const std::string& text) const;

    const std::vector<std::string>& patterns() const { return patterns_; }

private:
    std::vector<std::string> patterns_;
};

class CallMatch {
public:
    // The keys that read() looks at.
    static const std::vector<std::string>& keys();

    // Throws conf::Wrong.
    static CallMatch read(const conf::Section& section);

    bool fits(const standin::EciRequest& request) const;

    // For people, without the data that are looked for: "program PRICE, commarea".
    std::string describe() const;

private:
    std::vector<std::pair<std::string standin::EciRequest::*, NameMatch>> names_;
    std::optional<DataMatch> commarea_;
    std::optional<bool> hasChannel_;
    std::optional<NameMatch> channel_;
    std::vector<std::pair<std::string, DataMatch>> containers_;
};

// The matches of containers by name, as a table gives them.
std::vector<std::pair<std::string, DataMatch>> containersIn(const conf::Value& value);

// Whether the channel's containers are so; null: there is no channel.
bool containersFit(const std::vector<std::pair<std::string, DataMatch>>& wanted,
                   const standin::Channel* channel);

} // namespace script

#endif
