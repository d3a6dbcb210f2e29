#include "faults/fault_table.h"

#include <algorithm>

#include "standin/wire.h"

namespace standin {

namespace {

constexpr std::int32_t kWrongEyecatcher = 0x45746167; // "Etag"
constexpr std::int32_t kDefaultUnknownFlow = 99;
constexpr std::int32_t kDefaultUnknownMessage = 999999;
constexpr const char* kDefaultRequestType = "XYZ";

// --------------------------------------------------------------------------- instead of the answer

Answer only(const Flow& flow)
{
    return {{encodeFlow(flow)}, Answer::Then::GoOn, {}};
}

Answer nothing(const Misbehaviour&, const FlowHeader&)
{
    return {};
}

Answer aDrop(const Misbehaviour&, const FlowHeader&)
{
    return {{}, Answer::Then::Drop, {}};
}

Answer silence(const Misbehaviour&, const FlowHeader&)
{
    return {{}, Answer::Then::FallSilent, {}};
}

Answer aHalfClose(const Misbehaviour&, const FlowHeader&)
{
    return {{}, Answer::Then::HalfClose, {}};
}

Answer aReset(const Misbehaviour&, const FlowHeader&)
{
    return {{}, Answer::Then::Reset, {}};
}

Answer aCloseFlow(const Misbehaviour&, const FlowHeader&)
{
    return only(makeCloseFlow());
}

Answer anError(const Misbehaviour& misbehaviour, const FlowHeader& request)
{
    return only(makeErrorFlow(request.messageId, misbehaviour.number, request.requestType));
}

Answer anErrorOfTheConnection(const Misbehaviour& misbehaviour, const FlowHeader&)
{
    return only(makeErrorFlow(kHandshakeMessageId, misbehaviour.number, "BASE"));
}

Answer anException(const Misbehaviour& misbehaviour, const FlowHeader& request)
{
    return only(makeExceptionFlow(request.messageId, misbehaviour.text, request.requestType));
}

Answer theBytesGiven(const Misbehaviour& misbehaviour, const FlowHeader&)
{
    return {{misbehaviour.bytes}, Answer::Then::GoOn, {}};
}

// ------------------------------------------------------------------------------- before the answer

std::int32_t numberOr(const Misbehaviour& misbehaviour, std::int32_t fallback)
{
    return misbehaviour.number != 0 ? misbehaviour.number : fallback;
}

Flow aPing(const Misbehaviour&)
{
    return makePing();
}

Flow anUnknownFlow(const Misbehaviour& misbehaviour)
{
    Flow flow = makePing();
    flow.header.flowType = numberOr(misbehaviour, kDefaultUnknownFlow);
    return flow;
}

// ----------------------------------------------------------------------------------- in the answer

void anotherEyecatcher(const Misbehaviour&, FlowHeader& header)
{
    header.eyecatcher = kWrongEyecatcher;
}

void anotherMessageId(const Misbehaviour& misbehaviour, FlowHeader& header)
{
    header.messageId = numberOr(misbehaviour, kDefaultUnknownMessage);
}

void theEsiType(const Misbehaviour&, FlowHeader& header)
{
    header.requestType = "ESI";
}

void anotherRequestType(const Misbehaviour& misbehaviour, FlowHeader& header)
{
    header.requestType = misbehaviour.text.empty() ? kDefaultRequestType : misbehaviour.text;
}

void aGatewayRc(const Misbehaviour& misbehaviour, FlowHeader& header)
{
    header.gatewayRc = misbehaviour.number;
}

void twoCopies(const Misbehaviour&, AnswerBytes& answer)
{
    answer.copies = 2;
}

void theFirstBytes(const Misbehaviour& misbehaviour, AnswerBytes& answer)
{
    const auto wanted = static_cast<std::size_t>(misbehaviour.number);
    answer.bytes.resize(std::min(answer.bytes.size(), wanted));
    answer.then = Answer::Then::Drop;
}

// --------------------------------------------------------------------------------------- the table

constexpr Argument kNone{};
constexpr Argument kCode{Argument::Kind::Number, "CODE"};
constexpr Argument kType{Argument::Kind::Number, "TYPE", true};
constexpr Argument kId{Argument::Kind::Number, "ID", true};
constexpr Argument kCount{Argument::Kind::Count, "N"};
constexpr Argument kRate{Argument::Kind::Count, "BYTES"};
constexpr Argument kTime{Argument::Kind::Count, "MS"};
constexpr Argument kJitter{Argument::Kind::Jitter, "MS[~JITTER]"};
constexpr Argument kText{Argument::Kind::Text, "TEXT"};
constexpr Argument kName{Argument::Kind::Text, "NAME", true};
constexpr Argument kHex{Argument::Kind::Hex, "HEX"};

// clang-format off
constexpr std::array<FaultRow, kFaultCount> kRows = {{
    {Fault::DropAtConnect, "drop-at-connect", Moment::Connect, kNone, Instead{aDrop},
     "closes the connection once it is accepted"},
    {Fault::ResetAtConnect, "reset-at-connect", Moment::Connect, kNone, Instead{aReset},
     "resets the connection once it is accepted"},
    {Fault::Silence, "silence", Moment::Connect, kNone, Instead{silence},
     "accepts the connection, reads what comes and never sends anything"},
    {Fault::NoHandshakeAnswer, "no-handshake-answer", Moment::Handshake, kNone, Instead{nothing},
     "never answers the handshake"},
    {Fault::RefuseHandshake, "refuse-handshake", Moment::Handshake, kCode,
     Instead{anErrorOfTheConnection}, "refuses the handshake: FLOW_ERROR, message -2, the code"},
    {Fault::CloseAtHandshake, "close-at-handshake", Moment::Handshake, kNone, Instead{aCloseFlow},
     "sends a close flow at the handshake"},
    {Fault::DropAtHandshake, "drop-at-handshake", Moment::Handshake, kNone, Instead{aDrop},
     "closes the connection at the handshake"},
    {Fault::ResetAtHandshake, "reset-at-handshake", Moment::Handshake, kNone, Instead{aReset},
     "resets the connection at the handshake"},

    {Fault::NoCloseAnswer, "no-close-answer", Moment::CloseFlow, kNone, Instead{nothing},
     "never answers the client's close flow"},

    {Fault::Pieces, "pieces", Moment::Sending, kCount, InDelivery{},
     "sends every flow in pieces of N bytes"},

    {Fault::SendRate, "send-rate", Moment::Always, kRate, InDelivery{},
     "sends no more than BYTES a second"},
    {Fault::ReceiveRate, "receive-rate", Moment::Always, kRate, InDelivery{},
     "reads no more than BYTES a second"},

    {Fault::Latency, "latency", Moment::Flow, kJitter, InDelivery{},
     "sends it MS milliseconds later, and up to JITTER more or less"},
    {Fault::Stall, "stall", Moment::Flow, kCount, InDelivery{},
     "sends N bytes of it, and then nothing on the connection until it is released"},
    {Fault::Partition, "partition", Moment::Flow, kTime, InDelivery{},
     "sends and reads nothing on the connection for MS milliseconds"},

    {Fault::Hold, "hold", Moment::Request, kNone, InDelivery{},
     "keeps the answer until it is released"},
    {Fault::NoAnswer, "no-answer", Moment::Request, kNone, Instead{nothing},
     "drops the request without an answer"},
    {Fault::Reverse, "reverse", Moment::Request, kCount, InDelivery{},
     "collects N answers and sends them last one first"},
    {Fault::FlowError, "flow-error", Moment::Request, kCode, Instead{anError},
     "answers with FLOW_ERROR and the code"},
    {Fault::FlowException, "flow-exception", Moment::Request, kText, Instead{anException},
     "answers with FLOW_EXCEPTION and the text"},
    {Fault::ConnectionError, "connection-error", Moment::Request, kCode,
     Instead{anErrorOfTheConnection}, "answers with FLOW_ERROR, message -2, the code"},
    {Fault::Close, "close", Moment::Request, kNone, Instead{aCloseFlow},
     "answers with a close flow"},
    {Fault::Drop, "drop", Moment::Request, kNone, Instead{aDrop},
     "closes the connection instead of answering"},
    {Fault::Reset, "reset", Moment::Request, kNone, Instead{aReset},
     "resets the connection instead of answering"},
    {Fault::HalfClose, "half-close", Moment::Request, kNone, Instead{aHalfClose},
     "closes its side of the connection instead of answering, and reads on"},
    {Fault::Raw, "raw", Moment::Request, kHex, Instead{theBytesGiven},
     "answers with these bytes"},

    {Fault::Ping, "ping", Moment::Request, kNone, Before{aPing},
     "sends a FLOW_PING before the answer"},
    {Fault::UnknownFlow, "unknown-flow", Moment::Request, kType, Before{anUnknownFlow},
     "sends a flow of type TYPE (99) before the answer"},

    {Fault::BadEyecatcher, "bad-eyecatcher", Moment::Request, kNone, InHeader{anotherEyecatcher},
     "begins the answer with \"Etag\""},
    {Fault::UnknownMessageId, "unknown-message-id", Moment::Request, kId,
     InHeader{anotherMessageId}, "answers under the message id ID (999999)"},
    {Fault::Duplicate, "duplicate", Moment::Request, kNone, InBytes{twoCopies},
     "sends the answer twice"},
    {Fault::EsiType, "esi-type", Moment::Request, kNone, InHeader{theEsiType},
     "gives the answer the request type \"ESI\""},
    {Fault::RequestType, "request-type", Moment::Request, kName, InHeader{anotherRequestType},
     "gives the answer the request type NAME (XYZ)"},
    {Fault::GatewayRc, "gateway-rc", Moment::Request, kCode, InHeader{aGatewayRc},
     "puts the code into the header of the answer"},
    {Fault::Truncate, "truncate", Moment::Request, kCount, InBytes{theFirstBytes},
     "sends N bytes of the answer and closes the connection"},
}};
// clang-format on

// A row that is missing leaves the last one empty, and those behind it with other faults.
constexpr bool isWholeRow(std::size_t index)
{
    const FaultRow& row = kRows[index];
    return row.fault == static_cast<Fault>(index) && !row.name.empty() && !row.sentence.empty();
}

constexpr bool everyFaultHasItsRow()
{
    for (std::size_t index = 0; index < kRows.size(); ++index) {
        if (!isWholeRow(index)) return false;
    }
    return true;
}

static_assert(everyFaultHasItsRow(), "a fault has no row of its own, or its row is out of order");

} // namespace

const std::array<FaultRow, kFaultCount>& faultRows()
{
    return kRows;
}

const FaultRow& rowOf(Fault fault)
{
    return kRows.at(static_cast<std::size_t>(fault));
}

std::string formOf(const FaultRow& row)
{
    std::string form(row.name);
    if (row.argument.kind == Argument::Kind::None) return form;
    const std::string behind = "=" + std::string(row.argument.word);
    return form + (row.argument.optional ? "[" + behind + "]" : behind);
}

std::string_view headingOf(const FaultRow& row)
{
    switch (row.moment) {
    case Moment::Connect:
    case Moment::Handshake: return "while a connection opens";
    case Moment::CloseFlow: return "while it closes";
    case Moment::Sending: return "however it sends";
    case Moment::Always: return "as fast as a connection is";
    case Moment::Flow: return "on the way of any answer";
    case Moment::Request: break;
    }
    if (std::holds_alternative<Before>(row.effect)) return "before the answer";
    const bool instead = std::holds_alternative<Instead>(row.effect) ||
                         std::holds_alternative<InDelivery>(row.effect);
    return instead ? "instead of the answer to a request" : "in the answer";
}

} // namespace standin
