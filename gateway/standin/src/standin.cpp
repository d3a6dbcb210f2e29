// standin.h: the gateway itself, what goes wrong, and what has happened.

#include "standin.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <new>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "objects.h"
#include "standin/misbehaviour.h"

namespace standin {

namespace {

thread_local std::string lastProblem;
thread_local bool inside = false;

constexpr int kLargestPort = 65535;
constexpr std::size_t kLongestProgram = 8;
constexpr std::size_t kLongestSystem = 8;
constexpr std::size_t kLongestDescription = 60;

} // namespace

int failure(int code, const std::string& problem)
{
    lastProblem = problem;
    return code;
}

bool isInside()
{
    return inside;
}

Inside::Inside() : before_(inside)
{
    inside = true;
}

Inside::~Inside()
{
    inside = before_;
}

namespace {

// No exception gets out into a program that knows of none.
template <typename Step>
int guarded(Step step)
{
    try {
        return step();
    } catch (const BadScript& problem) {
        return failure(STANDIN_ERR_SCRIPT, problem.what());
    } catch (const std::invalid_argument& problem) {
        return failure(STANDIN_ERR_FAULT, problem.what());
    } catch (const std::bad_alloc&) {
        return failure(STANDIN_ERR_MEMORY, "memory has run out");
    } catch (const std::exception& problem) {
        return failure(STANDIN_ERR_MEMORY, problem.what());
    }
}

// What is done to a gateway, where that may be done.
template <typename Step>
int onGateway(standin_gateway* gateway, Step step)
{
    if (gateway == nullptr) return failure(STANDIN_ERR_ARGUMENT, "the gateway is NULL");
    if (isInside()) return failure(STANDIN_ERR_INSIDE, "not within a function that answers a call");
    return guarded([&] { return step(*gateway); });
}

LogSink sinkOf(standin_log log, void* context)
{
    return [log, context](LogLevel level, const std::string& line) {
        if (log == nullptr) return;
        const Inside guard;
        log(static_cast<int>(level), line.c_str(), context);
    };
}

std::unique_ptr<standin_gateway> start(const char* host, int port, standin_log log, void* context)
{
    auto started = std::make_unique<standin_gateway>();
    const LogSink sink = sinkOf(log, context);
    GatewayOptions options;
    if (host != nullptr) options.host = host;
    options.port = static_cast<std::uint16_t>(port);
    if (log != nullptr) options.log = sink;
    options.recording = false;
    Calls& calls = started->calls;
    options.arrivals = [&calls](const CallRecord& call) { calls.came(call); };
    options.observer = [&calls](const CallRecord& call) { calls.ended(call); };
    started->gateway = std::make_unique<Gateway>(std::move(options));
    started->scripts = std::make_unique<Scripts>(*started->gateway, sink);
    return started;
}

bool isName(const char* name, std::size_t longest)
{
    const std::size_t length = name == nullptr ? 0 : std::string(name).size();
    return length >= 1 && length <= longest;
}

template <typename Await>
int await(standin_gateway* gateway, int milliseconds, Await hasCome)
{
    return onGateway(gateway, [&](standin_gateway& on) {
        if (milliseconds < 0) return failure(STANDIN_ERR_ARGUMENT, "the time is less than nothing");
        if (hasCome(on, std::chrono::milliseconds(milliseconds))) return STANDIN_OK;
        return failure(STANDIN_ERR_TIME, "it has not come to that in " +
                                             std::to_string(milliseconds) + " milliseconds");
    });
}

template <typename Action>
int toConnection(standin_gateway* gateway, int connection, Action action)
{
    return onGateway(gateway, [&](standin_gateway& on) {
        if (connection < 0)
            return failure(STANDIN_ERR_ARGUMENT, "a connection has a number from 1");
        if (action(*on.gateway)) return STANDIN_OK;
        return failure(STANDIN_ERR_NO_CALL, "there is no such connection");
    });
}

} // namespace

} // namespace standin

using standin::failure;
using standin::onGateway;

const char* standin_problem(void)
{
    return standin::lastProblem.c_str();
}

