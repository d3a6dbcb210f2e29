#include "registry/registry_file.h"

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>

#include <toml++/toml.h>

#include "log/log_text.h"
#include "registry/password_hash.h"

namespace registry {

namespace {

constexpr std::size_t kLongestUserId = 10;
constexpr std::size_t kLongestSystemName = 8;
constexpr std::size_t kLongestDescription = 60;
constexpr std::int64_t kLongestLifetime = 36500; // days
constexpr std::int64_t kLargestCount = 1000;

std::string inLine(const toml::source_region& place, const std::string& problem)
{
    return "line " + std::to_string(place.begin.line) + ": " + problem;
}

[[noreturn]] void complain(const toml::source_region& place, const std::string& problem)
{
    throw BadContent(inLine(place, problem));
}

bool isPrintable(const std::string& text)
{
    for (const char c : text) {
        if (c < ' ' || c > '~') return false;
    }
    return true;
}

// As the clock on this machine's wall has it.
Time timeOf(const toml::date& date, const toml::time& time)
{
    std::tm local{};
    local.tm_year = date.year - 1900;
    local.tm_mon = date.month - 1;
    local.tm_mday = date.day;
    local.tm_hour = time.hour;
    local.tm_min = time.minute;
    local.tm_sec = time.second;
    local.tm_isdst = -1;
    const auto seconds = std::chrono::system_clock::from_time_t(std::mktime(&local));
    return std::chrono::floor<std::chrono::milliseconds>(seconds) +
           std::chrono::milliseconds(time.nanosecond / 1000000);
}

// A table of the file, taken apart key by key.
class Section {
public:
    explicit Section(const toml::table& table) : table_(table) {}

    // To be called before anything is read: a key that is misspelled is no key that is missing.
    void expectOnly(const std::vector<std::string>& keys) const
    {
        for (const auto& [key, node] : table_) {
            const std::string name(key.str());
            if (std::find(keys.begin(), keys.end(), name) != keys.end()) continue;
            // The key itself is not shown: a password may have got into its place.
            throw UnknownKey(inLine(key.source(), "there is no such key here; there are " +
                                                      log_text::listed(keys)));
        }
    }

    std::optional<std::int64_t> number(const char* key, std::int64_t least, std::int64_t most)
    {
        const toml::node* const node = find(key);
        if (node == nullptr) return std::nullopt;
        const std::optional<std::int64_t> number = node->value_exact<std::int64_t>();
        if (number && *number >= least && *number <= most) return number;
        complain(node->source(), std::string(key) + " is not a number from " +
                                     std::to_string(least) + " to " + std::to_string(most));
    }

    std::optional<bool> flag(const char* key)
    {
        const toml::node* const node = find(key);
        if (node == nullptr) return std::nullopt;
        const std::optional<bool> flag = node->value_exact<bool>();
        if (flag) return flag;
        complain(node->source(), std::string(key) + " is neither true nor false");
    }

    std::optional<std::string> text(const char* key, std::size_t shortest, std::size_t longest)
    {
        const toml::node* const node = find(key);
        if (node == nullptr) return std::nullopt;
        const std::optional<std::string> text = node->value_exact<std::string>();
        const bool fits = text && text->size() >= shortest && text->size() <= longest;
        if (fits && isPrintable(*text)) return text;
        complain(node->source(), std::string(key) + " is not a text of " +
                                     std::to_string(shortest) + " to " + std::to_string(longest) +
                                     " printable characters in quotes");
    }

    std::string neededText(const char* key, std::size_t longest)
    {
        const std::optional<std::string> given = text(key, 1, longest);
        if (!given) complain(table_.source(), std::string(key) + " is missing");
        if (given->find_first_not_of(' ') == std::string::npos || given->back() == ' ')
            complain(table_.source(), std::string(key) + " ends with a blank");
        return *given;
    }

    std::optional<Time> time(const char* key)
    {
        const toml::node* const node = find(key);
        if (node == nullptr) return std::nullopt;
        if (const auto date = node->value_exact<toml::date>()) return timeOf(*date, {});
        const auto both = node->value_exact<toml::date_time>();
        if (both && !both->is_local())
            complain(node->source(), std::string(key) + " has an offset; give the local time");
        if (both) return timeOf(both->date, both->time);
        complain(node->source(),
                 std::string(key) +
                     " is neither a date nor a date and time, as 2026-03-31T18:00:00");
    }

