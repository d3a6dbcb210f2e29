// A table of a TOML file, taken apart key by key. Every function throws Wrong, with the place, for
// what is not as it should be.
//
// Thread: any.
#ifndef GATEWAY_CONF_SECTION_H
#define GATEWAY_CONF_SECTION_H

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "conf/value.h"

namespace conf {

[[noreturn]] void complain(const Value& value, const std::string& problem);

// Values by themselves; `name` is what messages call them.
std::string textIn(const Value& value, const std::string& name, std::size_t longest);
std::int64_t numberIn(const Value& value, const std::string& name, std::int64_t least,
                      std::int64_t most);

// A text in quotes, or a list of such texts.
std::vector<std::string> textsIn(const Value& value, const std::string& name, std::size_t longest);

// "250us", "50ms", "2s" or "1min", up to an hour.
std::chrono::microseconds timeIn(const Value& value, const std::string& name);

class Section {
public:
    // The value, a table, must outlive this.
    Section(const Value& value, const std::string& name);

    // To be called before anything is read: a key that is misspelled is no key that is missing.
    void expectOnly(const std::vector<std::string>& keys) const;

    const Value* find(const char* key) const { return value_.find(key); }
    const Value& needed(const char* key) const;

    std::optional<std::string> text(const char* key, std::size_t longest) const;
    std::optional<std::int64_t> number(const char* key, std::int64_t least,
                                       std::int64_t most) const;
    std::optional<bool> flag(const char* key) const;
    std::optional<std::chrono::microseconds> time(const char* key) const;

    // The tables of [[key]]; none when there is no such key.
    std::vector<const Value*> tables(const char* key) const;

    const Value& value() const { return value_; }

private:
    const Value& value_;
};

} // namespace conf

#endif