// ------------------------------------------------------------------------------------- the gateway

int standin_start(standin_gateway** gateway)
{
    return standin_start_at(gateway, nullptr, 0, nullptr, nullptr);
}

int standin_start_at(standin_gateway** gateway, const char* host, int port, standin_log log,
                     void* context)
{
    if (gateway == nullptr) return failure(STANDIN_ERR_ARGUMENT, "the gateway's address is NULL");
    *gateway = nullptr;
    if (port < 0 || port > standin::kLargestPort)
        return failure(STANDIN_ERR_ARGUMENT, "the port is not 0 to 65535");
    if (host != nullptr && *host == '\0')
        return failure(STANDIN_ERR_ARGUMENT, "the address to listen on is empty");
    return standin::guarded([&] {
        try {
            *gateway = standin::start(host, port, log, context).release();
            return STANDIN_OK;
        } catch (const std::system_error& problem) {
            return failure(STANDIN_ERR_LISTEN,
                           "cannot listen on " + std::string(host ? host : "127.0.0.1") + ":" +
                               std::to_string(port) + ": " + problem.code().message());
        }
    });
}

int standin_stop(standin_gateway* gateway)
{
    if (gateway == nullptr) return STANDIN_OK;
    return onGateway(gateway, [](standin_gateway& on) {
        on.scripts->abandon();
        on.gateway->stop();
        on.scripts.reset();
        on.gateway.reset();
        delete &on;
        return STANDIN_OK;
    });
}

int standin_port(const standin_gateway* gateway)
{
    return gateway == nullptr ? 0 : gateway->gateway->port();
}

// -------------------------------------------------------------------------------- what is answered

int standin_set_program(standin_gateway* gateway, const char* name, standin_program program,
                        void* context)
{
    return onGateway(gateway, [&](standin_gateway& on) {
        if (!standin::isName(name, standin::kLongestProgram))
            return failure(STANDIN_ERR_ARGUMENT, "the name of a program has 1 to 8 characters");
        if (program == nullptr) return failure(STANDIN_ERR_ARGUMENT, "the function is NULL");
        on.gateway->setProgram(name, standin::programOf(on.calls, program, context));
        return STANDIN_OK;
    });
}

int standin_set_commarea(standin_gateway* gateway, const char* name, const void* data,
                         size_t length)
{
    return onGateway(gateway, [&](standin_gateway& on) {
        if (!standin::isName(name, standin::kLongestProgram))
            return failure(STANDIN_ERR_ARGUMENT, "the name of a program has 1 to 8 characters");
        standin_answer answer;
        const int rc = standin_answer_commarea(&answer, data, length);
        if (rc != STANDIN_OK) return rc;
        on.gateway->setReply(name, [commarea = *answer.commarea](const auto& request) {
            return standin::EciReply::withCommarea(request, commarea);
        });
        return STANDIN_OK;
    });
}

int standin_set_passwords(standin_gateway* gateway, standin_program program, void* context)
{
    return onGateway(gateway, [&](standin_gateway& on) {
        if (program == nullptr) return failure(STANDIN_ERR_ARGUMENT, "the function is NULL");
        on.gateway->setEsiReply(standin::passwordsOf(on.calls, program, context));
        return STANDIN_OK;
    });
}

int standin_add_system(standin_gateway* gateway, const char* name, const char* description)
{
    return onGateway(gateway, [&](standin_gateway& on) {
        if (!standin::isName(name, standin::kLongestSystem))
            return failure(STANDIN_ERR_ARGUMENT, "the name of a system has 1 to 8 characters");
        if (description == nullptr ||
            std::string(description).size() > standin::kLongestDescription)
            return failure(STANDIN_ERR_ARGUMENT,
                           "the description of a system has 0 to 60 characters");
        const std::lock_guard<std::mutex> guard(on.lock);
        std::vector<standin::SystemEntry> systems = on.systems;
        systems.push_back({name, description});
        on.gateway->setListReply([systems](const standin::EciRequest& request) {
            return standin::EciReply::systemList(request, systems);
        });
        on.systems = std::move(systems);
        return STANDIN_OK;
    });
}

