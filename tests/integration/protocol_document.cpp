// docs/protocol.md against what calls put on the wire: its dumps are those of the calls made here,
// and its tables say what is in them.
//
// A dump that is not that of the call is shown as it should be, to be put into the document.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "eci_channel.h"
#include "qpxclient.h"
#include "qpxclient_eci.h"
#include "qpxclient_esi.h"
#include "standin/gateway.h"
#include "support/eci_parms.h"
#include "support/expect_rc.h"

using standin::Bytes;
using support::EciParms;
using support::syncCall;
using support::text;

namespace {

// ---- The calls ----------------------------------------------------------------------------------

// Answers of a server that sells things.
standin::EciReply answerPrice(const standin::EciRequest& request)
{
    return standin::EciReply::withCommarea(request, text("12.50"));
}

standin::EciReply answerOrder(const standin::EciRequest& request)
{
    standin::EciReply reply = standin::EciReply::to(request);
    reply.channel = request.channel;
    std::vector<standin::Container>& containers = reply.channel->containers;
    for (standin::Container& container : containers) {
        if (container.name == "STATE") {
            container.change = standin::Change::Modified;
            container.data = text("done");
        } else if (container.name == "DRAFT") {
            container.change = standin::Change::Deleted;
        } else {
            container.change = standin::Change::Unchanged;
        }
    }
    standin::Container invoice;
    invoice.name = "INVOICE";
    invoice.type = standin::kContainerChar;
    invoice.ccsid = 819;
    invoice.data = text("37.50");
    containers.push_back(invoice);
    return reply;
}

standin::EsiReply answerUser(const standin::EsiRequest& request)
{
    standin::EsiReply reply;
    if (request.newPassword == "Blue") reply.vornRc = -107;
    reply.lastVerified = {2026, 1, 30, 17, 2, 11, 25};
    reply.expiry = {2026, 3, 31, 23, 59, 59, 0};
    reply.lastAccessed = {2026, 1, 30, 17, 2, 12, 0};
    reply.invalidCount = 1;
    return reply;
}

Bytes refuse(const standin::ReceivedRequest& request)
{
    return standin::encodeErrorFlow(request.header.messageId, standin::kGatewayRefused,
                                    request.header.requestType);
}

Bytes giveUp(const standin::ReceivedRequest& request)
{
    return standin::encodeExceptionFlow(request.header.messageId, "out of order",
                                        request.header.requestType);
}

standin::GatewayOptions knownSystems()
{
    standin::GatewayOptions options;
    options.systems = {{"VORNA", "Production"}, {"VORNB", "Test"}};
    return options;
}

EciParms priceCall()
{
    EciParms parms = syncCall("PRICE", text("1001 3      "));
    parms.withUser("FRED", "Blue7sky");
    std::memcpy(parms.record.eci_system_name, "VORNA   ", 8);
    parms.record.commarea_outbound_length = 6;
    parms.record.commarea_inbound_length = 8;
    parms.record.eci_timeout = 30;
    return parms;
}

void callWithChannel(QPX_ConnToken_t token)
{
    ECI_ChannelToken_t channel = nullptr;
    char state[] = "new";
    char item[] = "\x03\xE9";
    ASSERT_RC(0, ECI_createChannel("ORDER", &channel));
    ASSERT_RC(0, ECI_createContainer(channel, "DRAFT", ECI_BIT, 0, item, 0));
    ASSERT_RC(0, ECI_createContainer(channel, "STATE", ECI_CHAR, 819, state, 3));
    ASSERT_RC(0, ECI_createContainer(channel, "ITEM", ECI_BIT, 0, item, 2));
    EciParms parms = syncCall("SELL", {});
    parms.withExtendMode(ECI_EXTENDED);
    parms.record.channel = channel;
    EXPECT_RC(0, QPX_ECI_Execute_Channel(token, &parms.record));
    EXPECT_RC(0, ECI_deleteChannel(&channel));
}

void askForSystems(QPX_ConnToken_t token)
{
    unsigned short count = 4;
    QPX_listSystem_t systems[4];
    EXPECT_RC(0, QPX_listSystems(token, &count, systems));
}

// Flow after flow of what has gone one way.
std::vector<Bytes> flowsIn(Bytes stream)
{
    std::vector<Bytes> flows;
    while (auto first = standin::splitFlow(stream)) {
        auto end = stream.begin() + static_cast<std::ptrdiff_t>(first->size);
        flows.emplace_back(stream.begin(), end);
        stream.erase(stream.begin(), end);
    }
    EXPECT_TRUE(stream.empty());
    return flows;
}

using Flows = std::map<std::string, Bytes>;

void name(const std::vector<std::string>& names, const std::vector<Bytes>& found, Flows* flows)
{
    ASSERT_EQ(names.size(), found.size());
    for (std::size_t i = 0; i < names.size(); ++i) (*flows)[names[i]] = found[i];
}

// Every flow of the document, made by calls of an application. They are the first of the process,
// which is why their correlators begin with 1.
Flows flowsOfCalls()
{
    setenv("LC_ALL", "C", 1); // whose code page the channel has
    standin::Gateway gateway(knownSystems());
    gateway.setReply("PRICE", answerPrice);
    gateway.setReply("SELL", answerOrder);
    gateway.setEsiReply(answerUser);
    char host[] = "127.0.0.1";
    char applid[] = "TELLER1";
    char qualifier[] = "BRANCH17";
    QPX_ConnToken_t token = nullptr;
    EXPECT_RC(0, QPX_openRemoteGatewayConnectionApplid(host, gateway.port(), &token, 30, applid,
                                                       qualifier));

    EciParms price = priceCall();
    EXPECT_RC(0, QPX_ECI_Execute(token, &price.record));
    callWithChannel(token);
    ESI_DETAILS details;
    EXPECT_RC(0, QPX_ESI_verifyPassword(token, "FRED", "Blue7sky", "VORNA", &details));
    EXPECT_RC(ESI_ERR_PASSWORD_REJECTED,
              QPX_ESI_changePassword(token, "FRED", "Blue7sky", "Blue", nullptr, &details));
    askForSystems(token);
    gateway.setRawReply(refuse);
    EXPECT_RC(QPX_ERR_WORK_WAS_REFUSED, QPX_ECI_Execute(token, &price.record));
    gateway.setRawReply(giveUp);
    EXPECT_RC(QPX_ERR_GATEWAY_EXCEPTION, QPX_ECI_Execute(token, &price.record));
    EXPECT_TRUE(gateway.sendPing());
    EXPECT_RC(0, QPX_closeGatewayConnection(&token));
    EXPECT_TRUE(gateway.awaitClosed());

    Flows flows;
    name({"Handshake", "Program call with a COMMAREA", "Program call with a channel",
          "Verify a password", "Change a password", "List systems", "a", "b", "Close"},
         flowsIn(gateway.received()), &flows);
    name({"Handshake accepted", "Reply with a COMMAREA", "Reply with a channel",
          "Reply to a password", "Password refused", "Reply with systems", "Error", "Exception",
          "Ping", "Close answered"},
         flowsIn(gateway.sent()), &flows);
    flows.erase("a");
    flows.erase("b");
    return flows;
}

// ---- The document -------------------------------------------------------------------------------

struct Row {
    std::size_t offset;
    std::size_t length;
    std::string type;
    std::string value;
};

// What the document says under one heading.
struct Section {
    std::vector<Row> rows; // of the body
    std::string dump;
};

std::vector<std::string> cellsOf(const std::string& line)
{
    std::vector<std::string> cells;
    std::istringstream text(line.substr(1));
    for (std::string cell; std::getline(text, cell, '|');) {
        std::size_t first = cell.find_first_not_of(' ');
        std::size_t last = cell.find_last_not_of(' ');
        cells.push_back(first == std::string::npos ? "" : cell.substr(first, last - first + 1));
    }
    return cells;
}

std::string unquoted(const std::string& cell)
{
    bool quoted = cell.size() >= 2 && cell.front() == '`' && cell.back() == '`';
    return quoted ? cell.substr(1, cell.size() - 2) : cell;
}

bool isRowOfFields(const std::string& line)
{
    return line.size() > 2 && line[0] == '|' && std::isdigit(static_cast<unsigned char>(line[2]));
}

std::map<std::string, Section> sectionsOf(const char* path)
{
    std::map<std::string, Section> sections;
    std::ifstream document(path);
    EXPECT_TRUE(document.good()) << path;
    std::string heading;
    bool inDump = false;
    for (std::string line; std::getline(document, line);) {
        if (line.rfind("### ", 0) == 0) heading = line.substr(4);
        if (line.rfind("## ", 0) == 0) heading.clear();
        if (heading.empty()) continue;
        if (line.rfind("```", 0) == 0) {
            inDump = !inDump;
        } else if (inDump) {
            sections[heading].dump += line + "\n";
        } else if (isRowOfFields(line)) {
            std::vector<std::string> cells = cellsOf(line);
            sections[heading].rows.push_back({std::stoul(cells.at(0)), std::stoul(cells.at(1)),
                                              cells.at(2), unquoted(cells.at(3))});
        }
    }
    return sections;
}

// ---- One against the other ----------------------------------------------------------------------

// 16 bytes to a line: where they stand in the flow, their digits, their letters.
std::string dumpOf(const Bytes& flow)
{
    std::string dump;
    for (std::size_t line = 0; line < flow.size(); line += 16) {
        std::string digits;
        std::string letters;
        for (std::size_t i = line; i < std::min(line + 16, flow.size()); ++i) {
            digits += " " + standin::toHex({flow[i]});
            letters += std::isgraph(flow[i]) != 0 ? static_cast<char>(flow[i]) : '.';
        }
        digits.resize(48, ' ');
        auto high = static_cast<unsigned char>(line / 256);
        auto low = static_cast<unsigned char>(line % 256);
        dump += standin::toHex({high}) + standin::toHex({low}) + " " + digits + "  " + letters +
                "\n";
    }
    return dump;
}

long long numberIn(const Bytes& field)
{
    long long number = (field.at(0) & 0x80U) != 0 ? -1 : 0;
    for (unsigned char byte : field) number = number * 256 + byte;
    return number;
}

// What a field says, in the form of the document.
std::string valueOf(const std::string& type, const Bytes& field)
{
    if (type == "int" || type == "short") return std::to_string(numberIn(field));
    if (type == "bytes" || type == "byte") return standin::toHex(field);
    std::string characters(field.begin(), field.end());
    std::size_t last = characters.find_last_not_of(std::string(" \0", 2));
    return type == "text" ? characters.substr(0, last + 1) : "no type \"" + type + "\"";
}

std::size_t sizeOf(const std::string& type, std::size_t otherwise)
{
    if (type == "int") return 4;
    if (type == "short") return 2;
    return type == "byte" ? 1 : otherwise;
}

// The rows lie end to end, cover the bytes, and say what is in them.
void expectRows(const std::vector<Row>& rows, const Bytes& bytes)
{
    std::size_t at = 0;
    for (const Row& row : rows) {
        SCOPED_TRACE("offset " + std::to_string(row.offset));
        ASSERT_EQ(at, row.offset);
        ASSERT_EQ(sizeOf(row.type, row.length), row.length);
        ASSERT_LE(row.offset + row.length, bytes.size());
        auto begin = bytes.begin() + static_cast<std::ptrdiff_t>(at);
        Bytes field(begin, begin + static_cast<std::ptrdiff_t>(row.length));
        EXPECT_EQ(row.value, valueOf(row.type, field));
        at += row.length;
    }
    EXPECT_EQ(bytes.size(), at);
}

} // namespace

