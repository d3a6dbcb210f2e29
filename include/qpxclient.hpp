/*
 * qpxclient.hpp - the library in C++17: values that clean up after themselves.
 *
 * Header only, over the calls of qpxclient_eci.h and qpxclient_esi.h, which stay at hand: each
 * value gives its handle by native(). What the C headers say of a call holds for what is made of it
 * here.
 *
 *     auto gateway = qpx::Connection::open("gateway.example", 5770).value();
 *     auto payroll = qpx::Call("PAYROLL").on("PROD").as(user, password);
 *
 *     if (auto reply = gateway.call(payroll, request))
 *         use(*reply);
 *     else if (reply.failure().code() == ECI_ERR_TRANSACTION_ABEND)
 *         std::cerr << "abend " << reply.failure().abendCode() << '\n';
 *
 * Conventions
 *
 *  1. What can fail returns a Result: the value, or the Failure. Look into it (if, failure()), or
 *     take its value(), which throws qpx::Error where there is none. That is chosen at each call,
 *     and the compiler warns of a Result that nobody looks at. Besides value() only the memory
 *     (std::bad_alloc) and the thread of a Collector (std::system_error) throw. Without exceptions
 *     (-fno-exceptions) value() ends the process where it would throw.
 *  2. Texts and data go in as std::string_view and are copied where they must last. A NUL ends a
 *     text that the library takes NUL-terminated: a host, a user id, a password. A name that is too
 *     long for its field is refused and never cut.
 *  3. Values move and do not copy, but for Call, a plain value. One that was moved from, or closed,
 *     is empty: its calls fail with the library's own code for a handle of NULL.
 *  4. Any number of threads may call on one Connection or Collector, and one thread may purge or
 *     close it meanwhile. A Channel, a UnitOfWork and a Pending serve one thread at a time.
 *  5. Destructors wait as the calls behind them do: that of a Connection for the Gateway's answer
 *     to the close flow, that of a Channel for nothing unless C calls use it, that of a UnitOfWork
 *     for its back-out, that of a Collector for the replies that are still to come.
 *  6. Copies of passwords that are made here are overwritten before their memory is freed.
 */
#ifndef QPXCLIENT_HPP
#define QPXCLIENT_HPP

#if !defined(__cplusplus) || __cplusplus < 201703L
#error "qpxclient.hpp needs C++17: compile with -std=c++17 or newer, or use the C headers."
#else

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <future>
#include <limits>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "eci_channel.h"
#include "qpxclient.h"
#include "qpxclient_eci.h"
#include "qpxclient_esi.h"

namespace qpx {

// ---- Results ------------------------------------------------------------------------------------

// The name of a return code, such as "ECI_ERR_NO_VORN".
inline std::string codeName(int code)
{
    char name[QPX_RC_STRING_SIZE] = "";
    return QPX_getRcString(code, name);
}

// Why a call has failed.
class Failure {
public:
    Failure(int code, const char* call) noexcept : code_(code), call_(call) {}

    // The return code, never 0, and the call of the C interface that returned it, or would have.
    int code() const noexcept { return code_; }
    const char* call() const noexcept { return call_; }

    // Of ECI_ERR_TRANSACTION_ABEND: the four characters of the server program, else empty.
    std::string_view abendCode() const noexcept { return {abend_, abendLength_}; }

    // The connection can serve no call any more: close it and open another. A commit that fails so
    // is in doubt: whether the server has done it, only the server knows.
    bool connectionEnded() const noexcept
    {
        switch (code_) {
        case QPX_ERR_LOSTGWCON:
        case QPX_ERR_GATEWAY_CLOSED:
        case QPX_ERR_GWTOK_CLOSED:
        case QPX_ERR_BADGWTOK:
        case QPX_ERR_NULLGWTOK: return true;
        default: return false;
        }
    }

    // For people: "QPX_ECI_Execute: ECI_ERR_TRANSACTION_ABEND (-7), abend code AEI0".
    std::string text() const
    {
        std::string all = std::string(call_) + ": " + codeName(code_) + " (" +
                          std::to_string(code_) + ")";
        if (abendLength_ != 0) all.append(", abend code ").append(abendCode());
        return all;
    }

    Failure& withAbendCode(std::string_view code) noexcept
    {
        abendLength_ = code.copy(abend_, sizeof abend_);
        return *this;
    }

private:
    int code_;
    const char* call_;
    char abend_[4] = {};
    std::size_t abendLength_ = 0;
};

// A Failure as an exception, thrown by Result::value(). what() is the failure's text().
class Error : public std::runtime_error {
public:
    explicit Error(const Failure& failure) : std::runtime_error(failure.text()), failure_(failure)
    {
    }

    const Failure& failure() const noexcept { return failure_; }
    int code() const noexcept { return failure_.code(); }

private:
    Failure failure_;
};

namespace detail {

[[noreturn]] inline void raise(const Failure& failure)
{
#if defined(__cpp_exceptions)
    throw Error(failure);
#else
    std::fprintf(stderr, "%s\n", failure.text().c_str());
    std::abort();
#endif
}

} // namespace detail

// What a call has brought: a value, or the failure.
template <typename Value>
class [[nodiscard]] Result {
public:
    using value_type = Value;

    Result(Value value) : held_(std::in_place_index<0>, std::move(value)) {}
    Result(const Failure& failure) : held_(std::in_place_index<1>, failure) {}

    bool ok() const noexcept { return held_.index() == 0; }
    explicit operator bool() const noexcept { return ok(); }

    // The value; throws Error where there is none.
    Value& value() &
    {
        if (!ok()) detail::raise(failure());
        return *std::get_if<0>(&held_);
    }
    const Value& value() const&
    {
        if (!ok()) detail::raise(failure());
        return *std::get_if<0>(&held_);
    }
    Value value() &&
    {
        if (!ok()) detail::raise(failure());
        return std::move(*std::get_if<0>(&held_));
    }

