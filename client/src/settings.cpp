#include "settings.h"

#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

#include <CLI/CLI.hpp>
#include <toml++/toml.h>

#include "failure.h"

namespace qpx {

namespace {

const char* const kKeys[] = {"applid",    "color",  "host",    "port",
                             "qualifier", "server", "timeout", "user"};

// A value and where it is from.
struct Value {
    std::string text;
    std::string origin;
};

std::optional<std::string> environment(const char* name)
{
    const char* const value = std::getenv(name);
    if (value == nullptr || *value == '\0') return std::nullopt;
    return value;
}

// ---- The configuration file ---------------------------------------------------------------------

std::string usualFile()
{
    if (const auto folder = environment("XDG_CONFIG_HOME")) return *folder + "/qpx.toml";
    if (const auto home = environment("HOME")) return *home + "/.config/qpx.toml";
    return "";
}

std::string listOfKeys()
{
    std::string list;
    for (const char* const key : kKeys) list += (list.empty() ? "" : ", ") + std::string(key);
    return list;
}

class ConfigurationFile {
public:
    ConfigurationFile() = default;

    ConfigurationFile(const std::string& name, const std::string& content) : name_(name)
    {
        try {
            table_ = toml::parse(content, name);
        } catch (const toml::parse_error& error) {
            complain(error.source(), std::string(error.description()));
        }
        for (const auto& [key, value] : table_) checkKey(std::string(key.str()), value);
    }

    std::optional<Value> operator[](const char* key) const
    {
        const toml::node* const node = table_.get(key);
        if (node == nullptr) return std::nullopt;
        const std::string origin = name_ + ", line " + std::to_string(node->source().begin.line) +
                                   ", " + key;
        if (const auto number = node->value_exact<std::int64_t>())
            return Value{std::to_string(*number), origin};
        return Value{node->value_or(std::string()), origin};
    }

private:
    [[noreturn]] void complain(const toml::source_region& where, const std::string& what) const
    {
        throw Failure(kUsage, name_ + ", line " + std::to_string(where.begin.line) + ": " + what);
    }

    void checkKey(const std::string& key, const toml::node& value) const
    {
        if (std::find(std::begin(kKeys), std::end(kKeys), key) == std::end(kKeys))
            complain(value.source(), "\"" + key + "\" is no key; there are " + listOfKeys());
        if (!value.is_string() && !value.is_integer())
            complain(value.source(), "\"" + key + "\" is neither a text nor a number");
    }

    std::string name_;
    toml::table table_;
};

// The file that is named must be there, the usual one need not.
ConfigurationFile readConfiguration(const GivenSettings& given)
{
    const std::string name = given.config ? *given.config : usualFile();
    if (name.empty()) return {};
    std::ifstream file(name);
    std::ostringstream content;
    if (!file || !(file.peek() == std::ifstream::traits_type::eof() || content << file.rdbuf()) ||
        file.bad()) {
        if (given.config || access(name.c_str(), F_OK) == 0)
            throw Failure(kUsage, "cannot read the configuration file " + name);
        return {};
    }
    return {name, content.str()};
}

// ---- One setting --------------------------------------------------------------------------------

class Sources {
public:
    explicit Sources(ConfigurationFile file) : file_(std::move(file)) {}

