#include "control/control.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <filesystem>
#include <functional>
#include <limits>
#include <optional>
#include <random>
#include <system_error>
#include <utility>

#include "control/fault_json.h"
#include "control/flow_map.h"
#include "control/resources.h"
#include "control/tables.h"
#include "control/web.h"
#include "database/database.h"
#include "database/name.h"
#include "journal/journal_line.h"
#include "log/log_text.h"

namespace control {

using call_json::Json;
using log_text::timeText;

namespace {

constexpr std::size_t kUsualCalls = 100;
constexpr std::size_t kMostCalls = 1000;           // in one answer
constexpr std::size_t kMostRows = 1000;            // of other lists
constexpr std::chrono::milliseconds kBetween(150); // two pieces of a stream
constexpr std::chrono::seconds kSilence(5);        // behind which a stream shows that it is alive

std::string textOf(const Json& json)
{
    return call_json::lineOf(json) + "\n";
}

WebAnswer answerOf(const Json& json, int status = 200)
{
    WebAnswer answer;
    answer.status = status;
    answer.body = textOf(json);
    return answer;
}

// "what is wrong; what to do".
std::string errorText(const std::string& problem)
{
    const std::size_t mark = problem.find("; ");
    Json json;
    json["error"] = call_json::validText(problem.substr(0, mark));
    json["help"] = mark == std::string::npos ? "docs/gateway-control.json describes all requests"
                                             : call_json::validText(problem.substr(mark + 2));
    return textOf(json);
}

WebAnswer errorOf(int status, const std::string& problem)
{
    WebAnswer answer;
    answer.status = status;
    answer.body = errorText(problem);
    return answer;
}

const char* nameOf(standin::Ending ending)
{
    switch (ending) {
    case standin::Ending::ClosedByClient: return "closed by the client";
    case standin::Ending::ClosedByGateway: return "closed by the gateway";
    case standin::Ending::Reset: return "reset";
    case standin::Ending::Open: break;
    }
    return "open";
}

Json connectionJson(const Connection& connection)
{
    Json json;
    json["connection"] = connection.number;
    json["peer"] = connection.peer;
    json["since"] = timeText(connection.since);
    json["until"] = connection.until ? Json(timeText(*connection.until)) : Json(nullptr);
    json["state"] = connection.until       ? nameOf(connection.ending)
                    : connection.handshake ? "open"
                                           : "before the handshake";
    json["applid"] = connection.handshake ? call_json::validText(connection.handshake->applid) : "";
    json["qualifier"] = connection.handshake
                            ? call_json::validText(connection.handshake->applidQualifier)
                            : "";
    json["calls"] = connection.calls;
    json["units"] = connection.units;
    return json;
}

Json unitJson(const Unit& unit)
{
    Json programs = Json::array();
    for (const std::string& program : unit.state.programs)
        programs.push_back(call_json::nameText(program));
    return {{"unit", unit.state.token},
            {"connection", unit.state.connection},
            {"since", timeText(unit.since)},
            {"programs", std::move(programs)}};
}

Json summaryJson(const Summary& summary)
{
    Json json;
    json["call"] = summary.number;
    json["time"] = timeText(summary.came);
    json["connection"] = summary.connection;
    json["message"] = summary.message;
    json["type"] = summary.type;
    json["program"] = summary.program;
    json["user"] = summary.user;
    json["mode"] = summary.mode;
    json["unit"] = summary.unit;
    json["underWay"] = summary.isUnderWay;
    json["flow"] = summary.isAnswered ? Json(summary.flow) : Json(nullptr);
    json["code"] = summary.code ? Json(*summary.code) : Json(nullptr);
    json["abend"] = summary.abend;
    json["gateway"] = summary.gateway;
    json["faults"] = summary.faults;
    json["microseconds"] = summary.took.count();
    return json;
}

template <typename Item, typename ToJson>
Json listOf(const std::vector<Item>& items, ToJson toJson)
{
    Json list = Json::array();
    const std::size_t first = items.size() > kMostRows ? items.size() - kMostRows : 0;
    for (std::size_t i = first; i < items.size(); ++i) list.push_back(toJson(items[i]));
    return list;
}

Json flowJson(const standin::Bytes& flow, Direction direction)
{
    if (flow.empty()) return nullptr;
    static const char* const digits = "0123456789abcdef";
    std::string hex;
    hex.reserve(2 * flow.size());
    for (const std::uint8_t byte : flow) {
        hex += digits[byte >> 4U];
        hex += digits[byte & 15U];
    }
    Json fields = Json::array();
    for (const Field& field : fieldsOf(flow, direction)) {
        fields.push_back({{"at", field.at},
                          {"length", field.length},
                          {"name", call_json::validText(field.name)},
                          {"value", call_json::validText(field.value)}});
    }
    return {{"hex", std::move(hex)}, {"fields", std::move(fields)}};
}

Json callJson(const Call& call)
{
    Json json = journal::jsonOf(call.record);
    json["isCut"] = call.isCut;
    json["requestFlow"] = flowJson(call.record.requestFlow, Direction::FromClient);
    json["answerFlow"] = flowJson(call.record.answerFlow, Direction::FromGateway);
    return json;
}

std::vector<std::string> segmentsOf(const std::string& path)
{
    std::vector<std::string> segments;
    std::size_t at = 0;
    while (at < path.size()) {
        const std::size_t end = std::min(path.find('/', at + 1), path.size());
        segments.push_back(path.substr(at + 1, end - at - 1));
        at = end;
    }
    return segments;
}

std::optional<std::uint64_t> numberFrom(const std::string& text)
{
    std::uint64_t number = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc() || stop != end || text.empty()) return std::nullopt;
    return number;
}

// The number that stands in the path. Throws BadRequest.
std::uint64_t wantedNumber(const std::string& text, const std::string& what)
{
    const std::optional<std::uint64_t> number = numberFrom(text);
    if (number) return *number;
    throw BadRequest("the " + what + " in the address is no number");
}

// Random, so that no text that comes into the page could have it.
std::string nonce()
{
    static const char* const digits = "0123456789abcdef";
    std::random_device chance;
    std::string text;
    for (int i = 0; i < 4; ++i) {
        std::uint32_t number = chance();
        for (int digit = 0; digit < 8; ++digit, number >>= 4U) text += digits[number & 15U];
    }
    return text;
}

void replaceAll(std::string& text, const std::string& mark, const std::string& by)
{
    for (std::size_t at = text.find(mark); at != std::string::npos;
         at = text.find(mark, at + by.size()))
        text.replace(at, mark.size(), by);
}

} // namespace