    // The value, or what is given in its place.
    template <typename Other>
    Value valueOr(Other&& other) &&
    {
        return ok() ? std::move(*std::get_if<0>(&held_))
                    : static_cast<Value>(std::forward<Other>(other));
    }

    // The value of a result that has been looked at.
    Value& operator*() & noexcept { return *std::get_if<0>(&held_); }
    const Value& operator*() const& noexcept { return *std::get_if<0>(&held_); }
    Value operator*() && { return std::move(*std::get_if<0>(&held_)); }
    Value* operator->() noexcept { return std::get_if<0>(&held_); }
    const Value* operator->() const noexcept { return std::get_if<0>(&held_); }

    // The return code: 0 if there is a value.
    int code() const noexcept { return ok() ? QPX_OK : failure().code(); }

    // The failure of a result that has no value.
    const Failure& failure() const noexcept { return *std::get_if<1>(&held_); }

private:
    std::variant<Value, Failure> held_;
};

// The same for a call that brings nothing but its success.
template <>
class [[nodiscard]] Result<void> {
public:
    using value_type = void;

    Result() noexcept = default;
    Result(const Failure& failure) noexcept : failure_(failure) {}

    bool ok() const noexcept { return !failure_.has_value(); }
    explicit operator bool() const noexcept { return ok(); }

    // Throws Error on failure.
    void value() const
    {
        if (!ok()) detail::raise(*failure_);
    }

    int code() const noexcept { return ok() ? QPX_OK : failure_->code(); }
    const Failure& failure() const noexcept { return *failure_; }

private:
    std::optional<Failure> failure_;
};

namespace detail {

inline Result<void> done(int rc, const char* call)
{
    if (rc != QPX_OK) return Failure(rc, call);
    return {};
}

// A NUL-terminated copy of a text that nobody else is to find in memory.
class Secret {
public:
    Secret() = default;
    explicit Secret(std::string_view text) : text_(text.size() + 1, '\0')
    {
        text.copy(text_.data(), text.size());
    }
    Secret(const Secret&) = default;
    Secret(Secret&&) noexcept = default;
    Secret& operator=(Secret other) noexcept
    {
        text_.swap(other.text_);
        return *this;
    }
    ~Secret()
    {
        // Written as volatile, or the compiler sees that nobody reads it any more.
        volatile char* bytes = text_.data();
        for (std::size_t i = 0; i < text_.size(); ++i) bytes[i] = '\0';
    }

    // NULL for a text that is empty, or was never given.
    char* pointer() const noexcept
    {
        return text_.size() <= 1 ? nullptr : const_cast<char*>(text_.data());
    }
    const char* text() const noexcept { return text_.empty() ? "" : text_.data(); }

private:
    std::vector<char> text_; // with its terminator; a vector keeps no copy within itself
};

// Seconds as the calls take them. What is out of range stays so, for the library to refuse.
inline int wholeSeconds(std::chrono::seconds time) noexcept
{
    constexpr std::chrono::seconds::rep most = 3600;
    if (time.count() < 0) return -1;
    return static_cast<int>(time.count() > most ? most + 1 : time.count());
}

// A field of fixed width, padded with blanks. False if the text does not fit.
template <std::size_t size>
bool fill(char (&field)[size], std::string_view text) noexcept
{
    std::memset(field, ' ', size);
    text.copy(field, size);
    return text.size() <= size;
}

} // namespace detail

// ---- What is called -----------------------------------------------------------------------------

// A server program, and how it is called: a plain value, made once and used for any number of
// calls. Each of its functions gives a changed copy:
//
//     const auto payroll = qpx::Call("PAYROLL").on("PROD").as(user, password).within(10s);
//
// Names have up to 8 characters, transactions 4. A call with a name that is too long fails with
// ECI_ERR_INVALID_DATA_LENGTH, one with a time that cannot be told with ECI_ERR_REQUEST_TIMEOUT,
// and nothing is sent.
class Call {
public:
    explicit Call(std::string_view program)
    {
        std::memset(&record_, 0, sizeof record_);
        record_.eci_version = ECI_VERSION_6;
        check(detail::fill(record_.eci_program_name, program));
    }

    // The server behind the Gateway; else its default.
    [[nodiscard]] Call on(std::string_view server) const
    {
        Call changed(*this);
        changed.check(detail::fill(changed.record_.eci_system_name, server));
        return changed;
    }

    // The user for whom the program runs.
    [[nodiscard]] Call as(std::string_view user, std::string_view password) const
    {
        Call changed(*this);
        changed.user_ = detail::Secret(user);
        changed.password_ = detail::Secret(password);
        return changed;
    }

    // The transaction under which the program runs; the transaction program takes its place.
    [[nodiscard]] Call transaction(std::string_view id) const
    {
        Call changed(*this);
        changed.check(detail::fill(changed.record_.eci_transid, id));
        return changed;
    }
    [[nodiscard]] Call transactionProgram(std::string_view id) const
    {
        Call changed(*this);
        changed.check(detail::fill(changed.record_.eci_tpn, id));
        return changed;
    }

    // How long the Gateway is to wait for the program; 0, unless said otherwise, is its default.
    [[nodiscard]] Call within(std::chrono::seconds time) const
    {
        Call changed(*this);
        if (time.count() < 0 || time.count() > std::numeric_limits<short>::max())
            changed.defect_ = ECI_ERR_REQUEST_TIMEOUT;
        else
            changed.record_.eci_timeout = static_cast<short>(time.count());
        return changed;
    }

    // The record of one call, for the C interface: its pointers are valid as long as this value.
    QPX_ECI_PARMS native(short callType = ECI_SYNC) const noexcept
    {
        QPX_ECI_PARMS record = record_;
        record.eci_call_type = callType;
        record.eci_userid_ptr = user_.pointer();
        record.eci_password_ptr = password_.pointer();
        return record;
    }

    // Why no call can be made of it; QPX_OK if one can.
    int defect() const noexcept { return defect_; }

private:
    void check(bool fits) noexcept
    {
        if (!fits) defect_ = ECI_ERR_INVALID_DATA_LENGTH;
    }

