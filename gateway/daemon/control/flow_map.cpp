#include "control/flow_map.h"

#include <cstdint>
#include <cstdio>
#include <utility>

#include "log/log_text.h"

namespace control {

using standin::Bytes;
using standin::FlowType;

namespace {

constexpr std::size_t kMostFields = 4000;

// Names the bytes one behind the other. Behind the end of the flow nothing is named any more.
class Namer {
public:
    explicit Namer(const Bytes& flow) : flow_(flow) {}

    std::int32_t takeInt(const std::string& name)
    {
        return static_cast<std::int32_t>(takeNumber(name, 4));
    }

    void takeVersion(const std::string& name)
    {
        char text[16];
        const std::uint32_t version = takeNumber(name, 4);
        std::snprintf(text, sizeof text, "0x%08X", static_cast<unsigned>(version));
        if (!fields_.empty() && fields_.back().name == name) fields_.back().value = text;
    }

    std::int32_t takeShort(const std::string& name)
    {
        return static_cast<std::int16_t>(takeNumber(name, 2));
    }

    std::int32_t takeByte(const std::string& name)
    {
        return static_cast<std::int32_t>(takeNumber(name, 1));
    }

    std::string takeText(const std::string& name, std::size_t length)
    {
        if (length == 0 || !isThere(length)) return {};
        std::string text(flow_.begin() + offset(), flow_.begin() + offset() + offset(length));
        const std::size_t end = text.find_last_not_of(std::string(" \0", 2));
        text.resize(end == std::string::npos ? 0 : end + 1);
        add(name, length, "\"" + log_text::printable(text) + "\"");
        return text;
    }

    void takeData(const std::string& name, std::size_t length)
    {
        if (length > 0 && isThere(length)) add(name, length, "");
    }

    // A length, and data behind it.
    void takeCounted(const std::string& name)
    {
        const std::int32_t length = takeInt("length of the " + name);
        if (length >= 0) takeData(name, static_cast<std::size_t>(length));
    }

    // A flag, and whether it is set.
    bool takeFlag(const std::string& name) { return takeByte(name) == 0xFF; }

    bool isAtEnd() const { return position_ >= flow_.size(); }

    std::vector<Field> finish()
    {
        if (!isAtEnd()) add("the rest", flow_.size() - position_, "");
        return std::move(fields_);
    }

private:
    std::ptrdiff_t offset() const { return offset(position_); }
    static std::ptrdiff_t offset(std::size_t at) { return static_cast<std::ptrdiff_t>(at); }

    // What does not fit any more is the rest, and nothing is named behind it.
    bool isThere(std::size_t length)
    {
        if (length <= flow_.size() - position_ && fields_.size() < kMostFields) return true;
        if (!isAtEnd()) add("the rest", flow_.size() - position_, "");
        return false;
    }

    std::uint32_t takeNumber(const std::string& name, std::size_t length)
    {
        if (!isThere(length)) return 0;
        std::uint32_t value = 0;
        for (std::size_t i = 0; i < length; ++i) value = value << 8U | flow_[position_ + i];
        const std::int64_t shown = length == 4   ? static_cast<std::int32_t>(value)
                                   : length == 2 ? static_cast<std::int16_t>(value)
                                                 : static_cast<std::int64_t>(value);
        add(name, length, std::to_string(shown));
        return value;
    }

    void add(const std::string& name, std::size_t length, std::string value)
    {
        fields_.push_back({position_, length, name, std::move(value)});
        position_ += length;
    }