    // The value in force; a variable of nullptr is none.
    std::optional<Value> find(const char* key, const std::optional<std::string>& option,
                              const char* variable) const
    {
        if (option) return Value{*option, std::string("--") + key};
        if (variable != nullptr) {
            if (const auto text = environment(variable)) return Value{*text, variable};
        }
        return file_[key];
    }

private:
    ConfigurationFile file_;
};

void takeText(const std::optional<Value>& value, std::string& text)
{
    if (value) text = value->text;
}

void takeNumber(const std::optional<Value>& value, int least, int most, const char* what,
                int& number)
{
    if (value) number = numberFrom(value->text, least, most, value->origin + ": " + what);
}

void takeName(const std::optional<Value>& value, std::size_t longest, std::string& name)
{
    if (!value) return;
    if (value->text.size() > longest)
        throw Failure(kUsage, value->origin + ": longer than " + std::to_string(longest) +
                                  " characters: " + value->text);
    name = value->text;
}

// Colours are for people: by default there are some on a terminal that can show them only.
bool wantsColour(const std::optional<Value>& value)
{
    const std::string when = value ? value->text : "auto";
    if (when == "always") return true;
    if (when == "never") return false;
    if (when != "auto")
        throw Failure(kUsage, value->origin + ": neither auto, always nor never: " + when);
    return isatty(STDOUT_FILENO) != 0 && !environment("NO_COLOR") &&
           environment("TERM").value_or("dumb") != "dumb";
}

// The library prefers what the environment has, this program what its options say.
void overrideEnvironment(const char* variable, const std::optional<std::string>& option)
{
    if (option) setenv(variable, option->c_str(), 1);
}

} // namespace

int numberFrom(const std::string& text, int least, int most, const std::string& what)
{
    char* end = nullptr;
    errno = 0;
    const long number = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || errno != 0 || number < least || number > most)
        throw Failure(kUsage, what + " is a number from " + std::to_string(least) + " to " +
                                  std::to_string(most) + ", not " + (text.empty() ? "\"\"" : text));
    return static_cast<int>(number);
}

std::string Settings::place() const
{
    const bool brackets = host.find(':') != std::string::npos;
    return (brackets ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

void declareSettings(CLI::App& app, GivenSettings& given)
{
    const char* const group = "Options of all commands";
    const auto text = [&](const char* name, std::optional<std::string>& value, const char* form,
                          const char* what) {
        app.add_option(name, value, what)->option_text(form)->group(group);
    };

    text("--host", given.host, "HOST", "Where the Gateway listens; QPX_HOST (127.0.0.1)");
    text("--port", given.port, "PORT", "Its TCP port; QPX_PORT (5770)");
    text("--timeout", given.timeout, "SECONDS",
         "Limit for connecting, 0 to 3600, 0 is none; QPX_TIMEOUT (30)");
    text("--applid", given.applid, "APPLID", "Who calls, at most 8 characters; QPX_APPLID (none)");
    text("--qualifier", given.qualifier, "QUALIFIER",
         "Qualifier of the applid; QPX_APPLIDQUALIFIER (none)");
    text("--server", given.server, "NAME",
         "The server behind the Gateway, at most 8 characters; QPX_SERVER (its default)");
    text("--user", given.user, "USER",
         "User id; QPX_USER (none). The password is asked for, or read from --password-fd");
    text("--config", given.config, "FILE", "Read settings from FILE (~/.config/qpx.toml)");
    text("--color", given.colour, "WHEN", "Colours: auto, always or never (auto)");
    app.add_flag("--json", given.json, "Write JSON")->group(group);
}

Settings settingsFrom(const GivenSettings& given)
{
    const Sources from(readConfiguration(given));
    Settings settings;

    settings.json = given.json;
    settings.colour = wantsColour(from.find("color", given.colour, nullptr)) && !given.json;
    takeText(from.find("host", given.host, "QPX_HOST"), settings.host);
    takeNumber(from.find("port", given.port, "QPX_PORT"), 1, 65535, "a port", settings.port);
    takeNumber(from.find("timeout", given.timeout, "QPX_TIMEOUT"), 0, 3600, "a time-out",
               settings.timeout);
    takeName(from.find("server", given.server, "QPX_SERVER"), 8, settings.server);
    takeName(from.find("user", given.user, "QPX_USER"), 16, settings.user);
    const auto applid = from.find("applid", given.applid, "QPX_APPLID");
    takeName(applid, 8, settings.applid);
    if (applid) settings.applidOrigin = applid->origin;
    takeName(from.find("qualifier", given.qualifier, "QPX_APPLIDQUALIFIER"), 8, settings.qualifier);
    overrideEnvironment("QPX_APPLID", given.applid);
    overrideEnvironment("QPX_APPLIDQUALIFIER", given.qualifier);
    return settings;
}

} // namespace qpx
