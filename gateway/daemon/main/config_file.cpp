#include "main/config_file.h"

#include <sstream>
#include <string>

#include "log/log_text.h"

namespace daemon_options {

namespace {

// A name in the file, that of a section in front of it.
struct Entry {
    int line;
    std::string name;
};

bool isSection(const std::string& line)
{
    return line.size() > 1 && line.front() == '[' && line.back() == ']';
}

// The name between single or double brackets; that of the options' own section is empty.
std::string sectionName(const std::string& line)
{
    std::string name = line.substr(1, line.size() - 2);
    if (isSection(name)) name = name.substr(1, name.size() - 2);
    return CLI::detail::to_lower(name) == "default" ? "" : name;
}

std::string withoutComment(const std::string& text)
{
    return CLI::detail::trim_copy(text.substr(0, text.find('#')));
}

// True when the value of this line is a list that goes on in the next one.
bool opensList(const std::string& line)
{
    const std::size_t mark = line.find('=');
    if (mark == std::string::npos) return false;
    const std::string value = withoutComment(line.substr(mark + 1));
    return value.size() > 1 && value.front() == '[' && value.back() != ']';
}

std::string nameOn(const std::string& line)
{
    std::string name = withoutComment(line.substr(0, line.find('=')));
    return CLI::detail::remove_quotes(name);
}

// Takes the text apart as CLI11 does, and keeps the lines.
class Entries {
public:
    explicit Entries(const std::string& text)
    {
        std::istringstream lines(text);
        std::string line;
        for (int number = 1; std::getline(lines, line); ++number) {
            CLI::detail::trim(line);
            if (!line.empty()) take(number, line);
        }
    }

    const std::vector<Entry>& all() const { return all_; }

private:
    void take(int number, const std::string& line)
    {
        if (inList_) {
            inList_ = line.back() != ']';
        } else if (isSection(line)) {
            section_ = sectionName(line);
            if (!section_.empty()) all_.push_back({number, section_});
        } else if (line.front() != '#' && line.front() != ';') {
            const std::string front = section_.empty() ? "" : section_ + ".";
            all_.push_back({number, front + nameOn(line)});
            inList_ = opensList(line);
        }
    }

    std::vector<Entry> all_;
    std::string section_;
    bool inList_ = false;
};

bool isOption(const CLI::App& app, const std::string& name)
{
    const CLI::Option* option = app.get_option_no_throw("--" + name);
    if (option == nullptr) option = app.get_option_no_throw(name);
    return option != nullptr && option->get_configurable();
}

std::vector<std::string> namesOfOptions(const CLI::App& app)
{
    std::vector<std::string> names;
    for (const CLI::Option* const option : app.get_options()) {
        if (option->get_configurable()) names.push_back(option->get_lnames().front());
    }
    return names;
}

std::string textOf(std::istream& input)
{
    std::string text;
    char piece[16384];
    while (input.read(piece, sizeof piece), input.gcount() > 0)
        text.append(piece, static_cast<std::size_t>(input.gcount()));
    return text;
}

} // namespace

std::vector<CLI::ConfigItem> ConfigFile::from_config(std::istream& input) const
{
    const std::string text = textOf(input);
    const std::string file = app_.get_config_ptr()->as<std::string>();
    if (input.bad()) throw CLI::ConfigError(file + " cannot be read to its end");
    const Entries entries(text);
    for (const Entry& entry : entries.all()) {
        if (isOption(app_, entry.name)) continue;
        throw CLI::ConfigError(file + ", line " + std::to_string(entry.line) +
                               ": there is no key \"" + log_text::printable(entry.name) +
                               "\" here; there are " + log_text::listed(namesOfOptions(app_)));
    }
    std::istringstream again(text);
    return CLI::ConfigTOML::from_config(again);
}

} // namespace daemon_options