class Control::Impl {
public:
    Impl(Settings settings, std::shared_ptr<Book> book, standin::Gateway& gateway,
         script::ScriptFile* script)
        : settings_(std::move(settings)), book_(std::move(book)), gateway_(gateway),
          script_(script), since_(Clock::now()), scripts_(scriptFolder()),
          web_(settings_.host, settings_.port, settings_.token, handler())
    {
        web_.start();
    }

    ~Impl()
    {
        book_->close();
        web_.stop();
    }

    std::uint16_t port() const { return web_.port(); }

    // One operation. A segment of its path in braces stands for any text.
    struct Route {
        const char* method;
        const char* path;
        WebAnswer (Impl::*run)(const std::vector<std::string>& given, const WebRequest& request);
    };
    static const std::vector<Route>& routes();

private:
    using Given = std::vector<std::string>; // what stands for the segments in braces

    WebHandler handler()
    {
        WebHandler handler;
        handler.precheck = [](const std::string& method, const std::string& path) {
            return precheck(method, path);
        };
        handler.handle = [this](const WebRequest& request) { return run(request); };
        handler.isPublic = [](const std::string& path) { return path == "/"; };
        handler.errorBody = errorText;
        return handler;
    }

    static std::optional<Given> match(const Route& route, const std::string& path)
    {
        const std::vector<std::string> wanted = segmentsOf(route.path);
        const std::vector<std::string> there = segmentsOf(path);
        if (wanted.size() != there.size()) return std::nullopt;
        Given given;
        for (std::size_t i = 0; i < wanted.size(); ++i) {
            const bool isOpen = !wanted[i].empty() && wanted[i].front() == '{';
            if (isOpen && !there[i].empty()) {
                given.push_back(there[i]);
            } else if (wanted[i] != there[i]) {
                return std::nullopt;
            }
        }
        return given;
    }

