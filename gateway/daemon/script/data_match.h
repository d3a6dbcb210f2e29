// What a script says that data have to be: a COMMAREA, or a container.
//
// Thread: one at a time.
#ifndef SCRIPT_DATA_MATCH_H
#define SCRIPT_DATA_MATCH_H

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "conf/value.h"
#include "standin/messages.h"

namespace script {

class Pattern;

// What text is in when nothing else is said.
constexpr std::int32_t kUsualCcsid = 819;

class DataMatch {
public:
    // A text that is all of the data but for the padding, true or false for data that are there or
    // not, a table, or a list of these that all have to fit. Throws conf::Wrong.
    static DataMatch read(const conf::Value& value, const std::string& name);

    // Null: there are none.
    bool fits(const standin::Bytes* data, std::int32_t ccsid) const;

private:
    struct Item {
        std::optional<bool> isThere;
        std::optional<std::int64_t> length;
        std::optional<std::size_t> at; // nothing: all of the data
        std::optional<std::string> text;
        std::optional<standin::Bytes> bytes;
        std::shared_ptr<const Pattern> pattern;
        std::optional<std::int32_t> ccsid;                      // nothing: that of the data
        mutable std::map<std::int32_t, standin::Bytes> encoded; // the text, by CCSID
    };

    void add(const conf::Value& value, const std::string& name);
    static Item itemFrom(const conf::Value& table, const std::string& name);
    static bool fits(const Item& item, const standin::Bytes& data, std::int32_t ccsid);
    static bool hasText(const Item& item, const standin::Bytes& data, std::int32_t ccsid);
    static bool hasPattern(const Item& item, const standin::Bytes& data, std::int32_t ccsid);

    std::vector<Item> items_;
};

// The CCSID that a table gives; throws conf::Wrong for one that is not known.
std::optional<std::int32_t> ccsidIn(const conf::Value& table);

// The bytes that a text in hexadecimal digits has. Throws conf::Wrong.
standin::Bytes hexIn(const conf::Value& value, const std::string& name);

} // namespace script

#endif
