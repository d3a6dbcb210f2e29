// The daemon qpxgatewayd: a Gateway with its programs, until a signal ends it.

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <variant>
#include <vector>

#include <sys/resource.h>
#include <unistd.h>

#include <spdlog/details/os.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/spdlog.h>

#include "control/control.h"
#include "control/guard.h"
#include "database/name.h"
#include "journal/check.h"
#include "journal/journal.h"
#include "ledger/ledger.h"
#include "log/line_writer.h"
#include "main/options.h"
#include "main/port_file.h"
#include "main/service_manager.h"
#include "orders/orders.h"
#include "record/relay.h"
#include "registry/registry.h"
#include "registry/worker.h"
#include "replay/replay.h"
#include "replay/skeleton.h"
#include "scenario/player.h"
#include "scenario/scenario.h"
#include "script/script_file.h"
#include "standin/gateway.h"
#include "standin/wipe.h"

namespace {

using daemon_options::Options;
using daemon_options::PortFile;
using daemon_options::ServiceManager;
using Log = std::shared_ptr<spdlog::logger>;
using Registry = std::shared_ptr<registry::Registry>;

spdlog::level::level_enum levelOf(standin::LogLevel level)
{
    switch (level) {
    case standin::LogLevel::Debug: return spdlog::level::debug;
    case standin::LogLevel::Info: return spdlog::level::info;
    case standin::LogLevel::Warning: return spdlog::level::warn;
    case standin::LogLevel::Error: break;
    }
    return spdlog::level::err;
}

// Lines to standard error, with the level in its colour on a terminal.
class StandardError final : public spdlog::sinks::base_sink<std::mutex> {
private:
    void sink_it_(const spdlog::details::log_msg& message) override
    {
        spdlog::memory_buf_t formatted;
        formatter_->format(message, formatted);
        std::string line(formatted.data(), formatted.size());
        if (inColour_ && message.color_range_end > message.color_range_start) {
            line.insert(message.color_range_end, "\033[m");
            line.insert(message.color_range_start, colourOf(message.level));
        }
        writer_.write(line);
    }

    void flush_() override {}

    static const char* colourOf(spdlog::level::level_enum level)
    {
        switch (level) {
        case spdlog::level::debug: return "\033[36m";
        case spdlog::level::info: return "\033[32m";
        case spdlog::level::warn: return "\033[33m\033[1m";
        default: return "\033[31m\033[1m";
        }
    }

    const bool inColour_ = spdlog::details::os::in_terminal(stderr) &&
                           spdlog::details::os::is_color_terminal();
    log_text::LineWriter writer_{STDERR_FILENO};
};

Log openLog(standin::LogLevel level)
{
    Log log = std::make_shared<spdlog::logger>("qpxgatewayd", std::make_shared<StandardError>());
    log->set_pattern("%Y-%m-%d %H:%M:%S.%e %^%-7l%$ %v");
    log->set_level(levelOf(level));
    return log;
}

standin::LogSink sinkInto(const Log& log)
{
    return [log](standin::LogLevel level, const std::string& line) {
        log->log(levelOf(level), "{}", line);
    };
}

// The signals that the daemon understands. Blocked in every thread, they wait until they are asked
// for.
class Signals {
public:
    Signals()
    {
        sigemptyset(&signals_);
        sigaddset(&signals_, SIGINT);
        sigaddset(&signals_, SIGTERM);
        sigaddset(&signals_, SIGUSR1);
        sigaddset(&signals_, SIGHUP);
        pthread_sigmask(SIG_BLOCK, &signals_, nullptr);
        // Whoever reads the log may go, and a file may grow no further; that ends nothing.
        std::signal(SIGPIPE, SIG_IGN);
        std::signal(SIGXFSZ, SIG_IGN);
    }