    static WebAnswer precheck(const std::string& method, const std::string& path)
    {
        std::vector<std::string> methods;
        for (const Route& route : routes()) {
            if (!match(route, path)) continue;
            if (route.method == method) {
                WebAnswer good;
                good.status = 0;
                return good;
            }
            methods.emplace_back(route.method);
        }
        if (methods.empty())
            return errorOf(404, "there is nothing at this address; GET /api/openapi.json shows "
                                "all that there is");
        std::string allow;
        for (const std::string& one : methods) allow += (allow.empty() ? "" : ", ") + one;
        WebAnswer answer = errorOf(405,
                                   "this address does not take that method; it takes " + allow);
        answer.allow = allow;
        return answer;
    }

    WebAnswer run(const WebRequest& request)
    {
        try {
            for (const Route& route : routes()) {
                if (route.method != request.method) continue;
                if (const std::optional<Given> given = match(route, request.path))
                    return (this->*route.run)(*given, request);
            }
        } catch (const BadRequest& problem) {
            return errorOf(problem.status(), problem.what());
        } catch (const ledger::DatabaseError& error) {
            return errorOf(503, std::string("the database cannot be read: ") + error.what() +
                                    "; try again");
        }
        return precheck(request.method, request.path);
    }

    static Json bodyOf(const WebRequest& request)
    {
        if (request.body.empty()) return Json::object();
        try {
            return Json::parse(request.body);
        } catch (const Json::exception&) {
            throw BadRequest("the body is no JSON; send an object such as {}");
        }
    }

    // The number that a query has under the name. Throws BadRequest.
    static std::optional<std::uint64_t> queried(const WebRequest& request, const std::string& name)
    {
        for (const auto& [key, value] : request.query) {
            if (key != name) continue;
            const std::optional<std::uint64_t> number = numberFrom(value);
            if (!number) throw BadRequest(name + " is no number");
            return number;
        }
        return std::nullopt;
    }

    static void checkQuery(const WebRequest& request, const std::vector<std::string>& known)
    {
        for (const auto& [key, value] : request.query) {
            if (std::find(known.begin(), known.end(), key) != known.end()) continue;
            throw BadRequest("there is no parameter \"" + log_text::printable(key.substr(0, 40)) +
                             "\"; " +
                             (known.empty() ? "this address takes none"
                                            : "there may be " + log_text::listed(known)));
        }
    }

    // ---------------------------------------------------------------------------------- questions

    Json state()
    {
        const Book::Totals totals = book_->totals();
        Json json;
        json["version"] = settings_.version;
        json["host"] = gateway_.host();
        json["port"] = gateway_.port();
        json["since"] = timeText(since_);
        json["now"] = timeText(Clock::now());
        json["connections"] = totals.connections;
        json["connectionsEver"] = totals.connectionsEver;
        json["units"] = totals.units;
        json["committed"] = totals.committed;
        json["backedOut"] = totals.backedOut;
        json["calls"] = totals.calls;
        json["underWay"] = totals.underWay;
        json["kept"] = totals.kept;
        json["held"] = gateway_.heldCount();
        json["faults"] = gateway_.misbehavioursInForce().size();
        json["database"] = orNull(ledger::shownName(settings_.database));
        json["journal"] = orNull(settings_.journal);
        json["recordings"] = orNull(settings_.recordings);
        json["script"] = script_ == nullptr ? Json(nullptr)
                                            : Json(call_json::validText(script_->state().file));
        return json;
    }

    static Json orNull(const std::string& text)
    {
        return text.empty() ? Json(nullptr) : Json(call_json::validText(text));
    }

    WebAnswer getState(const Given&, const WebRequest& request)
    {
        checkQuery(request, {});
        return answerOf(state());
    }

