// The file that --config names: lines of name=value. CLI11 reads it, and passes over what it does
// not know; here each name is held against the options first.
#ifndef GATEWAY_CONFIG_FILE_H
#define GATEWAY_CONFIG_FILE_H

#include <istream>
#include <vector>

#include <CLI/CLI.hpp>

namespace daemon_options {

class ConfigFile : public CLI::ConfigTOML {
public:
    // The app is the one whose options the file may hold; it must outlive this.
    explicit ConfigFile(const CLI::App& app) : app_(app) {}

    // Throws CLI::ConfigError for the first name that is no option, with the file and the line.
    std::vector<CLI::ConfigItem> from_config(std::istream& input) const override;

private:
    const CLI::App& app_;
};

} // namespace daemon_options

#endif
