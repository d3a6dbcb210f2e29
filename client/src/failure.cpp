#include "failure.h"

#include <algorithm>
#include <cstring>

#include <nlohmann/json.hpp>

#include "codes_table.h"
#include "qpxclient_eci.h"
#include "qpxclient_esi.h"

namespace qpx {

namespace {

// Headings of the page of return codes, the likeliest first.
std::vector<const char*> headingsFor(Phase phase)
{
    switch (phase) {
    case Phase::Open: return {"While a connection opens", "Found by the checks"};
    case Phase::Close: return {"When a connection ends"};
    case Phase::Call:
        return {"From the Gateway and the server", "When a connection ends",
                "Channels and containers"};
    case Phase::Channel: return {"Channels and containers"};
    case Phase::Password: return {"Passwords", "When a connection ends"};
    case Phase::Systems: return {"The list of systems", "When a connection ends"};
    }
    return {};
}

const CodeRow* rowFor(Phase phase, int rc)
{
    for (const char* const heading : headingsFor(phase)) {
        for (const CodeRow& row : kCodes)
            if (row.value == rc && std::strcmp(row.when, heading) == 0) return &row;
    }
    const auto found = std::find_if(kCodes.begin(), kCodes.end(),
                                    [rc](const CodeRow& row) { return row.value == rc; });
    return found == kCodes.end() ? nullptr : &*found;
}

std::string textOf(Phase phase, const std::string& step, int rc, const std::string& abendCode)
{
    std::string text = step + ": " + nameAndNumber(rc);
    if (!abendCode.empty()) text += ", abend code " + abendCode;
    if (const CodeRow* const row = rowFor(phase, rc)) {
        text += std::string(": ") + row->meaning;
        if (row->advice[0] != '\0') text += std::string("\n  ") + row->advice;
    }
    return text;
}

bool isOneOf(int rc, std::initializer_list<int> codes)
{
    return std::find(codes.begin(), codes.end(), rc) != codes.end();
}

} // namespace

std::string nameOf(int rc)
{
    char name[QPX_RC_STRING_SIZE];
    return QPX_getRcString(rc, name);
}

std::string nameAndNumber(int rc)
{
    return nameOf(rc) + " (" + std::to_string(rc) + ")";
}

ExitCode exitCodeOf(Phase phase, int rc)
{
    if (rc == QPX_OK) return kDone;
    if (isOneOf(rc, {QPX_ERR_BADPORT, QPX_ERR_INVALIDTIMEOUTPARM, QPX_ERR_APPLIDTOOLONG,
                     QPX_ERR_NULLADDRESS, ECI_ERR_INVALID_NAME, ECI_ERR_CONTAINER_EXISTS,
                     ESI_ERR_NULL_USERID, ESI_ERR_NULL_PASSWORD, ESI_ERR_NULL_NEW_PASSWORD}))
        return kUsage;
    if (isOneOf(rc, {QPX_ERR_MALLOCFAIL, ECI_ERR_INVALID_DATA_LENGTH})) return kFailed;
    if (isOneOf(rc, {QPX_ERR_LOSTGWCON, QPX_ERR_GWTOK_CLOSED, QPX_ERR_GATEWAY_CLOSED,
                     QPX_ERR_CONNECTFAILED, QPX_ERR_BADHOST, QPX_ERR_CONNECTTIMEOUT}))
        return kNoConnection;
    if (phase == Phase::Open) return rc == QPX_ERR_SYSTEM_ERROR ? kNoConnection : kGateway;
    if (rc > 0) return kGateway;
    if (rc == ECI_ERR_TRANSACTION_ABEND) return kAbend;
    if (isOneOf(rc, {ECI_ERR_SECURITY_ERROR, ESI_ERR_USERID_INVALID, ESI_ERR_PASSWORD_INVALID,
                     ESI_ERR_PASSWORD_EXPIRED, ESI_ERR_SECURITY_ERROR, ESI_ERR_PASSWORD_REJECTED}))
        return kRefused;
    if (phase == Phase::Channel) return kFailed;
    return kServer;
}

Json Failure::json() const
{
    return {{"message", what()}};
}

CallFailure::CallFailure(Phase phase, const std::string& step, int rc, const std::string& abendCode)
    : Failure(exitCodeOf(phase, rc), textOf(phase, step, rc, abendCode)), phase_(phase),
      step_(step), rc_(rc), abendCode_(abendCode)
{
}

Json CallFailure::json() const
{
    Json error = {{"step", step_}, {"code", rc_}, {"name", nameOf(rc_)}};
    if (!abendCode_.empty()) error["abend"] = abendCode_;
    if (const CodeRow* const row = rowFor(phase_, rc_)) {
        error["meaning"] = row->meaning;
        error["advice"] = row->advice;
    }
    return error;
}

} // namespace qpx