    WebAnswer getConnections(const Given&, const WebRequest& request)
    {
        checkQuery(request, {});
        return answerOf({{"connections", listOf(book_->connections(), connectionJson)}});
    }

    WebAnswer getUnits(const Given&, const WebRequest& request)
    {
        checkQuery(request, {});
        return answerOf({{"units", listOf(book_->units(), unitJson)}});
    }

    WebAnswer getCalls(const Given&, const WebRequest& request)
    {
        checkQuery(request, {"last", "before"});
        const std::uint64_t last = queried(request, "last").value_or(kUsualCalls);
        if (last < 1 || last > kMostCalls)
            throw BadRequest("last is not 1 to " + std::to_string(kMostCalls) +
                             "; ask for older ones with before");
        const std::vector<Summary> calls = book_->calls(last, queried(request, "before"));
        return answerOf({{"calls", listOf(calls, summaryJson)}});
    }

    WebAnswer getCall(const Given& given, const WebRequest& request)
    {
        checkQuery(request, {});
        const CallPointer call = book_->call(wantedNumber(given[0], "call"));
        if (call == nullptr) {
            throw BadRequest("this call is not there: it has not come, is still under way, or has "
                             "been forgotten; GET /api/calls shows those that are there",
                             404);
        }
        return answerOf(callJson(*call));
    }

    WebAnswer getHeld(const Given&, const WebRequest& request)
    {
        checkQuery(request, {});
        return answerOf(
            {{"held", listOf(gateway_.heldCalls(), [](const standin::HeldCall& call) {
                  return Json{{"connection", call.connection}, {"message", call.messageId}};
              })}});
    }

    WebAnswer getTable(Json (*read)(const std::string&))
    {
        if (settings_.database.empty())
            throw BadRequest("there is no database; start the daemon with --database FILE", 409);
        return answerOf(read(settings_.database));
    }

    WebAnswer getLedger(const Given&, const WebRequest& request)
    {
        checkQuery(request, {});
        return getTable(ledgerIn);
    }

    WebAnswer getPrices(const Given&, const WebRequest& request)
    {
        checkQuery(request, {});
        return getTable(pricesIn);
    }

    WebAnswer getUsers(const Given&, const WebRequest& request)
    {
        checkQuery(request, {});
        return getTable(usersIn);
    }

    WebAnswer getSystems(const Given&, const WebRequest& request)
    {
        checkQuery(request, {});
        if (!settings_.database.empty()) return getTable(systemsIn);
        Json systems = Json::array();
        for (const standin::SystemEntry& system : settings_.systems) {
            systems.push_back({{"name", call_json::validText(system.name)},
                               {"description", call_json::validText(system.description)},
                               {"state", "available"},
                               {"code", 0}});
        }
        return answerOf({{"systems", std::move(systems)}});
    }

    WebAnswer getRecordings(const Given&, const WebRequest& request)
    {
        checkQuery(request, {});
        Json files = Json::array();
        std::error_code none;
        if (!settings_.recordings.empty()) {
            for (const auto& file :
                 std::filesystem::directory_iterator(settings_.recordings, none)) {
                if (files.size() == kMostRows) break;
                std::error_code gone;
                const std::uintmax_t size = file.file_size(gone);
                if (gone) continue;
                files.push_back({{"name", call_json::validText(file.path().filename().string())},
                                 {"size", size}});
            }
        }
        return answerOf({{"folder", orNull(settings_.recordings)}, {"recordings", files}});
    }

    // ------------------------------------------------------------------------------------- faults

    WebAnswer getFaults(const Given&, const WebRequest& request)
    {
        checkQuery(request, {});
        return answerOf({{"inForce", listOf(gateway_.misbehavioursInForce(), faultJson)},
                         {"known", knownFaults()}});
    }

    WebAnswer add(standin::Misbehaviour misbehaviour, standin::Selector selector)
    {
        if (gateway_.misbehavioursInForce().size() >= kMostRows)
            throw BadRequest("so many faults are on already; end some first", 409);
        const std::uint64_t number = gateway_.misbehave(misbehaviour, selector);
        book_->settingsChanged();
        return answerOf(faultJson({number, {std::move(misbehaviour), std::move(selector)}, 0, 0}),
                        201);
    }