    int wait() const
    {
        int signal = 0;
        sigwait(&signals_, &signal);
        return signal;
    }

private:
    sigset_t signals_;
};

// The programs that keep their data in the database.
struct DatabasePrograms {
    std::shared_ptr<standin::Program> ledger;
    std::shared_ptr<standin::Program> orders;
};

std::optional<DatabasePrograms> openDatabase(const Options& options, const Log& log)
{
    try {
        return DatabasePrograms{std::make_shared<ledger::Ledger>(options.database, sinkInto(log)),
                                std::make_shared<orders::Orders>(options.database, sinkInto(log))};
    } catch (const ledger::DatabaseError& error) {
        log->error("cannot use the database {}: {}. {}", ledger::shownName(options.database),
                   error.what(), ledger::adviceFor(options.database));
        return std::nullopt;
    }
}

// Adds a system, or gives the one of that name another description.
void put(std::vector<registry::System>& systems, const standin::SystemEntry& system)
{
    for (registry::System& known : systems) {
        if (known.name != system.name) continue;
        known.description = system.description;
        return;
    }
    systems.push_back({system.name, system.description, "available"});
}

// What the registry is filled with: the file's, and the systems of the options behind its own.
registry::Content contentFor(const Options& options)
{
    registry::Content content;
    if (!options.registry.empty()) content = registry::readContent(options.registry);
    for (const standin::SystemEntry& system : options.systems) put(content.systems, system);
    return content;
}

// The code to end with.
int complainAboutRegistry(const Options& options, const Log& log, const registry::BadContent& error,
                          int code)
{
    log->error("cannot use the registry file {}: {}. docs/gateway.md describes it.",
               options.registry, error.what());
    return code;
}

// The ledger has been opened by now, so the file is one. An int is the exit code to end with.
std::variant<Registry, int> openRegistry(const Options& options, const Log& log)
{
    try {
        auto opened = std::make_shared<registry::Registry>(options.database, sinkInto(log));
        opened->load(contentFor(options));
        return opened;
    } catch (const registry::UnknownKey& error) {
        return complainAboutRegistry(options, log, error, daemon_options::kBadOptions);
    } catch (const registry::BadContent& error) {
        return complainAboutRegistry(options, log, error, daemon_options::kBadRegistry);
    } catch (const registry::DatabaseError& error) {
        log->error("cannot fill the registry in {}: {}.", ledger::shownName(options.database),
                   error.what());
        return daemon_options::kBadDatabase;
    }
}

// So many passwords may wait to be looked at, a few seconds' work.
constexpr std::size_t kMostPasswords = 256;

// Passwords are hashed on the worker's thread, so that nobody else waits for them.
registry::Registry::Aside asideOf(registry::Worker& worker, const standin::Gateway& gateway)
{
    return [&worker, way = gateway.wayOntoThread()](std::function<void()> work,
                                                    std::function<void()> then) {
        return worker.give([way, work = std::move(work), then = std::move(then)] {
            work();
            way(then);
        });
    };
}

void serveFrom(const Registry& users, registry::Worker& worker, standin::Gateway& gateway)
{
    users->hashAside(asideOf(worker, gateway));
    gateway.setEsiProgram(
        [users](const standin::EsiRequest& request, const standin::PendingEsiReply& pending) {
            users->answer(request,
                          [pending](const standin::EsiReply& reply) { pending.complete(reply); });
        });
    gateway.setListReply(
        [users](const standin::EciRequest& request) { return users->list(request); });
}

// Null: there is no script, or it cannot be used, which has been told.
std::unique_ptr<script::ScriptFile> openScript(const Options& options, const Log& log)
{
    if (options.script.empty()) return nullptr;
    try {
        return std::make_unique<script::ScriptFile>(options.script, sinkInto(log));
    } catch (const std::runtime_error& problem) {
        log->error("cannot use the script {}: {}. docs/gateway.md describes scripts.",
                   options.script, problem.what());
        return nullptr;
    }
}

// The daemon takes all descriptors that it may have, which are so many.
rlim_t takeDescriptors()
{
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return RLIM_INFINITY;
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
    return ::getrlimit(RLIMIT_NOFILE, &limit) == 0 ? limit.rlim_cur : RLIM_INFINITY;
}

// As many units of work as leave descriptors for everything else: each has a connection to the
// database of its own.
std::size_t mostUnitsOfWork()
{
    constexpr rlim_t kOthers = 64;
    constexpr rlim_t kForEach = 4;
    constexpr rlim_t kMost = 1000;
    const rlim_t all = takeDescriptors();
    if (all == RLIM_INFINITY) return kMost;
    const rlim_t left = all > kOthers ? all - kOthers : 0;
    return static_cast<std::size_t>(std::clamp<rlim_t>(left / kForEach, 1, kMost));
}

// Null: there is none, or it cannot be opened, which has been told.
std::unique_ptr<journal::Journal> openJournal(const Options& options, const Log& log)
{
    if (options.journal.empty()) return nullptr;
    try {
        return std::make_unique<journal::Journal>(options.journal, sinkInto(log));
    } catch (const std::system_error& error) {
        log->error("cannot open the journal {}: {}. Give a file in a directory that may be written "
                   "to, or - for standard output, with --journal.",
                   options.journal, error.code().message());
        return nullptr;
    }
}

int complainAboutAddress(const Options& options, const std::system_error& error, const Log& log)
{
    log->error("cannot listen on {}:{}: {}. Choose another port with --port (0 for any free "
               "one), or an "
               "address of this machine with --host.",
               options.host, options.port, error.code().message());
    return daemon_options::kCannotListen;
}

std::unique_ptr<standin::Gateway> openGateway(const Options& options, journal::Journal* journal,
                                              const std::shared_ptr<control::Book>& book,
                                              const scenario::Player* scenario, const Log& log)
{
    standin::GatewayOptions gatewayOptions;
    gatewayOptions.host = options.host;
    gatewayOptions.port = options.port;
    gatewayOptions.log = sinkInto(log);
    gatewayOptions.logFrom = options.logLevel;
    gatewayOptions.recording = false;
    gatewayOptions.systems = options.systems;
    gatewayOptions.mostUnitsOfWork = mostUnitsOfWork();
    gatewayOptions.watcher = book;
    if (scenario != nullptr) gatewayOptions.seed = scenario->seed();
    if (journal != nullptr) {
        gatewayOptions.observer = [journal](const standin::CallRecord& call) {
            journal->add(call);
        };
    }
    try {
        return std::make_unique<standin::Gateway>(gatewayOptions);
    } catch (const std::system_error& error) {
        complainAboutAddress(options, error, log);
        return nullptr;
    }
}

// Null: it cannot listen, which has been told.
std::unique_ptr<control::Control> openControl(const Options& options, std::string token,
                                              const std::shared_ptr<control::Book>& book,
                                              standin::Gateway& gateway, script::ScriptFile* script,
                                              const Log& log)
{
    control::Settings settings;
    settings.host = options.controlHost;
    settings.port = *options.control;
    settings.token = std::move(token);
    settings.version = daemon_options::kVersion;
    settings.database = options.database;
    settings.journal = options.journal;
    settings.systems = options.systems;
    settings.recordings = options.replay.folder;
    try {
        auto control = std::make_unique<control::Control>(std::move(settings), book, gateway,
                                                          script);
        const bool isNumber = options.controlHost.find(':') == std::string::npos;
        log->info("control on http://{}:{}/",
                  isNumber ? options.controlHost : "[" + options.controlHost + "]",
                  control->port());
        return control;
    } catch (const std::runtime_error& error) {
        log->error("cannot listen on {}:{}: {}. Choose another port with --control (0 for any free "
                   "one), or an address of this machine with --control-host.",
                   options.controlHost, *options.control, error.what());
        return nullptr;
    }
}

// Nothing: the file cannot be used, which has been told.
std::optional<std::string> readToken(const Options& options, const Log& log)
{
    if (options.controlToken.empty()) return std::string();
    try {
        return control::readToken(options.controlToken);
    } catch (const std::runtime_error& problem) {
        log->error("cannot use the token file {}: {}. Give a file that has the token in its first "
                   "line with --control-token.",
                   options.controlToken, problem.what());
        return std::nullopt;
    }
}

// Tells every client, behind what is under way to it, that the gateway closes. Clients that do not
// take it are not waited for.
void sayGoodbye(standin::Gateway& gateway)
{
    constexpr std::chrono::seconds kPatience(2);
    const std::size_t connections = gateway.connectionCount();
    gateway.sendClose();
    gateway.dropConnection();
    gateway.awaitClosed(connections, kPatience);
}

// Returns when SIGINT or SIGTERM has come.
void waitForTheEnd(standin::Gateway& gateway, script::ScriptFile* script, const Log& log,
                   const Signals& signals)
{
    for (;;) {
        const int signal = signals.wait();
        if (signal == SIGUSR1) {
            log->info("releasing {} held answers", gateway.heldCount());
            gateway.release();
        } else if (signal != SIGHUP) {
            log->info("ending by signal {}", signal);
            return;
        } else if (script != nullptr) {
            script->reload();
        }
    }
}

int complainAboutPortFile(const Options& options, const Log& log)
{
    log->error("cannot write the port file {}. Give a file in a directory that may be written "
               "to, with "
               "--port-file.",
               options.portFile);
    return daemon_options::kBadPortFile;
}

void warnOfMisbehaviours(const Options& options, const Log& log)
{
    for (const standin::SelectedMisbehaviour& selected : options.misbehaviours)
        log->warn("misbehaving on purpose: {}", standin::nameOf(selected.misbehaviour.fault));
}

void tellReady(const ServiceManager& manager, const Log& log)
{
    if (!manager.tellReady()) log->warn("the service manager cannot be told that this is ready");
    log->info("ready");
}

// Passes on and records, until SIGINT or SIGTERM has come.
int relay(const Options& options, const Log& log, const Signals& signals,
          const ServiceManager& manager)
{
    PortFile portFile(options.portFile);
    takeDescriptors();
    const record::RelayOptions relayOptions{
        options.host,          options.port,  options.record.host,  options.record.port,
        options.record.folder, sinkInto(log), options.misbehaviours};
    try {
        record::Relay relay(relayOptions);
        if (!portFile.write(relay.port())) return complainAboutPortFile(options, log);
        warnOfMisbehaviours(options, log);
        tellReady(manager, log);
        int signal = signals.wait();
        for (; signal != SIGINT && signal != SIGTERM; signal = signals.wait()) {
            if (signal == SIGUSR1) log->info("released {} held answers", relay.release());
        }
        log->info("ending by signal {}", signal);
        relay.stop();
        return daemon_options::kStopped;
    } catch (const record::BadFolder& error) {
        log->error("cannot use the folder {}: {}. Give one that may be written to with --record.",
                   options.record.folder, error.code().message());
        return daemon_options::kBadFolder;
    } catch (const std::system_error& error) {
        return complainAboutAddress(options, error, log);
    }
}

// Null: there is none, or it cannot be used, which has been told.
std::unique_ptr<scenario::Player> openScenario(const Options& options, const Log& log)
{
    if (options.scenario.empty()) return nullptr;
    try {
        return std::make_unique<scenario::Player>(
            scenario::readScenario(conf::readFile(options.scenario)), sinkInto(log));
    } catch (const std::runtime_error& problem) {
        log->error("cannot use the scenario {}: {}. docs/gateway.md describes scenarios.",
                   options.scenario, problem.what());
        return nullptr;
    }
}

// Null: there is none, or it cannot be used, which has been told.
std::unique_ptr<replay::Replay> openReplay(const Options& options, const Log& log)
{
    if (options.replay.folder.empty()) return nullptr;
    try {
        return std::make_unique<replay::Replay>(
            options.replay.folder,
            replay::Manner{options.replay.inOrder, options.replay.atRecordedSpeed}, sinkInto(log));
    } catch (const std::system_error& error) {
        log->error("cannot replay {}: {}. Give the folder of a recording with --replay.",
                   options.replay.folder, error.code().message());
    } catch (const replay::BadRecording& problem) {
        log->error("cannot replay {}: {}. docs/gateway.md describes recordings.",
                   options.replay.folder, problem.what());
    }
    return nullptr;
}

// Prints the script of a recording; the code to end with.
int printSkeleton(const std::string& folder)
{
    try {
        std::cout << replay::skeletonOf(replay::readFolder(folder)) << std::flush;
        if (std::cout) return daemon_options::kStopped;
        std::cerr << "qpxgatewayd: the script cannot be written\n";
        return daemon_options::kFailed;
    } catch (const std::system_error& error) {
        std::cerr << "qpxgatewayd: cannot use " << folder << ": " << error.code().message() << "\n";
    } catch (const replay::BadRecording& problem) {
        std::cerr << "qpxgatewayd: cannot use " << folder << ": " << problem.what() << "\n";
    }
    return daemon_options::kBadFolder;
}

int serve(const Options& options, const Log& log, const Signals& signals,
          const ServiceManager& manager)
{
    PortFile portFile(options.portFile);
    std::optional<DatabasePrograms> programs;
    Registry users;
    if (!options.database.empty()) {
        programs = openDatabase(options, log);
        if (!programs) return daemon_options::kBadDatabase;
        const std::variant<Registry, int> opened = openRegistry(options, log);
        standin::wipeStack(); // the registry's file has passwords in clear
        if (const int* const code = std::get_if<int>(&opened)) return *code;
        users = std::get<Registry>(opened);
    }

    const std::unique_ptr<script::ScriptFile> script = openScript(options, log);
    if (script == nullptr && !options.script.empty()) return daemon_options::kBadScript;
    const std::unique_ptr<journal::Journal> journal = openJournal(options, log);
    if (journal == nullptr && !options.journal.empty()) return daemon_options::kBadJournal;

    const std::unique_ptr<replay::Replay> replay = openReplay(options, log);
    if (replay == nullptr && !options.replay.folder.empty()) return daemon_options::kBadFolder;
    std::optional<std::string> token = readToken(options, log);
    if (!token) return daemon_options::kBadToken;
    const auto book = options.control ? std::make_shared<control::Book>(control::Book::Limits())
                                      : nullptr;

    const std::unique_ptr<scenario::Player> scenario = openScenario(options, log);
    if (scenario == nullptr && !options.scenario.empty()) return daemon_options::kBadScenario;

    registry::Worker worker(kMostPasswords); // outlives what gives work to it
    const std::unique_ptr<standin::Gateway> gateway = openGateway(options, journal.get(), book,
                                                                  scenario.get(), log);
    if (gateway == nullptr) return daemon_options::kCannotListen;
    if (programs) {
        gateway->setProgram("LEDGER", programs->ledger);
        gateway->setProgram("ORDERS", programs->orders);
    }
    if (users != nullptr) serveFrom(users, worker, *gateway);
    log->info("programs: ECHO, ABEND, CHANECHO, CHANEDIT{}",
              programs ? ", LEDGER and ORDERS on " + ledger::shownName(options.database)
                       : "; no LEDGER and ORDERS without --database");
    if (replay != nullptr) replay->serve(*gateway);
    if (script != nullptr) script->serve(*gateway, asideOf(worker, *gateway));
    for (const standin::SelectedMisbehaviour& selected : options.misbehaviours)
        gateway->misbehave(selected.misbehaviour, selected.selector);
    warnOfMisbehaviours(options, log);

    std::unique_ptr<control::Control> control;
    if (options.control) {
        control = openControl(options, std::move(*token), book, *gateway, script.get(), log);
        if (control == nullptr) return daemon_options::kCannotListen;
    }

    if (!portFile.write(gateway->port())) return complainAboutPortFile(options, log);

    if (scenario != nullptr) scenario->start(*gateway);
    tellReady(manager, log);
    waitForTheEnd(*gateway, script.get(), log, signals);
    control.reset();
    if (script != nullptr) script->abandon();
    sayGoodbye(*gateway);
    gateway->stop();
    if (replay != nullptr) replay->report();
    return daemon_options::kStopped;
}

} // namespace

int main(int argc, char** argv)
{
    try {
        if (argc > 1 && std::string(argv[1]) == "check")
            return journal::check({argv + 2, argv + argc}, std::cout, std::cerr);
        const std::variant<Options, int> read = daemon_options::readOptions(argc, argv);
        if (const int* const code = std::get_if<int>(&read)) return *code;
        const ServiceManager manager;
        const Signals signals;
        const Options& options = std::get<Options>(read);
        if (!options.recordScript.empty()) return printSkeleton(options.recordScript);
        const Log log = openLog(options.logLevel);
        if (!options.record.folder.empty()) return relay(options, log, signals, manager);
        return serve(options, log, signals, manager);
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "qpxgatewayd: %s\n", failure.what());
        return daemon_options::kFailed;
    }
}