int standin_set_script(standin_gateway* gateway, const char* file)
{
    return onGateway(gateway, [&](standin_gateway& on) {
        const std::lock_guard<std::mutex> guard(on.lock);
        if (file == nullptr) {
            on.scripts->useNone();
        } else {
            on.scripts->use(file);
        }
        return STANDIN_OK;
    });
}

// -------------------------------------------------------------------------------- what goes wrong

int standin_misbehave(standin_gateway* gateway, const char* misbehaviour)
{
    return onGateway(gateway, [&](standin_gateway& on) {
        if (misbehaviour == nullptr)
            return failure(STANDIN_ERR_ARGUMENT, "the misbehaviour is NULL");
        standin::SelectedMisbehaviour selected = standin::parseMisbehaviour(misbehaviour);
        on.gateway->misbehave(std::move(selected.misbehaviour), std::move(selected.selector));
        return STANDIN_OK;
    });
}

int standin_behave(standin_gateway* gateway)
{
    return onGateway(gateway, [](standin_gateway& on) {
        on.gateway->behave();
        return STANDIN_OK;
    });
}

int standin_release(standin_gateway* gateway)
{
    return onGateway(gateway, [](standin_gateway& on) {
        on.gateway->release();
        return STANDIN_OK;
    });
}

int standin_drop(standin_gateway* gateway, int connection)
{
    return standin::toConnection(gateway, connection, [connection](standin::Gateway& on) {
        return on.dropConnection(connection);
    });
}

int standin_reset(standin_gateway* gateway, int connection)
{
    return standin::toConnection(gateway, connection, [connection](standin::Gateway& on) {
        return on.resetConnection(connection);
    });
}

int standin_send_close(standin_gateway* gateway, int connection)
{
    return standin::toConnection(gateway, connection, [connection](standin::Gateway& on) {
        return on.sendClose(connection);
    });
}

// ------------------------------------------------------------------------------ what has happened

int standin_await_calls(standin_gateway* gateway, size_t count, int milliseconds)
{
    return standin::await(gateway, milliseconds, [count](standin_gateway& on, auto limit) {
        return on.calls.awaitCame(count, limit);
    });
}

int standin_await_answers(standin_gateway* gateway, size_t count, int milliseconds)
{
    return standin::await(gateway, milliseconds, [count](standin_gateway& on, auto limit) {
        return on.calls.awaitEnded(count, limit);
    });
}

int standin_await_held(standin_gateway* gateway, size_t count, int milliseconds)
{
    return standin::await(gateway, milliseconds, [count](standin_gateway& on, auto limit) {
        return on.gateway->awaitHeld(count, limit);
    });
}

size_t standin_call_count(const standin_gateway* gateway)
{
    return gateway == nullptr ? 0 : gateway->calls.cameCount();
}

size_t standin_answer_count(const standin_gateway* gateway)
{
    return gateway == nullptr ? 0 : gateway->calls.endedCount();
}

size_t standin_finding_count(const standin_gateway* gateway)
{
    return gateway == nullptr ? 0 : gateway->gateway->findingCount();
}

int standin_read_call(standin_gateway* gateway, size_t number, standin_call** call)
{
    if (call == nullptr) return failure(STANDIN_ERR_ARGUMENT, "the call's address is NULL");
    *call = nullptr;
    return onGateway(gateway, [&](standin_gateway& on) {
        const standin::KeptCallPtr kept = on.calls.read(number);
        if (kept == nullptr) {
            return failure(STANDIN_ERR_NO_CALL,
                           "there is no call " + std::to_string(number) + " yet");
        }
        auto read = std::make_unique<standin_call>();
        read->record = kept->record;
        read->isDone = kept->isDone;
        standin::complete(*read);
        *call = read.release();
        return STANDIN_OK;
    });
}

void standin_free_call(standin_call* call)
{
    delete call;
}

int standin_forget(standin_gateway* gateway)
{
    return onGateway(gateway, [](standin_gateway& on) {
        on.gateway->forget();
        on.calls.forget();
        return STANDIN_OK;
    });
}