    WebAnswer postFault(const Given&, const WebRequest& request)
    {
        const standin::SelectedMisbehaviour fault = faultFrom(bodyOf(request));
        return add(fault.misbehaviour, fault.selector);
    }

    WebAnswer deleteFault(const Given& given, const WebRequest&)
    {
        const bool ended = gateway_.behave(wantedNumber(given[0], "fault"));
        book_->settingsChanged();
        if (!ended)
            throw BadRequest("no fault of this number is on; GET /api/faults shows them", 404);
        return answerOf({{"ended", 1}});
    }

    WebAnswer deleteFaults(const Given&, const WebRequest&)
    {
        const std::size_t count = gateway_.misbehavioursInForce().size();
        gateway_.behave();
        book_->settingsChanged();
        return answerOf({{"ended", count}});
    }

    WebAnswer postHold(const Given&, const WebRequest& request)
    {
        return add(standin::Fault::Hold, selectorFrom(bodyOf(request), {}));
    }

    WebAnswer postRelease(const Given&, const WebRequest& request)
    {
        const Json body = bodyOf(request);
        checkMembers(body, {"next", "message", "reversed"});
        if (body.size() > 1)
            throw BadRequest("there is more than one of next, message and reversed; give one, or "
                             "none for all");
        std::size_t released = 0;
        if (body.contains("next")) {
            released = gateway_.releaseNext(static_cast<std::size_t>(numberIn(body, "next", 1, 1)));
        } else if (body.contains("message")) {
            released = gateway_.releaseMessage(
                static_cast<std::int32_t>(numberIn(body, "message", 1, 1)));
        } else if (body.contains("reversed")) {
            if (body["reversed"] != true) throw BadRequest("reversed is not true; leave it out");
            released = gateway_.releaseReversed();
        } else {
            released = gateway_.heldCount();
            gateway_.release();
        }
        book_->settingsChanged();
        return answerOf({{"released", released}});
    }

    WebAnswer postEnding(const Given& given, const WebRequest& request)
    {
        checkMembers(bodyOf(request), {});
        const std::uint64_t number = given[0] == "all" ? 0 : wantedNumber(given[0], "connection");
        const bool isPossible = (number > 0 || given[0] == "all") &&
                                number <= static_cast<std::uint64_t>(
                                              std::numeric_limits<std::int32_t>::max());
        const int connection = isPossible ? static_cast<int>(number) : -1;
        bool done = false;
        if (given[1] == "close") {
            done = isPossible && gateway_.sendClose(connection);
            if (done) gateway_.dropConnection(connection);
        } else if (given[1] == "drop") {
            done = isPossible && gateway_.dropConnection(connection);
        } else if (given[1] == "reset") {
            done = isPossible && gateway_.resetConnection(connection);
        } else {
            throw BadRequest("a connection can be ended by close, drop or reset, and not so", 404);
        }
        if (!done)
            throw BadRequest("no such connection is open; GET /api/connections shows them", 404);
        return answerOf({{"done", true}});
    }

    // ------------------------------------------------------------------------------------- script

    std::string scriptFolder() const
    {
        if (script_ == nullptr) return {};
        const std::filesystem::path folder =
            std::filesystem::path(script_->state().file).parent_path();
        return folder.empty() ? "." : folder.string();
    }

    script::ScriptFile& script() const
    {
        if (script_ != nullptr) return *script_;
        throw BadRequest("there is no script; start the daemon with --script FILE, and others from "
                         "its folder can be loaded",
                         409);
    }