    QPX_ECI_PARMS record_;
    detail::Secret user_;
    detail::Secret password_;
    int defect_ = QPX_OK;
};

// ---- Channels -----------------------------------------------------------------------------------

// What a container is.
struct ContainerInfo {
    std::string name;
    bool isText = false; // characters in the code page ccsid; else bytes
    int ccsid = 0;
    std::size_t size = 0;
};

// A channel with its containers. Destroying it deletes it.
class Channel {
public:
    static constexpr int utf8 = 1208;

    static Result<Channel> create(std::string_view name)
    {
        ECI_ChannelToken_t token = nullptr;
        int rc = ECI_createChannel(std::string(name).c_str(), &token);
        if (rc != ECI_NO_ERROR) return Failure(rc, "ECI_createChannel");
        return Channel(token);
    }

    // Takes over a channel of the C interface; the default is an empty value.
    explicit Channel(ECI_ChannelToken_t token = nullptr) noexcept : token_(token) {}
    Channel(Channel&& other) noexcept : token_(other.release()) {}
    Channel& operator=(Channel&& other) noexcept
    {
        Channel(std::move(other)).swap(*this);
        return *this;
    }
    ~Channel()
    {
        if (token_ != nullptr) ECI_deleteChannel(&token_);
    }

    // Adds a container of bytes, or of characters in a code page; 0 is that of the channel.
    Result<void> addBytes(std::string_view name, std::string_view data)
    {
        return create(name, ECI_BIT, 0, data);
    }
    Result<void> addText(std::string_view name, std::string_view text, int ccsid = utf8)
    {
        return create(name, ECI_CHAR, ccsid, text);
    }

    // Replaces the data of a container, whose type and code page stay.
    Result<void> replace(std::string_view name, std::string_view data)
    {
        return detail::done(
            ECI_setContainerData(token_, std::string(name).c_str(), data.data(), data.size()),
            "ECI_setContainerData");
    }

    Result<void> erase(std::string_view name)
    {
        return detail::done(ECI_deleteContainer(token_, std::string(name).c_str()),
                            "ECI_deleteContainer");
    }

    Result<ContainerInfo> info(std::string_view name) const
    {
        ECI_CONTAINER_INFO info;
        int rc = ECI_getContainerInfo(token_, std::string(name).c_str(), &info);
        if (rc != ECI_NO_ERROR) return Failure(rc, "ECI_getContainerInfo");
        return described(info);
    }

    // All data of a container.
    Result<std::string> data(std::string_view name) const
    {
        const std::string text(name);
        ECI_CONTAINER_INFO info;
        int rc = ECI_getContainerInfo(token_, text.c_str(), &info);
        if (rc != ECI_NO_ERROR) return Failure(rc, "ECI_getContainerInfo");
        std::string data(info.dataLength, '\0');
        std::size_t read = 0;
        rc = ECI_getContainerData(token_, text.c_str(), data.data(), data.size(), 0, &read);
        if (rc != ECI_NO_ERROR) return Failure(rc, "ECI_getContainerData");
        data.resize(read);
        return data;
    }

    // The containers, the newest first. Moves the channel's browse position.
    Result<std::vector<ContainerInfo>> containers() const
    {
        std::vector<ContainerInfo> all;
        ECI_CONTAINER_INFO info;
        int rc = ECI_getFirstContainer(token_, &info);
        for (; rc == ECI_NO_ERROR; rc = ECI_getNextContainer(token_, &info))
            all.push_back(described(info));
        if (rc != ECI_ERR_ENDOFCONTAINERS) return Failure(rc, "ECI_getNextContainer");
        return all;
    }

    Result<std::string> name() const
    {
        char name[ECI_NAME_SIZE] = "";
        int rc = ECI_getChannelName(token_, name);
        if (rc != ECI_NO_ERROR) return Failure(rc, "ECI_getChannelName");
        return std::string(name);
    }

    // The handle, or the handle with the duty to delete it.
    ECI_ChannelToken_t native() const noexcept { return token_; }
    ECI_ChannelToken_t release() noexcept { return std::exchange(token_, nullptr); }

    void swap(Channel& other) noexcept { std::swap(token_, other.token_); }

private:
    Result<void> create(std::string_view name, ECI_CONTAINER_TYPE type, int ccsid,
                        std::string_view data)
    {
        return detail::done(ECI_createContainer(token_, std::string(name).c_str(), type, ccsid,
                                                data.data(), data.size()),
                            "ECI_createContainer");
    }

    // The record is packed: what it holds is copied, and nothing refers to its fields.
    static ContainerInfo described(const ECI_CONTAINER_INFO& info)
    {
        const int ccsid = info.ccsid;
        const std::size_t size = info.dataLength;
        return {info.name, info.type == ECI_CHAR, ccsid, size};
    }

    ECI_ChannelToken_t token_;
};

// ---- Under the connections ----------------------------------------------------------------------

namespace detail {

// The reply of an asynchronous call that nobody waits for any more.
struct Dropped {
    int qualifier;
    Channel channel; // the call's own until its reply is there; empty: it had a COMMAREA
};

// What a connection shares with the asynchronous calls made on it, which may outlive it.
struct Link {
    explicit Link(QPX_ConnToken_t connection) noexcept : token(connection) {}

    std::atomic<QPX_ConnToken_t> token; // NULL once it is closed

    std::mutex mutex;             // guards all of the following
    std::size_t pending = 0;      // replies that Pending values are to collect
    std::vector<Dropped> dropped; // has room for those as well
    bool collector = false;       // there is a Collector
};

inline Failure failed(int rc, const char* call, const QPX_ECI_PARMS& record) noexcept
{
    Failure failure(rc, call);
    if (rc == ECI_ERR_TRANSACTION_ABEND)
        failure.withAbendCode({record.eci_abend_code, sizeof record.eci_abend_code});
    return failure;
}

constexpr std::size_t mostData = 32767;
constexpr const char* executeName = "QPX_ECI_Execute";
constexpr const char* executeChannelName = "QPX_ECI_Execute_Channel";

// A unit of work as it stands: its token, and whether it has come to its end.
struct Unit {
    int token = 0;
    bool over = false;