TEST(ProtocolDocument, ShowsWhatCallsPutOnTheWire)
{
    std::map<std::string, Section> sections = sectionsOf(QPX_PROTOCOL);
    for (const auto& [heading, flow] : flowsOfCalls()) {
        EXPECT_TRUE(dumpOf(flow) == sections[heading].dump)
            << "the dump under \"" << heading << "\" is not\n"
            << dumpOf(flow);
    }
}

TEST(ProtocolDocument, SaysWhatIsInEachFieldOfABody)
{
    std::map<std::string, Section> sections = sectionsOf(QPX_PROTOCOL);
    for (const auto& [heading, flow] : flowsOfCalls()) {
        SCOPED_TRACE(heading);
        expectRows(sections[heading].rows, standin::splitFlow(flow)->flow.body);
    }
}

TEST(ProtocolDocument, SaysWhatIsInEachFieldOfAHeader)
{
    Bytes flow = flowsOfCalls().at("Program call with a COMMAREA");
    flow.resize(standin::splitFlow(flow)->headerSize);
    expectRows(sectionsOf(QPX_PROTOCOL)["The header"].rows, flow);
}

// One row for each flow: its heading, flow type, message id, return code, request type and length.
TEST(ProtocolDocument, SaysWhatTheHeaderOfEachFlowHas)
{
    std::map<std::string, std::string> found;
    std::ifstream document(QPX_PROTOCOL);
    for (std::string line; std::getline(document, line);) {
        std::smatch name;
        if (std::regex_match(line, name, std::regex(R"(\| \[(.*)\]\(#.*\) \| (.*) \|)")))
            found[name[1]] = name[2];
    }
    for (const auto& [heading, flow] : flowsOfCalls()) {
        standin::FlowHeader header = standin::splitFlow(flow)->flow.header;
        std::ostringstream row;
        row << header.flowType << " | " << header.messageId << " | " << header.gatewayRc << " | `"
            << header.requestType << "` | " << *header.dataLength;
        EXPECT_NE(std::string::npos, found[heading].find(row.str()))
            << heading << ": " << row.str();
    }
}