    Json scriptJson()
    {
        const script::ScriptFile::State state = script().state();
        Json rules = Json::array();
        for (const script::Answers::RuleState& rule : state.rules) {
            if (rules.size() == kMostRows) break;
            rules.push_back({{"line", rule.line},
                             {"calls", call_json::validText(rule.calls)},
                             {"matches", rule.matches}});
        }
        std::vector<std::string> files;
        std::error_code none;
        for (const auto& file : std::filesystem::directory_iterator(scripts_, none)) {
            if (files.size() == kMostRows) break;
            if (file.path().extension() == ".toml") files.push_back(file.path().filename());
        }
        std::sort(files.begin(), files.end());
        Json names = Json::array();
        for (const std::string& file : files) names.push_back(call_json::validText(file));
        return {{"file", call_json::validText(state.file)},
                {"problem", orNull(state.problem)},
                {"rules", std::move(rules)},
                {"files", std::move(names)}};
    }

    WebAnswer getScript(const Given&, const WebRequest& request)
    {
        checkQuery(request, {});
        return answerOf(scriptJson());
    }

    // Only from the folder of the script that the daemon has been started with: a script may run
    // programs.
    WebAnswer postScript(const Given&, const WebRequest& request)
    {
        script::ScriptFile& file = script();
        const Json body = bodyOf(request);
        checkMembers(body, {"file"});
        const auto name = body.find("file");
        if (name == body.end() || !name->is_string())
            throw BadRequest("file is missing; it is the name of a script in " + scripts_);
        const auto text = name->get<std::string>();
        const bool isName = !text.empty() && text.find('/') == std::string::npos &&
                            text.find('\0') == std::string::npos && text != "." && text != "..";
        if (!isName) {
            throw BadRequest("file is no name without a folder; only scripts in " + scripts_ +
                             " can be loaded");
        }
        const std::filesystem::path path = std::filesystem::path(scripts_) / text;
        std::error_code none;
        if (std::filesystem::is_other(path, none)) // a pipe would be waited for, and so would this
            throw BadRequest("this script cannot be used: it is no file; the one before stays in "
                             "force");
        try {
            file.load(path.string());
        } catch (const std::runtime_error& problem) {
            throw BadRequest("this script cannot be used: " + std::string(problem.what()) +
                             "; the one before stays in force");
        }
        book_->settingsChanged();
        return answerOf(scriptJson());
    }

    WebAnswer postReload(const Given&, const WebRequest& request)
    {
        checkMembers(bodyOf(request), {});
        const std::string problem = script().reload();
        book_->settingsChanged();
        if (!problem.empty()) {
            throw BadRequest("this script cannot be used: " + problem +
                             "; the one before stays in force");
        }
        return answerOf(scriptJson());
    }

    WebAnswer postReset(const Given&, const WebRequest& request)
    {
        checkMembers(bodyOf(request), {});
        gateway_.behave();
        gateway_.release();
        if (script_ != nullptr) script_->reload();
        book_->forgetCalls();
        book_->settingsChanged();
        return answerOf({{"done", true}});
    }

    // ------------------------------------------------------------------------------------- events

    static std::string eventOf(const std::string& name, const Json& data)
    {
        return "event: " + name + "\ndata: " + call_json::lineOf(data) + "\n\n";
    }

    // Tells what has changed until the client goes, or the daemon ends. Whatever happens meanwhile,
    // a client gets a piece at a time, with the last calls only when there are too many.
    void stream(const WritePiece& write)
    {
        Book::Version told = book_->version();
        if (!write(eventOf("state", state()))) return;
        auto lastPiece = std::chrono::steady_clock::now();
        while (book_->pause(kBetween)) {
            if (!book_->awaitChange(told, kSilence)) {
                const auto now = std::chrono::steady_clock::now();
                if (now - lastPiece < kSilence) continue;
                if (!write(": still there\n\n")) return;
                lastPiece = now;
                continue;
            }
            const Book::Version now = book_->version();
            Json changed = Json::array();
            if (now.connections != told.connections) changed.push_back("connections");
            if (now.units != told.units) changed.push_back("units");
            if (now.settings != told.settings) changed.push_back("settings");
            if (now.forgotten != told.forgotten) changed.push_back("forgotten");
            const std::vector<Summary> ended = book_->endedSince(told.ended, kMostCalls);
            const std::uint64_t all = now.ended - told.ended;
            const Json calls = {{"ended", listOf(ended, summaryJson)},
                                {"underWay", listOf(book_->underWay(kUsualCalls), summaryJson)},
                                {"missed", all - std::min<std::uint64_t>(all, ended.size())}};
            std::string piece = eventOf("state", state());
            if (!changed.empty()) piece += eventOf("changed", changed);
            if (now.begun != told.begun || now.ended != told.ended)
                piece += eventOf("calls", calls);
            if (!write(piece)) return;
            lastPiece = std::chrono::steady_clock::now();
            told = now;
        }
    }

