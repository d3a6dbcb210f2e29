// A TOML file as a tree of values that know where they stand.
//
// Thread: any; nothing here changes once it has been read.
#ifndef GATEWAY_CONF_VALUE_H
#define GATEWAY_CONF_VALUE_H

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace conf {

// Both from 1.
struct Place {
    std::uint32_t line = 1;
    std::uint32_t column = 1;
};

// What is wrong with a file, as "line 3, column 9: ...". What stands there is never part of it,
// since that may be a password.
class Wrong : public std::runtime_error {
public:
    Wrong(Place place, const std::string& problem);

    Place place() const { return place_; }

private:
    Place place_;
};

// A file that cannot be read at all.
class Unreadable : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct Entry;

struct Value {
    enum class Kind { Text, Number, Fraction, Flag, Moment, List, Table };

    Kind kind = Kind::Table;
    Place place;
    std::string text;
    std::int64_t number = 0;
    double fraction = 0; // also of a Number
    bool flag = false;
    std::vector<Value> list;
    std::vector<Entry> entries; // of a table, in the order of the file

    // The value of a table's key; null when there is none.
    const Value* find(const std::string& key) const;

    bool isText() const { return kind == Kind::Text; }
    bool isList() const { return kind == Kind::List; }
    bool isTable() const { return kind == Kind::Table; }
};

struct Entry {
    Place place; // of the key
    std::string key;
    Value value;
};

// The whole file, a table. Both throw Wrong, and readFile also Unreadable.
Value readFile(const std::string& file);
Value readText(const std::string& text);

// The bytes of a file; Unreadable when it is larger than this, or no file.
std::string bytesOf(const std::string& file, std::size_t most);

} // namespace conf

#endif