    const Bytes& flow_;
    std::size_t position_ = 0;
    std::vector<Field> fields_;
};

struct Header {
    std::int32_t flowType = 0;
    std::string requestType;
};

Header takeHeader(Namer& in)
{
    Header header;
    in.takeText("eyecatcher", 4);
    in.takeVersion("flow version");
    header.flowType = in.takeInt("flow type");
    in.takeInt("message id");
    in.takeInt("gateway return code");
    const std::int32_t length = in.takeInt("length of the request type");
    if (length > 0)
        header.requestType = in.takeText("request type", static_cast<std::size_t>(length));
    in.takeByte("security");
    in.takeInt("data length");
    return header;
}

void takeChannel(Namer& in)
{
    in.takeText("channel name", 16);
    in.takeInt("channel CCSID");
    const std::int32_t count = in.takeInt("number of containers");
    for (std::int32_t i = 0; i < count && !in.isAtEnd(); ++i) {
        const std::string name = in.takeText("container name", 16);
        const std::string of = " of " + log_text::printable(name);
        const std::int32_t change = in.takeByte("change" + of);
        in.takeShort("zero" + of);
        in.takeByte("type" + of);
        in.takeInt("CCSID" + of);
        const std::int32_t length = in.takeInt("data length" + of);
        const bool travels = change == static_cast<std::int32_t>(standin::Change::Added) ||
                             change == static_cast<std::int32_t>(standin::Change::Modified);
        if (travels && length > 0) in.takeData("data" + of, static_cast<std::size_t>(length));
    }
}

void takeRequestedProgram(Namer& in)
{
    const std::int32_t mode = in.takeInt("extend mode");
    in.takeInt("unit of work");
    in.takeInt("message qualifier");
    in.takeByte("callback flag");
    in.takeInt("length of the server");
    in.takeText("server", 8);
    in.takeText("user", 16);
    in.takeCounted("password (hidden)");
    in.takeText("program", 8);
    in.takeText("transaction", 4);
    in.takeCounted("workload token");
    std::int32_t sent = in.takeInt("COMMAREA length");
    if (in.takeFlag("outbound length flag")) sent = in.takeInt("outbound length");
    if (in.takeFlag("inbound length flag")) in.takeInt("inbound length");
    const bool ends = mode == standin::kModeCommit || mode == standin::kModeBackout;
    if (!ends && sent > 0) in.takeData("COMMAREA", static_cast<std::size_t>(sent));
    if (in.takeFlag("channel flag")) takeChannel(in);
}

void takeEciRequest(Namer& in)
{
    const std::int32_t callType = in.takeInt("call type");
    if (callType == standin::kCallListSystems) {
        in.takeInt("number of systems");
    } else {
        takeRequestedProgram(in);
    }
    in.takeShort("time-out");
    in.takeByte("automatic qualifier flag");
    if (in.takeInt("XID format") != -1) {
        in.takeCounted("XID global id");
        in.takeCounted("XID branch qualifier");
    }
    in.takeInt("correlator");
}

void takeEsiRequest(Namer& in)
{
    const std::int32_t callType = in.takeInt("call type");
    in.takeText("user", 10);
    in.takeCounted("password (hidden)");
    in.takeText("server", 8);
    if (callType == standin::kEsiChange) in.takeCounted("new password (hidden)");
}

void takeEciReply(Namer& in)
{
    const std::int32_t callType = in.takeInt("call type");
    if (callType == standin::kCallListSystems) {
        const std::int32_t count = in.takeInt("number of systems");
        in.takeInt("server code");
        in.takeInt("data length");
        for (std::int32_t i = 0; i < count && !in.isAtEnd(); ++i) {
            in.takeText("system", 9);
            in.takeText("description", 61);
        }
        return;
    }
    in.takeInt("unit of work");
    in.takeInt("message qualifier");
    in.takeInt("server code");
    in.takeText("abend code", 4);
    std::int32_t sent = in.takeInt("COMMAREA length");
    if (in.takeFlag("inbound length flag")) {
        in.takeByte("zero");
        sent = in.takeInt("inbound length");
    }
    if (sent > 0) in.takeData("COMMAREA", static_cast<std::size_t>(sent));
    if (in.takeFlag("channel flag")) takeChannel(in);
}

void takeTime(Namer& in, const std::string& name)
{
    for (const char* const part :
         {"year", "month", "day", "hour", "minute", "second", "hundredths"})
        in.takeInt(name + ", " + part);
}

void takeEsiReply(Namer& in)
{
    if (in.takeInt("server code") != standin::kServerOk) return;
    takeTime(in, "last verified");
    takeTime(in, "expiry");
    takeTime(in, "last accessed");
    in.takeInt("wrong passwords");
}

} // namespace

std::vector<Field> fieldsOf(const Bytes& flow, Direction direction)
{
    Namer in(flow);
    const Header header = takeHeader(in);
    if (in.isAtEnd()) return in.finish();
    const auto type = static_cast<FlowType>(header.flowType);
    if (direction == Direction::FromClient) {
        if (type == FlowType::Request && header.requestType == "ECI") takeEciRequest(in);
        if (type == FlowType::Request && header.requestType == "ESI") takeEsiRequest(in);
    } else if (type == FlowType::Exception) {
        in.takeByte("zero");
        const std::int32_t length = in.takeShort("length of the text");
        in.takeText("text", static_cast<std::size_t>(length & 0xFFFF));
    } else if (type == FlowType::Reply) {
        if (header.requestType == "ECI") takeEciReply(in);
        if (header.requestType == "ESI") takeEsiReply(in);
    }
    return in.finish();
}

} // namespace control