    void enter(QPX_ECI_PARMS& record) const noexcept { record.eci_luw_token = token; }
    void leave(const QPX_ECI_PARMS& record, short mode, int rc) noexcept
    {
        if (rc == ECI_ERR_ALREADY_ACTIVE) return;
        token = rc == ECI_NO_ERROR && mode == ECI_EXTENDED ? record.eci_luw_token : 0;
        over = token == 0;
    }
};

// What the library would have to be told wrongly, since its fields are too small for it.
inline int refuse(const Call& call, std::size_t size) noexcept
{
    if (call.defect() != QPX_OK) return call.defect();
    return size > mostData ? ECI_ERR_INVALID_DATA_LENGTH : QPX_OK;
}

inline void setArea(QPX_ECI_PARMS& record, std::string& area, std::size_t toSend) noexcept
{
    record.eci_commarea = area.empty() ? nullptr : area.data();
    record.eci_commarea_length = static_cast<short>(area.size());
    if (toSend < area.size()) record.commarea_outbound_length = static_cast<short>(toSend);
}

// Data with room behind it for a longer reply.
inline std::string areaOf(std::string_view data, std::size_t room)
{
    std::string area(data);
    if (area.size() < room) area.resize(room, '\0');
    return area;
}

// Collects a reply. area: in, room for it; out, its COMMAREA. record: out, that of the request.
inline int collect(QPX_ConnToken_t token, short callType, int qualifier, std::string& area,
                   QPX_ECI_PARMS& record)
{
    for (;;) {
        const std::size_t room = area.size();
        std::memset(&record, 0, sizeof record);
        record.eci_version = ECI_VERSION_6;
        record.eci_call_type = callType;
        record.eci_message_qualifier = qualifier;
        setArea(record, area, room);
        const int rc = QPX_ECI_Execute(token, &record);
        const short needed = record.eci_commarea_length;
        if (rc == ECI_ERR_INVALID_DATA_LENGTH && needed > 0 &&
            static_cast<std::size_t>(needed) > room) {
            area.resize(static_cast<std::size_t>(needed));
            qualifier = record.eci_message_qualifier;
            callType = ECI_GET_SPECIFIC_REPLY;
            continue;
        }
        const short came = record.commarea_inbound_length;
        if (rc == ECI_NO_ERROR && came >= 0 && static_cast<std::size_t>(came) < room)
            area.resize(static_cast<std::size_t>(came));
        return rc;
    }
}

// Frees what dropped replies hold, as far as they have come, or (wait) all of it.
inline void collectDropped(Link& link, bool wait)
{
    std::vector<Dropped> all;
    {
        std::lock_guard<std::mutex> held(link.mutex);
        if (link.dropped.empty()) return;
        all.swap(link.dropped);
    }
    std::vector<Dropped> left;
    left.reserve(all.size());
    for (Dropped& one : all) {
        QPX_ECI_PARMS record;
        std::string area(mostData, '\0');
        const short how = wait ? ECI_GET_SPECIFIC_REPLY_WAIT : ECI_GET_SPECIFIC_REPLY;
        if (collect(link.token, how, one.qualifier, area, record) == ECI_ERR_NO_REPLY)
            left.push_back(std::move(one));
    }
    std::lock_guard<std::mutex> held(link.mutex);
    link.dropped.reserve(link.dropped.size() + left.size() + link.pending);
    for (Dropped& one : left) link.dropped.push_back(std::move(one));
}

inline Result<std::string> execute(const Link& link, const Call& call, std::string_view data,
                                   std::size_t room, short mode, Unit* unit)
{
    std::string area = areaOf(data, room);
    if (const int rc = refuse(call, area.size()); rc != QPX_OK) return Failure(rc, executeName);
    QPX_ECI_PARMS record = call.native();
    setArea(record, area, data.size());
    record.eci_extend_mode = mode;
    if (unit != nullptr) unit->enter(record);
    const int rc = QPX_ECI_Execute(link.token, &record);
    if (unit != nullptr) unit->leave(record, mode, rc);
    if (rc != ECI_NO_ERROR) return failed(rc, executeName, record);
    return area;
}

inline Result<void> execute(const Link& link, const Call& call, Channel& channel, short mode,
                            Unit* unit)
{
    int rc = refuse(call, 0);
    if (rc == QPX_OK && channel.native() == nullptr) rc = ECI_ERR_INVALID_CHANNEL;
    if (rc != QPX_OK) return Failure(rc, executeChannelName);
    QPX_ECI_PARMS record = call.native();
    record.channel = channel.native();
    record.eci_extend_mode = mode;
    if (unit != nullptr) unit->enter(record);
    rc = QPX_ECI_Execute_Channel(link.token, &record);
    if (unit != nullptr) unit->leave(record, mode, rc);
    if (rc != ECI_NO_ERROR) return failed(rc, executeChannelName, record);
    return {};
}

// Sends an asynchronous call and gives its qualifier.
inline Result<int> send(const Link& link, const Call& call, std::string& area, std::size_t toSend)
{
    if (const int rc = refuse(call, area.size()); rc != QPX_OK) return Failure(rc, executeName);
    QPX_ECI_PARMS record = call.native(ECI_ASYNC);
    setArea(record, area, toSend);
    const int rc = QPX_ECI_Execute(link.token, &record);
    if (rc != ECI_NO_ERROR) return failed(rc, executeName, record);
    const int qualifier = record.eci_message_qualifier;
    return qualifier;
}

inline Result<int> send(const Link& link, const Call& call, const Channel& channel)
{
    int rc = refuse(call, 0);
    if (rc == QPX_OK && channel.native() == nullptr) rc = ECI_ERR_INVALID_CHANNEL;
    if (rc != QPX_OK) return Failure(rc, executeChannelName);
    QPX_ECI_PARMS record = call.native(ECI_ASYNC);
    record.channel = channel.native();
    rc = QPX_ECI_Execute_Channel(link.token, &record);
    if (rc != ECI_NO_ERROR) return failed(rc, executeChannelName, record);
    const int qualifier = record.eci_message_qualifier;
    return qualifier;
}

} // namespace detail

// ---- Asynchronous calls -------------------------------------------------------------------------

// A call on its way: Pending<std::string> of one with a COMMAREA, Pending<Channel> of one with a
// channel, which it has until the reply is there. Connection::start() makes it.
//
// Whoever destroys it before get() gives the reply up and waits for nothing; the connection sees to
// what is left of it.
template <typename Value>
class Pending {
    static_assert(std::is_same_v<Value, std::string> || std::is_same_v<Value, Channel>);

public:
    Pending(Pending&& other) noexcept
        : link_(std::move(other.link_)), qualifier_(other.qualifier_), kept_(std::move(other.kept_))
    {
    }
    Pending& operator=(Pending&& other) noexcept
    {
        if (this != &other) {
            drop();
            link_ = std::move(other.link_);
            qualifier_ = other.qualifier_;
            kept_ = std::move(other.kept_);
        }
        return *this;
    }
    ~Pending() { drop(); }