    WebAnswer getEvents(const Given&, const WebRequest& request)
    {
        checkQuery(request, {});
        WebAnswer answer;
        answer.type = "text/event-stream";
        answer.stream = [this](const WritePiece& write) { stream(write); };
        return answer;
    }

    WebAnswer getDescription(const Given&, const WebRequest&)
    {
        WebAnswer answer;
        answer.body = kDescription;
        return answer;
    }

    WebAnswer getPage(const Given&, const WebRequest&)
    {
        const std::string number = nonce();
        WebAnswer answer;
        answer.type = "text/html; charset=utf-8";
        answer.body = kPage;
        replaceAll(answer.body, "NONCE", number);
        answer.policy = "default-src 'none'; script-src 'nonce-" + number + "'; style-src 'nonce-" +
                        number +
                        "'; connect-src 'self'; img-src data:; base-uri 'none'; form-action "
                        "'none'; frame-ancestors 'none'";
        return answer;
    }

    const Settings settings_;
    const std::shared_ptr<Book> book_;
    standin::Gateway& gateway_;
    script::ScriptFile* const script_;
    const Clock::time_point since_;
    const std::string scripts_; // the folder that scripts may be loaded from
    WebServer web_;
};

const std::vector<Control::Impl::Route>& Control::Impl::routes()
{
    static const std::vector<Route> routes = {
        {"GET", "/", &Impl::getPage},
        {"GET", "/api/state", &Impl::getState},
        {"GET", "/api/events", &Impl::getEvents},
        {"GET", "/api/connections", &Impl::getConnections},
        {"POST", "/api/connections/{connection}/{ending}", &Impl::postEnding},
        {"GET", "/api/units", &Impl::getUnits},
        {"GET", "/api/calls", &Impl::getCalls},
        {"GET", "/api/calls/{call}", &Impl::getCall},
        {"GET", "/api/faults", &Impl::getFaults},
        {"POST", "/api/faults", &Impl::postFault},
        {"DELETE", "/api/faults", &Impl::deleteFaults},
        {"DELETE", "/api/faults/{fault}", &Impl::deleteFault},
        {"GET", "/api/held", &Impl::getHeld},
        {"POST", "/api/hold", &Impl::postHold},
        {"POST", "/api/release", &Impl::postRelease},
        {"GET", "/api/script", &Impl::getScript},
        {"POST", "/api/script", &Impl::postScript},
        {"POST", "/api/script/reload", &Impl::postReload},
        {"POST", "/api/reset", &Impl::postReset},
        {"GET", "/api/ledger", &Impl::getLedger},
        {"GET", "/api/prices", &Impl::getPrices},
        {"GET", "/api/users", &Impl::getUsers},
        {"GET", "/api/systems", &Impl::getSystems},
        {"GET", "/api/recordings", &Impl::getRecordings},
        {"GET", "/api/openapi.json", &Impl::getDescription},
    };
    return routes;
}

Control::Control(Settings settings, std::shared_ptr<Book> book, standin::Gateway& gateway,
                 script::ScriptFile* script)
    : impl_(std::make_unique<Impl>(std::move(settings), std::move(book), gateway, script))
{
}

Control::~Control() = default;

std::uint16_t Control::port() const
{
    return impl_->port();
}

std::vector<std::string> Control::operations()
{
    std::vector<std::string> operations;
    for (const Impl::Route& route : Impl::routes())
        operations.push_back(std::string(route.method) + " " + route.path);
    return operations;
}

} // namespace control