    std::optional<Section> section(const char* key)
    {
        const toml::node* const node = find(key);
        if (node == nullptr) return std::nullopt;
        if (const toml::table* const inner = node->as_table()) return Section(*inner);
        complain(node->source(), std::string(key) + " is no table");
    }

    std::vector<Section> sections(const char* key)
    {
        std::vector<Section> found;
        const toml::node* const node = find(key);
        if (node == nullptr) return found;
        const toml::array* const array = node->as_array();
        if (array == nullptr || !array->is_homogeneous<toml::table>())
            complain(node->source(), "each " + std::string(key) + " begins with [[" + key + "]]");
        for (const toml::node& element : *array) found.emplace_back(*element.as_table());
        return found;
    }

    const toml::source_region& place() const { return table_.source(); }

private:
    const toml::node* find(const char* key) const { return table_.get(key); }

    const toml::table& table_;
};

GivenRules readRules(std::optional<Section> section)
{
    constexpr auto kLongest = static_cast<std::int64_t>(kLongestPassword);
    GivenRules rules;
    if (!section) return rules;
    section->expectOnly({"shortest", "longest", "digit", "history", "lifetime", "attempts"});
    rules.shortest = section->number("shortest", 1, kLongest);
    rules.longest = section->number("longest", 1, kLongest);
    if (const std::optional<bool> digit = section->flag("digit")) rules.digit = *digit ? 1 : 0;
    rules.history = section->number("history", 0, kLargestCount);
    rules.lifetime = section->number("lifetime", 0, kLongestLifetime);
    rules.attempts = section->number("attempts", 0, kLargestCount);
    return rules;
}

System readSystem(Section section)
{
    section.expectOnly({"name", "description", "state"});
    System system;
    system.name = section.neededText("name", kLongestSystemName);
    system.description = section.text("description", 0, kLongestDescription).value_or("");
    system.state = section.text("state", 1, 40).value_or("available");
    return system;
}

NewUser readUser(Section section)
{
    section.expectOnly(
        {"id", "password", "expires", "verified", "accessed", "invalid", "revoked", "rules"});
    NewUser newUser;
    newUser.user.id = section.neededText("id", kLongestUserId);
    newUser.password = section.neededText("password", kLongestPassword);
    newUser.expiry = section.time("expires");
    newUser.user.verified = section.time("verified");
    newUser.user.accessed = section.time("accessed");
    newUser.user.invalidCount = section.number("invalid", 0, kLargestCount).value_or(0);
    newUser.user.revoked = section.flag("revoked").value_or(false);
    newUser.rules = readRules(section.section("rules"));
    return newUser;
}

void expectNew(std::set<std::string>& names, const std::string& name, const Section& section)
{
    if (!names.insert(name).second) complain(section.place(), name + " is there twice");
}

Content readRoot(Section root)
{
    root.expectOnly({"rules", "system", "user"});
    Content content;
    content.rules = readRules(root.section("rules"));
    std::set<std::string> systemNames;
    for (const Section& section : root.sections("system")) {
        content.systems.push_back(readSystem(section));
        expectNew(systemNames, content.systems.back().name, section);
    }
    std::set<std::string> userIds;
    for (const Section& section : root.sections("user")) {
        content.users.push_back(readUser(section));
        expectNew(userIds, content.users.back().user.id, section);
    }
    return content;
}

} // namespace

namespace {

// Without a buffer of its own, which would keep the passwords that are in the file.
std::string textOf(const std::string& file)
{
    std::error_code unknown;
    if (std::filesystem::is_directory(file, unknown)) throw BadContent("it is a folder");
    std::ifstream stream(file);
    if (!stream.is_open()) throw BadContent("it cannot be read");
    try {
        return std::string(std::istreambuf_iterator<char>(stream), {});
    } catch (const std::ios_base::failure&) {
        throw BadContent("it cannot be read");
    }
}

} // namespace

Content readContent(const std::string& file)
{
    const std::string text = textOf(file);
    try {
        return readRoot(Section(toml::parse(text)));
    } catch (const toml::parse_error& error) {
        // Its own text may quote what stands there, which may be a password.
        complain(error.source(), "this is no TOML, from column " +
                                     std::to_string(error.source().begin.column) + " on");
    }
}

} // namespace registry