    // Waits for the reply. Once: afterwards the value is empty.
    Result<Value> get() { return collect(ECI_GET_SPECIFIC_REPLY_WAIT); }

    // The reply if it is there already, as get(); else nothing, and it may be asked for again.
    std::optional<Result<Value>> poll()
    {
        Result<Value> reply = collect(ECI_GET_SPECIFIC_REPLY);
        if (reply.code() == ECI_ERR_NO_REPLY) return std::nullopt;
        return reply;
    }

    // False once the reply has been taken.
    bool valid() const noexcept { return link_ != nullptr; }
    int qualifier() const noexcept { return qualifier_; }

private:
    friend class Connection;

    Pending(std::shared_ptr<detail::Link> link, int qualifier, Value kept) noexcept
        : link_(std::move(link)), qualifier_(qualifier), kept_(std::move(kept))
    {
    }

    Result<Value> collect(short callType)
    {
        constexpr bool isChannel = std::is_same_v<Value, Channel>;
        if (!valid()) return Failure(ECI_ERR_INVALID_MSG_QUAL, detail::executeName);
        QPX_ECI_PARMS record;
        std::string none;
        int rc = QPX_OK;
        if constexpr (isChannel)
            rc = detail::collect(link_->token, callType, qualifier_, none, record);
        else
            rc = detail::collect(link_->token, callType, qualifier_, kept_, record);
        // There is no reply yet, or no memory to take it: it stays to be collected.
        if (rc == ECI_ERR_NO_REPLY || rc == QPX_ERR_MALLOCFAIL)
            return Failure(rc, detail::executeName);
        leave();
        if (rc != ECI_NO_ERROR) return detail::failed(rc, detail::executeName, record);
        return std::move(kept_);
    }

    void leave() noexcept
    {
        const std::shared_ptr<detail::Link> link = std::move(link_); // may be the last to have it
        std::lock_guard<std::mutex> held(link->mutex);
        --link->pending;
    }

    void drop() noexcept
    {
        if (!valid()) return;
        const std::shared_ptr<detail::Link> link = std::move(link_);
        std::lock_guard<std::mutex> held(link->mutex);
        --link->pending;
        if (link->token.load() == nullptr) return;
        Channel channel;
        if constexpr (std::is_same_v<Value, Channel>) channel = std::move(kept_);
        link->dropped.push_back({qualifier_, std::move(channel)}); // there is room
    }

    std::shared_ptr<detail::Link> link_; // NULL once the reply is taken
    int qualifier_;
    Value kept_; // room for the COMMAREA, or the channel
};

// ---- Connections --------------------------------------------------------------------------------

// A server that the Gateway knows.
struct System {
    std::string name;
    std::string description;
};

// Who calls, for the Gateway and the server to know; at most 8 characters each.
struct Identity {
    std::string_view applid;
    std::string_view qualifier;
};

// What a server tells of a user whose password it has accepted. Times are as the server has sent
// them, with tm_yday from 0 as in the C library; empty, if it has not set them.
struct PasswordDetails {
    std::optional<std::tm> lastVerified;
    std::optional<std::tm> lastAccessed;
    std::optional<std::tm> expires;
    int wrongAttempts = 0;
};

// An open connection to a Gateway. Destroying it purges it: replies that nobody has collected are
// given up, and the Gateway is told. Whoever wants to know that all went well calls close().
class Connection {
public:
    // limit: for the TCP connect, and again until the Gateway answers; 0 is none, 3600 s the most.
    static Result<Connection> open(std::string_view host, int port,
                                   std::chrono::seconds limit = std::chrono::seconds(30),
                                   Identity identity = {})
    {
        std::string name(host), applid(identity.applid), qualifier(identity.qualifier);
        auto link = std::make_shared<detail::Link>(nullptr);
        QPX_ConnToken_t token = nullptr;
        const int rc = QPX_openRemoteGatewayConnectionApplid(name.data(), port, &token,
                                                             detail::wholeSeconds(limit),
                                                             applid.data(), qualifier.data());
        if (rc != QPX_OK) return Failure(rc, "QPX_openRemoteGatewayConnectionApplid");
        link->token = token;
        return Connection(std::move(link));
    }

    // Takes over a connection of the C interface.
    explicit Connection(QPX_ConnToken_t token) : link_(std::make_shared<detail::Link>(token)) {}
    Connection(Connection&& other) noexcept = default;
    Connection& operator=(Connection&& other) noexcept
    {
        if (this != &other) {
            end();
            link_ = std::move(other.link_);
        }
        return *this;
    }
    ~Connection() { end(); }

    // ---- Calls

