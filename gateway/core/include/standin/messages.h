// The records that travel between a client and a Gateway, as the Gateway sees them, and the numbers
// that they are made of. How they become bytes is wire.h's business.
//
// Everything here is a plain value; nothing is shared between threads.
#ifndef STANDIN_MESSAGES_H
#define STANDIN_MESSAGES_H

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace standin {

using Bytes = std::vector<std::uint8_t>;

// --------------------------------------------------------------------------------------- constants

constexpr std::int32_t kEyecatcher = 0x47617465; // "Gate"
constexpr std::int32_t kFlowVersion = 0x10A01000;

// Flow types. A client sends Request, Handshake and Close; a Gateway sends all but Request.
enum class FlowType : std::int32_t {
    Request = 1,
    Reply = 3,
    Error = 4,
    Handshake = 5,
    Exception = 6,
    Ping = 7,
    Close = 10,
};

constexpr std::int32_t kHandshakeMessageId = -2; // also: an error of the connection as a whole
constexpr std::int32_t kCloseMessageId = -1;

// Call types of an ECI request on the wire.
constexpr std::int32_t kCallProgram = 1;      // a program, under a transaction id
constexpr std::int32_t kCallListSystems = 9;  // the system list query
constexpr std::int32_t kCallTransaction = 12; // a program, naming a transaction program

// Extend modes of an ECI request.
constexpr std::int32_t kModeSingle = 0;   // the call is a unit of work of its own
constexpr std::int32_t kModeExtended = 1; // opens or continues a unit of work
constexpr std::int32_t kModeCommit = 2;
constexpr std::int32_t kModeBackout = 4;

// Return codes of the server (vornRc of a reply) that the stand-in gives by itself.
constexpr std::int32_t kServerOk = 0;
constexpr std::int32_t kServerAbend = -7;
constexpr std::int32_t kServerUnknownToken = -8;
constexpr std::int32_t kServerSystemError = -9;
constexpr std::int32_t kServerResourceShortage = -16;
constexpr std::int32_t kServerMoreSystems = -25;
constexpr std::int32_t kServerNoSystems = -26;

// Return codes of the Gateway (gatewayRc of a header).
constexpr std::int32_t kGatewayOk = 0;
constexpr std::int32_t kGatewaySystemError = -9;
constexpr std::int32_t kGatewayClosed = 61444;
constexpr std::int32_t kGatewayRefused = 61445;
constexpr std::int32_t kGatewayException = 61446;
constexpr std::int32_t kGatewayBackLevel = 61450;
constexpr std::int32_t kGatewayInvalidRequestType = 61451;

// Largest body that a client may announce; anything above is malformed. Only an ECI request that
// follows a handshake may be large, for the channel that it may have.
constexpr std::int32_t kLargestBody = 64 * 1024 * 1024;
constexpr std::int32_t kLargestSmallBody = 64 * 1024;

// Largest COMMAREA.
constexpr std::int32_t kLargestCommarea = 32767;

// ----------------------------------------------------------------------------------------- records

// The header of every flow: 29 bytes and the request type, 32 in all with a three-letter type. The
// two lengths on the wire are not fields here: the encoder takes them from the request type and
// from the body unless a test overrides them.
struct FlowHeader {
    std::int32_t eyecatcher = kEyecatcher;
    std::int32_t flowVersion = kFlowVersion;
    std::int32_t flowType = 0;
    std::int32_t messageId = 0;
    std::int32_t gatewayRc = 0;
    std::string requestType; // "BASE", "ECI" or "ESI"
    std::uint8_t security = 0;
    std::optional<std::int32_t>
        requestTypeLength;                  // set: goes out instead of the type's real length
    std::optional<std::int32_t> dataLength; // set: goes out instead of the body's real length
};

// One flow as it travels.
struct Flow {
    FlowHeader header;
    Bytes body;
};

// Body of the handshake, as UTF-8.
struct Handshake {
    std::string applid;
    std::string applidQualifier;
};

// Container types on the wire.
constexpr std::uint8_t kContainerBit = 1;
constexpr std::uint8_t kContainerChar = 2;

// Change codes of a container record; a request only ever has Added.
enum class Change : std::uint8_t { Added = 1, Deleted = 2, Modified = 3, Unchanged = 4 };

struct Container {
    std::string name; // up to 16 bytes, without the padding
    Change change = Change::Added;
    std::uint8_t type = kContainerBit;
    std::int32_t ccsid = 0;
    Bytes data;                             // travels for Added and Modified only
    std::optional<std::int32_t> dataLength; // set: goes out instead of the data's real length
};

// True for 1 to 16 of the characters that names of channels and containers are made of.
bool isChannelName(std::string_view name);

struct Channel {
    std::string name; // up to 16 bytes, without the padding
    std::int32_t ccsid = 0;
    std::vector<Container> containers;
    std::optional<std::int32_t> count; // set: goes out instead of the real number of containers
};

// A transaction branch identifier; format -1 means that there is none.
struct Xid {
    std::int32_t format = -1;
    Bytes globalId;
    Bytes branchQualifier;
};

// Body of an ECI request. The fields between extendMode and channel belong to program calls; a
// system list query has serverNum and the common tail only.
struct EciRequest {
    std::int32_t callType = 0;
    std::int32_t serverNum = 0;
    std::int32_t extendMode = 0;
    std::int32_t luwToken = 0;
    std::int32_t messageQualifier = 0;
    std::uint8_t callbackExists = 0;
    std::string server; // trailing blanks and NULs removed, as with the next two
    std::string userId;
    std::string password; // in clear
    std::string program;
    std::string transid; // all four characters as sent
    Bytes pyxaToken;
    std::int32_t commareaLength = 0; // size of the application's COMMAREA
    std::optional<std::int32_t> outboundLength;
    std::optional<std::int32_t> inboundLength;
    Bytes commarea; // the bytes that travelled: none with extend mode 2 or 4
    std::optional<Channel> channel;
    std::int16_t timeout = 0;
    std::uint8_t isAutoMessageQualifier = 0;
    Xid xid;
    std::int32_t correlator = 0;

    // True for modes 2 and 4, which carry no COMMAREA in either direction.
    bool endsUnitOfWork() const { return extendMode == kModeCommit || extendMode == kModeBackout; }

    // The COMMAREA as the server program sees it: commareaLength bytes, 0x00 behind those sent.
    Bytes commareaAsSeenByProgram() const;

    // How many COMMAREA bytes the client wants back: inboundLength if given, never more than
    // commareaLength, and 0 with mode 2 or 4.
    std::size_t wantedLength() const;
};

// One entry of a system list reply.
struct SystemEntry {
    std::string name;        // up to 9 bytes on the wire, padded with 0x00
    std::string description; // up to 61 bytes on the wire, padded with 0x00
};

// An answer to an ECI request: the body of a reply flow and the gatewayRc of its header.
//
// Start from EciReply::to(request) or withCommarea(request, data) and change what matters. The
// three COMMAREA fields are sent exactly as they stand, so they may contradict each other.
struct EciReply {
    std::int32_t gatewayRc = kGatewayOk; // goes into the header
    std::int32_t callType = kCallProgram;
    std::int32_t luwToken = 0;
    std::int32_t messageQualifier = 0;
    std::int32_t vornRc = kServerOk;
    std::array<char, 4> abendCode{{' ', ' ', ' ', ' '}};
    std::int32_t commareaLength = 0;
    std::optional<std::int32_t> inboundLength; // set: flag 0xFF, one 0x00 byte, the length
    Bytes commarea;
    std::optional<Channel> channel; // set: flag 0xFF and the change records
    std::int32_t serverNum = 0;     // system list replies only

    // How it is sent; nothing of this is on the wire. Misbehaviours that strike at this one answer,
    // each as parseMisbehaviour() takes it and without a selector; and how long it is kept before
    // it goes out.
    std::vector<std::string> faults;
    std::chrono::microseconds delay{0};

    // A good reply without data: call type, token and qualifier of the request, COMMAREA length 0,
    // so that the client's COMMAREA stays as it is.
    static EciReply to(const EciRequest& request);

    // As to(), with `data` as the COMMAREA, cut to the request's wantedLength(), and the request's
    // commareaLength. Shorter data is announced by inboundLength; the client fills up with 0x00.
    static EciReply withCommarea(const EciRequest& request, Bytes data);

    // As to(), with vornRc -7 and the first four characters of `code`.
    static EciReply abend(const EciRequest& request, std::string_view code);

    // As to(), with the given vornRc.
    static EciReply serverError(const EciRequest& request, std::int32_t vornRc);

    // The answer to a system list query: as many of the systems as the client has room for.
    // serverNum is the number of entries that are sent; vornRc is -25 when there are more, -26 when
    // there is none.
    static EciReply systemList(const EciRequest& request, const std::vector<SystemEntry>& systems);
};

// Call types of an ESI request.
constexpr std::int32_t kEsiVerify = 0;
constexpr std::int32_t kEsiChange = 1;

// Body of an ESI request: verify or change a password. Every copy wipes its passwords when it goes.
struct EsiRequest {
    std::int32_t callType = kEsiVerify;
    std::string userId;
    std::string currentPassword; // in clear
    std::string server;          // without trailing blanks and NULs; empty: the default one
    std::string newPassword;     // in clear; kEsiChange only

    EsiRequest() = default;
    EsiRequest(const EsiRequest&) = default;
    EsiRequest& operator=(const EsiRequest&) = default;
    ~EsiRequest();
};

// Overwrites a text that holds a secret, and empties it.
void wipe(std::string& text);

struct EsiDateTime {
    std::int32_t year = 0;
    std::int32_t month = 0;
    std::int32_t day = 0;
    std::int32_t hour = 0;
    std::int32_t minute = 0;
    std::int32_t second = 0;
    std::int32_t hundredths = 0;
};

// An answer to an ESI request. The times and the count travel only when vornRc is 0.
struct EsiReply {
    std::int32_t gatewayRc = kGatewayOk; // goes into the header
    std::int32_t vornRc = kServerOk;
    EsiDateTime lastVerified;
    EsiDateTime expiry;
    EsiDateTime lastAccessed;
    std::int32_t invalidCount = 0;
    std::optional<std::size_t> bodySize; // set: the body is cut or filled with 0x00 to this size
};

} // namespace standin

#endif
