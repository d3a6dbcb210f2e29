// qpx systems - the servers that the Gateway knows, however many there are.

#include <cstring>
#include <iostream>

#include <nlohmann/json.hpp>

#include "command.h"
#include "connection.h"

namespace qpx {

namespace {

const char* const kFooter = R"(
Examples:
  qpx systems
  qpx --host gateway.example systems --json | jq -r '.systems[].name')";

constexpr std::size_t kMost = 65535; // what an unsigned short can count

struct SystemsOptions {};

// Makes more room until all of them fit.
std::vector<QPX_listSystem_t> askFor(QPX_ConnToken_t gateway)
{
    std::vector<QPX_listSystem_t> list(64);
    for (;;) {
        auto count = static_cast<unsigned short>(list.size());
        const int rc = QPX_listSystems(gateway, &count, list.data());
        if (rc == QPX_ERR_NO_SYSTEMS) return {};
        if (rc == QPX_ERR_MORE_SYSTEMS && list.size() < kMost) {
            list.resize(std::min(kMost, list.size() * 4));
            continue;
        }
        if (rc != QPX_OK) throw CallFailure(Phase::Systems, "systems", rc);
        list.resize(std::min<std::size_t>(count, list.size()));
        return list;
    }
}

// No further than the field reaches, and without the blanks behind it.
template <std::size_t width>
std::string textOf(const char (&field)[width])
{
    std::string text(field, strnlen(field, width - 1));
    text.resize(text.find_last_not_of(' ') + 1);
    return text;
}

void show(const Settings& settings, const std::vector<QPX_listSystem_t>& list)
{
    if (list.empty()) std::cerr << "qpx: the Gateway knows no server\n";
    for (const QPX_listSystem_t& system : list) {
        std::string name = textOf(system.SystemName);
        name.resize(8, ' ');
        std::cout << bold(settings, name) << "  " << textOf(system.Description) << '\n';
    }
}

ExitCode runSystems(const Settings& settings, const SystemsOptions&)
{
    Connection gateway(settings);
    const std::vector<QPX_listSystem_t> list = askFor(gateway.token());
    if (settings.json) {
        Json systems = Json::array();
        for (const QPX_listSystem_t& system : list)
            systems.push_back(
                {{"name", textOf(system.SystemName)}, {"description", textOf(system.Description)}});
        print({{"systems", systems}});
    } else {
        show(settings, list);
    }
    gateway.close();
    return kDone;
}

} // namespace

void declareSystems(CLI::App& app, Command& chosen)
{
    CLI::App* command = nullptr;
    addCommand(app, command, "systems", "Lists the servers that the Gateway knows", chosen,
               runSystems);
    command->footer(kFooter);
}

} // namespace qpx