    // Calls a program with a COMMAREA and waits for the reply: the COMMAREA as the program has left
    // it, of the length of data, or of room if that is more; zeros are behind a shorter reply.
    Result<std::string> call(const Call& call, std::string_view data, std::size_t room = 0)
    {
        if (!link_) return none(detail::executeName);
        return detail::execute(*link_, call, data, room, ECI_NO_EXTEND, nullptr);
    }

    // The same with a record of the application's own, such as a struct of characters.
    template <typename Record,
              typename = std::enable_if_t<std::is_trivially_copyable_v<Record> &&
                                          !std::is_convertible_v<const Record&, std::string_view>>>
    Result<Record> call(const Call& call, const Record& record)
    {
        static_assert(sizeof(Record) <= detail::mostData, "a COMMAREA has at most 32767 bytes");
        Result<std::string> reply = this->call(
            call, std::string_view(reinterpret_cast<const char*>(&record), sizeof record));
        if (!reply) return reply.failure();
        Record result = record;
        std::memcpy(static_cast<void*>(&result), reply->data(), sizeof result);
        return result;
    }

    // Calls a program with a channel, which is as the program has left it afterwards.
    Result<void> call(const Call& call, Channel& channel)
    {
        if (!link_) return none(detail::executeChannelName);
        return detail::execute(*link_, call, channel, ECI_NO_EXTEND, nullptr);
    }

    // The same without waiting for the reply. The data may be used again at once; a channel is the
    // call's, and comes back with the reply: without one, it is gone. Fails with
    // ECI_ERR_ALREADY_ACTIVE while the connection has a Collector.
    Result<Pending<std::string>> start(const Call& call, std::string_view data,
                                       std::size_t room = 0)
    {
        return begin(detail::areaOf(data, room), [&](std::string& area) {
            return detail::send(*link_, call, area, data.size());
        });
    }
    Result<Pending<Channel>> start(const Call& call, Channel channel)
    {
        return begin(std::move(channel),
                     [&](Channel& sent) { return detail::send(*link_, call, sent); });
    }

    // ---- Passwords and systems

    // server: the one to ask; empty for the Gateway's default.
    Result<PasswordDetails> verifyPassword(std::string_view user, std::string_view password,
                                           std::string_view server = {})
    {
        const detail::Secret secret(password);
        const std::string who(user), where(server);
        ESI_DETAILS details{};
        const int rc = QPX_ESI_verifyPassword(native(), who.c_str(), secret.text(),
                                              where.empty() ? nullptr : where.c_str(), &details);
        if (rc != QPX_OK) return Failure(rc, "QPX_ESI_verifyPassword");
        return told(details);
    }
    Result<PasswordDetails> changePassword(std::string_view user, std::string_view password,
                                           std::string_view newPassword,
                                           std::string_view server = {})
    {
        const detail::Secret before(password), after(newPassword);
        const std::string who(user), where(server);
        ESI_DETAILS details{};
        const int rc = QPX_ESI_changePassword(native(), who.c_str(), before.text(), after.text(),
                                              where.empty() ? nullptr : where.c_str(), &details);
        if (rc != QPX_OK) return Failure(rc, "QPX_ESI_changePassword");
        return told(details);
    }

    // All servers that the Gateway knows; none is no failure.
    Result<std::vector<System>> systems()
    {
        std::vector<QPX_listSystem_t> list(16);
        for (;;) {
            auto count = static_cast<unsigned short>(list.size());
            const int rc = QPX_listSystems(native(), &count, list.data());
            if (rc == QPX_ERR_NO_SYSTEMS) return std::vector<System>();
            if (rc == QPX_ERR_MORE_SYSTEMS && list.size() < mostSystems) {
                list.resize(list.size() * 4);
                continue;
            }
            if (rc != QPX_OK) return Failure(rc, "QPX_listSystems");
            std::vector<System> all;
            for (std::size_t i = 0; i < count && i < list.size(); ++i)
                all.push_back({upTo(list[i].SystemName, 8), upTo(list[i].Description, 60)});
            return all;
        }
    }

    // ---- State and end

    Result<std::string> applid() const
    {
        char* text = nullptr;
        const int rc = QPX_getApplid(native(), &text);
        if (rc != QPX_OK) return Failure(rc, "QPX_getApplid");
        return std::string(text);
    }
    Result<std::string> applidQualifier() const
    {
        char* text = nullptr;
        const int rc = QPX_getApplidQualifier(native(), &text);
        if (rc != QPX_OK) return Failure(rc, "QPX_getApplidQualifier");
        return std::string(text);
    }

    // Closes in order: waits without limit for calls in progress and for replies that a Pending or
    // a Collector is to collect. Nothing is open afterwards, whatever the result, unless another
    // thread is at the same.
    Result<void> close()
    {
        if (!link_) return none("QPX_closeGatewayConnection");
        detail::collectDropped(*link_, true);
        QPX_ConnToken_t token = native();
        return ended(QPX_closeGatewayConnection(&token), "QPX_closeGatewayConnection");
    }

    // The same, but calls in progress get only so long, 0 to 3600 s, and uncollected replies are
    // given up. For other threads a way out of a wait.
    Result<void> purge(std::chrono::seconds limit = std::chrono::seconds(0))
    {
        if (!link_) return none("QPX_purgeGatewayConnection");
        QPX_ConnToken_t token = native();
        return ended(QPX_purgeGatewayConnection(&token, detail::wholeSeconds(limit)),
                     "QPX_purgeGatewayConnection");
    }

    bool isOpen() const noexcept { return native() != nullptr; }
    QPX_ConnToken_t native() const noexcept { return link_ ? link_->token.load() : nullptr; }

private:
    friend class UnitOfWork;
    friend class Collector;

    static constexpr std::size_t mostSystems = 16 * 4 * 4 * 4 * 4 * 4;

    explicit Connection(std::shared_ptr<detail::Link> link) noexcept : link_(std::move(link)) {}

    static Failure none(const char* call) noexcept { return {QPX_ERR_NULLGWTOK, call}; }

    template <typename Value, typename Send>
    Result<Pending<Value>> begin(Value kept, Send send)
    {
        if (!link_) return none(detail::executeName);
        detail::collectDropped(*link_, false);
        {
            std::lock_guard<std::mutex> held(link_->mutex);
            if (link_->collector) return Failure(ECI_ERR_ALREADY_ACTIVE, detail::executeName);
            link_->dropped.reserve(link_->dropped.size() + link_->pending + 1);
            ++link_->pending;
        }
        const Result<int> qualifier = send(kept);
        if (qualifier) return Pending<Value>(link_, *qualifier, std::move(kept));
        std::lock_guard<std::mutex> held(link_->mutex);
        --link_->pending;
        return qualifier.failure();
    }

    Result<void> ended(int rc, const char* call) noexcept
    {
        // The two leave the connection with those who still have it.
        if (rc != QPX_ERR_INVALIDTIMEOUTPARM && rc != QPX_ERR_GWTOK_CLOSED) link_->token = nullptr;
        return detail::done(rc, call);
    }

    void end() noexcept
    {
        if (!link_) return;
        if (native() != nullptr) static_cast<void>(purge());
        std::vector<detail::Dropped> gone; // their channels are free now
        std::lock_guard<std::mutex> held(link_->mutex);
        gone.swap(link_->dropped);
    }

    static std::string upTo(const char* text, std::size_t most)
    {
        return std::string(text, ::strnlen(text, most));
    }

    static std::optional<std::tm> when(const ESI_DATETIME& time)
    {
        if (time.year == 0) return std::nullopt;
        std::tm result{};
        QPX_ESI_convertTime(&time, &result);
        result.tm_yday -= 1;
        return result;
    }

    static PasswordDetails told(const ESI_DETAILS& details)
    {
        return {when(details.lastVerifiedTime), when(details.lastAccessedTime),
                when(details.expiryTime), details.invalidCount};
    }

    std::shared_ptr<detail::Link> link_;
};

// ---- Units of work ------------------------------------------------------------------------------

// Calls that take effect together or not at all. The first opens the unit; what is neither
// committed nor ended by a failure is backed out when the value is destroyed.
//
//     qpx::UnitOfWork transfer(gateway);
//     transfer.call(ledger, debit).value();
//     transfer.call(ledger, credit).value();   // if this throws, the debit is backed out
//     transfer.commit().value();
//
// A value is one unit. When that has come to its end, by a commit, a back-out or a call that has
// failed, every call and a commit fail with ECI_ERR_LUW_TOKEN: nothing begins another one unseen.
class UnitOfWork {
public:
    explicit UnitOfWork(Connection& connection) noexcept : link_(connection.link_) {}
    UnitOfWork(UnitOfWork&& other) noexcept
        : link_(std::move(other.link_)), unit_(std::exchange(other.unit_, {})),
          last_(std::move(other.last_))
    {
    }
    UnitOfWork& operator=(UnitOfWork&& other) noexcept
    {
        if (this != &other) {
            static_cast<void>(backOut());
            link_ = std::move(other.link_);
            unit_ = std::exchange(other.unit_, {});
            last_ = std::move(other.last_);
        }
        return *this;
    }
    ~UnitOfWork() { static_cast<void>(backOut()); }

    // As the calls of Connection, within the unit. A call that was refused before it was sent, as
    // too long or while another of the unit is in progress, leaves the unit as it is; any other
    // failure ends it, and the server backs it out.
    Result<std::string> call(const Call& call, std::string_view data, std::size_t room = 0)
    {
        if (const int rc = refuse(); rc != QPX_OK) return Failure(rc, detail::executeName);
        if (call.defect() == QPX_OK) last_ = call;
        return detail::execute(*link_, call, data, room, ECI_EXTENDED, &unit_);
    }
    Result<void> call(const Call& call, Channel& channel)
    {
        if (const int rc = refuse(); rc != QPX_OK) return Failure(rc, detail::executeChannelName);
        if (call.defect() == QPX_OK) last_ = call;
        return detail::execute(*link_, call, channel, ECI_EXTENDED, &unit_);
    }

    // Makes what the unit has done permanent. One that is not open has nothing to commit, and that
    // is a failure. With Failure::connectionEnded() the commit is in doubt.
    Result<void> commit()
    {
        if (!isOpen()) return Failure(ECI_ERR_LUW_TOKEN, detail::executeName);
        return end(ECI_COMMIT);
    }

    // Undoes it. One that is not open has nothing to undo, and that is a success.
    Result<void> backOut()
    {
        if (!isOpen()) return {};
        return end(ECI_BACKOUT);
    }

    bool isOpen() const noexcept { return unit_.token != 0; }
    int native() const noexcept { return unit_.token; }

private:
    int refuse() const noexcept
    {
        if (!link_) return QPX_ERR_NULLGWTOK;
        return unit_.over ? ECI_ERR_LUW_TOKEN : QPX_OK;
    }

    Result<void> end(short mode)
    {
        const Result<std::string> reply = detail::execute(*link_, *last_, {}, 0, mode, &unit_);
        if (!reply) return reply.failure();
        return {};
    }

    std::shared_ptr<detail::Link> link_;
    detail::Unit unit_;
    std::optional<Call> last_; // whose server and user the end of the unit has, too
};

// ---- Futures ------------------------------------------------------------------------------------

// Asynchronous calls as futures: a thread of its own collects the replies as they come, whatever
// their order.
//
//     auto collector = qpx::Collector::over(gateway).value();
//     auto one = collector.call(quote, "ACME"), other = collector.call(quote, "BOLT");
//     use(one.get().value(), other.get().value());
//
// Futures outlive it: destroying it waits until every one of its calls has its outcome, which a
// purge of the connection, or its end, hastens.
class Collector {
public:
    // A connection has one collector at a time, and none while it has a Pending: then it fails with
    // ECI_ERR_ALREADY_ACTIVE.
    static Result<Collector> over(Connection& connection)
    {
        if (!connection.link_) return Connection::none(detail::executeName);
        auto state = std::make_unique<State>(connection.link_);
        {
            std::lock_guard<std::mutex> held(connection.link_->mutex);
            if (connection.link_->collector || connection.link_->pending != 0)
                return Failure(ECI_ERR_ALREADY_ACTIVE, detail::executeName);
            connection.link_->collector = true;
        }
        state->entered = true;
        state->thread = std::thread([here = state.get()] { here->collectAll(); });
        return Collector(std::move(state));
    }

    Collector(Collector&&) noexcept = default;
    Collector& operator=(Collector&&) noexcept = default;
    ~Collector() = default;

    // As Connection::start(). A call that cannot be sent has its failure in its future.
    std::future<Result<std::string>> call(const Call& call, std::string_view data,
                                          std::size_t room = 0)
    {
        std::string area = detail::areaOf(data, room);
        return begin(ForData(), [&](ForData&, const detail::Link& link) {
            return detail::send(link, call, area, data.size());
        });
    }
    std::future<Result<Channel>> call(const Call& call, Channel channel)
    {
        ForChannel waiter;
        waiter.channel = std::move(channel);
        return begin(std::move(waiter), [&](ForChannel& kept, const detail::Link& link) {
            return detail::send(link, call, kept.channel);
        });
    }

    // How many replies are still to come.
    std::size_t outstanding() const
    {
        if (!state_) return 0;
        std::lock_guard<std::mutex> held(state_->mutex);
        return state_->waiters.size();
    }

private:
    struct ForData {
        std::promise<Result<std::string>> promise;
    };
    struct ForChannel {
        std::promise<Result<Channel>> promise;
        Channel channel;
    };
    // By qualifier; of several with the same, the first in is the first that was sent. The library
    // gives the qualifier of a collected reply to the next call, which may be entered before the
    // collecting thread has come to the former one.
    using Waiters = std::multimap<int, std::variant<ForData, ForChannel>>;

    struct State {
        explicit State(std::shared_ptr<detail::Link> connection) : link(std::move(connection)) {}
        ~State()
        {
            if (thread.joinable()) {
                {
                    std::lock_guard<std::mutex> held(mutex);
                    ending = true;
                }
                changed.notify_one();
                thread.join();
            }
            if (!entered) return;
            std::lock_guard<std::mutex> held(link->mutex);
            link->collector = false;
        }

        void collectAll()
        {
            std::string area;
            std::unique_lock<std::mutex> held(mutex);
            for (;;) {
                changed.wait(held, [this] { return ending || !waiters.empty(); });
                if (waiters.empty()) return;
                held.unlock();
                QPX_ECI_PARMS record;
                area.resize(detail::mostData);
                const int rc = detail::collect(link->token, ECI_GET_REPLY_WAIT, 0, area, record);
                // Who sends has the lock until the call is entered, so it is there by now.
                held.lock();
                Waiters answered;
                const int qualifier = record.eci_message_qualifier;
                const auto oldest = waiters.lower_bound(qualifier);
                if (qualifier == 0)
                    answered.swap(waiters); // there is no reply, and none will come
                else if (oldest != waiters.end() && oldest->first == qualifier)
                    answered.insert(waiters.extract(oldest));
                held.unlock();
                for (auto& each : answered) deliver(each.second, rc, area, record);
                answered.clear();
                held.lock();
            }
        }

        static void deliver(std::variant<ForData, ForChannel>& waiter, int rc,
                            const std::string& area, const QPX_ECI_PARMS& record)
        {
            const Failure failure = detail::failed(rc, detail::executeName, record);
            if (auto* data = std::get_if<ForData>(&waiter)) {
                if (rc == ECI_NO_ERROR)
                    data->promise.set_value(area);
                else
                    data->promise.set_value(failure);
            } else if (auto* channel = std::get_if<ForChannel>(&waiter)) {
                if (rc == ECI_NO_ERROR)
                    channel->promise.set_value(std::move(channel->channel));
                else
                    channel->promise.set_value(failure);
            }
        }

        const std::shared_ptr<detail::Link> link;
        bool entered = false; // the connection knows of it
        std::thread thread;
        std::condition_variable changed;
        std::mutex mutex; // guards the following, and is held while a call is sent
        Waiters waiters;
        bool ending = false;
    };

    explicit Collector(std::unique_ptr<State> state) noexcept : state_(std::move(state)) {}

    template <typename Waiter, typename Send>
    auto begin(Waiter waiter, Send send) -> decltype(waiter.promise.get_future())
    {
        auto future = waiter.promise.get_future();
        if (!state_) {
            waiter.promise.set_value(Connection::none(detail::executeName));
            return future;
        }
        // Its node is made before the call is sent: nothing may fail between that and its entry.
        Waiters one;
        one.emplace(0, std::move(waiter));
        auto node = one.extract(one.begin());
        Waiter& kept = *std::get_if<Waiter>(&node.mapped());
        {
            std::lock_guard<std::mutex> held(state_->mutex);
            const Result<int> qualifier = send(kept, *state_->link);
            if (!qualifier) {
                kept.promise.set_value(qualifier.failure());
                return future;
            }
            node.key() = *qualifier;
            state_->waiters.insert(std::move(node));
        }
        state_->changed.notify_one();
        return future;
    }

    std::unique_ptr<State> state_;
};

// ---- Library ------------------------------------------------------------------------------------

// The version of the library, such as "10.1.0.0".
inline std::string libraryVersion()
{
    char* text = nullptr;
    return QPX_getDLLVersion(&text) == QPX_OK ? text : std::string();
}

// The trace: its level, 0 to 5, and its file; an empty name is standard error.
inline Result<void> setTraceLevel(int level)
{
    return detail::done(QPX_setAPITraceLevel(level), "QPX_setAPITraceLevel");
}
inline Result<void> setTraceFile(std::string_view name)
{
    std::string text(name);
    return detail::done(QPX_setAPITraceFile(text.empty() ? nullptr : text.data()),
                        "QPX_setAPITraceFile");
}

} // namespace qpx

#endif
#endif
