/*
 * The security service: verifying and changing passwords, and the times that it returns.
 *
 * Locks: tableLock for slots, sendLock for one flow; never both, and neither across a wait.
 * Passwords stay where the application has them; nothing here copies or traces one.
 */
#include "clapi_esi.h"

#include <algorithm>
#include <cstring>

#include "api_call.h"
#include "clapi_diag.h"
#include "clapi_gwytok.h"
#include "clapi_impl.h"
#include "clapi_rc.h"
#include "clapi_socketcomms.h"
#include "request_steps.h"
#include "trace_points/clapi_esi.h"

/* ---- Return codes ---- */

int mapGwyRc(int rc)
{
    namespace at = tp::mapGwyRc;

    int newRc = clapiEsiRcFor(rc);
    TRACE(at::mapped, rc, newRc);
    return newRc;
}

/* ---- One request ---- */

namespace {

/* A password request on its way. */
struct PasswordRequest : OutgoingRequest {
    struct Lines {
        static constexpr const TracePoint& noLock = tp::performEsiFlow::noLock;
        static constexpr const TracePoint& notUnlocked = tp::performEsiFlow::notUnlocked;
        static constexpr const TracePoint& notArmed = tp::performEsiFlow::notArmed;
        static constexpr const TracePoint& noLockToBegin = noLock;
        static constexpr const TracePoint& notUnlockedToBegin = notUnlocked;
        static constexpr const TracePoint& noSendLock = tp::performEsiFlow::noSendLock;
        static constexpr const TracePoint& sendLockStays = tp::performEsiFlow::sendLockStays;
        static constexpr const TracePoint& noLockToFree = tp::performEsiFlow::noLockToFree;
        static constexpr const TracePoint& notUnlockedAfterFree =
            tp::performEsiFlow::notUnlockedAfterFree;
    };

    ESIRequest* body;
    ESI_DETAILS* esiDetails; // the application's; takes the times of the reply

    void prepareSlot()
    {
        slotP->purpose = PASSWORD_REQUEST;
        slotP->esiDetails = esiDetails;
    }
    int build()
    {
        clapiBuildRequestHeader(&header, messageId, ESI_REQUEST_NAME);
        return QPX_OK;
    }
    int write(Socket socketDescriptor)
    {
        return clapiFlowESIRequest(socketDescriptor, &header, body);
    }
    int conclude();
};

} // namespace

int PasswordRequest::conclude()
{
    int rc = slotP->gatewayRc != QPX_OK ? slotP->gatewayRc : mapGwyRc(slotP->vornRc);
    bool released = releaseRequestSlot(this) == QPX_OK;
    return firstFailure(rc, released ? QPX_OK : ESI_ERR_SYSTEM_ERROR);
}

static int performEsiFlow(QPX_ConnToken_t gwTok, ESIRequest* esiRequest, ESI_DETAILS* esiDetails)
{
    namespace at = tp::performEsiFlow;

    TRACE(at::entry, gwTok, esiRequest, esiDetails);
    PasswordRequest request = {};
    request.gwTok = gwTok;
    request.body = esiRequest;
    request.esiDetails = esiDetails;
    int rc = performRequest(&request);
    TRACE(at::exit, rc, clapiGetRcString(rc));
    return rc;
}

/* ---- Verifying and changing ---- */

static bool isMissing(const char* text)
{
    return text == nullptr || text[0] == '\0';
}

/* A server's name as the request carries it: cut to its field, zeros for none. */
static void setServer(ESIRequest* request, const char* server)
{
    if (server != nullptr) memcpy(request->server, server, strnlen(server, sizeof request->server));
}

static int refuseIfClosing(const _QPX_ConnToken_t* gwTok)
{
    return gwTok->closedown != 0 ? QPX_ERR_GWTOK_CLOSED : QPX_OK;
}

/* Makes a password request whose texts have been checked by check(request). The parameters are the
 * lines that the call writes. */
template <const TracePoint& nullToken, const TracePoint& performing,
          const TracePoint& notUnregistered, typename Check>
static int performCall(QPX_ConnToken_t gwTok, ESIRequest* request, const char* server,
                       ESI_DETAILS* esiDetailsPtr, Check check)
{
    if (gwTok == nullptr) {
        TRACE(nullToken, gwTok);
        return QPX_ERR_NULLGWTOK;
    }
    int rc = clapiRegisterRequest(gwTok);
    if (rc != QPX_OK) return rc;

    rc = refuseIfClosing(gwTok);
    if (rc == QPX_OK) rc = check(*request);
    if (rc == QPX_OK) {
        setServer(request, server);
        TRACE(performing, request->userID, traceText(server));
        rc = performEsiFlow(gwTok, request, esiDetailsPtr);
    }
    // Nothing of the token may be touched behind the unregistering.
    if (clapiUnregisterRequest(gwTok) != QPX_OK) {
        TRACE(notUnregistered);
        rc = firstFailure(rc, ESI_ERR_SYSTEM_ERROR);
    }
    return rc;
}

static int checkVerify(const ESIRequest& request)
{
    namespace at = tp::QPX_ESI_verifyPassword;

    if (isMissing(request.userID)) {
        TRACE(at::nullUserid, request.userID);
        return ESI_ERR_NULL_USERID;
    }
    if (isMissing(request.currentPassword)) {
        TRACE(at::nullPassword, request.currentPassword);
        return ESI_ERR_NULL_PASSWORD;
    }
    return QPX_OK;
}

int QPX_ESI_verifyPassword(QPX_ConnToken_t gwTok, const char* userid, const char* password,
                           const char* server, ESI_DETAILS* esiDetailsPtr)
{
    namespace at = tp::QPX_ESI_verifyPassword;

    ApiCall apiCall;
    int rc = clapiInit();
    TRACE(at::entry, gwTok, traceText(userid), traceText(server), esiDetailsPtr);
    ESIRequest request = {};
    request.callType = WIRE_CALL_VERIFY_PASSWORD;
    request.userID = userid;
    request.currentPassword = password;
    if (rc == QPX_OK)
        rc = performCall<at::nullToken, at::verifying, at::notUnregistered>(
            gwTok, &request, server, esiDetailsPtr, checkVerify);
    TRACE(at::exit, rc, clapiGetRcString(rc));
    return rc;
}

static int checkChange(const ESIRequest& request)
{
    namespace at = tp::QPX_ESI_changePassword;

    if (isMissing(request.userID)) {
        TRACE(at::nullUserid, request.userID);
        return ESI_ERR_NULL_USERID;
    }
    if (isMissing(request.currentPassword)) {
        TRACE(at::nullOldPassword, request.currentPassword);
        return ESI_ERR_NULL_PASSWORD;
    }
    if (isMissing(request.newPassword)) {
        TRACE(at::nullNewPassword, request.newPassword);
        return ESI_ERR_NULL_NEW_PASSWORD;
    }
    return QPX_OK;
}

int QPX_ESI_changePassword(QPX_ConnToken_t gwTok, const char* userid, const char* oldPassword,
                           const char* newPassword, const char* server, ESI_DETAILS* esiDetailsPtr)
{
    namespace at = tp::QPX_ESI_changePassword;

    ApiCall apiCall;
    int rc = clapiInit();
    TRACE(at::entry, gwTok, traceText(userid), traceText(server), esiDetailsPtr);
    ESIRequest request = {};
    request.callType = WIRE_CALL_CHANGE_PASSWORD;
    request.userID = userid;
    request.currentPassword = oldPassword;
    request.newPassword = newPassword;
    if (rc == QPX_OK)
        rc = performCall<at::nullToken, at::changing, at::notUnregistered>(
            gwTok, &request, server, esiDetailsPtr, checkChange);
    TRACE(at::exit, rc, clapiGetRcString(rc));
    return rc;
}

/* ---- Times ---- */

constexpr int MONTHS = 12;

/* Keys of the weekday formula for a common and a leap year, and the days of each month. */
static const int monthMods[MONTHS] = {0, 3, 3, 6, 1, 4, 6, 2, 5, 0, 3, 5};
static const int leapMonthMods[MONTHS] = {6, 2, 3, 6, 1, 4, 6, 2, 5, 0, 3, 5};
static const int daysInMonth[MONTHS] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};

static int isLeapYear(int year)
{
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0 ? 1 : 0;
}

/* A month that the tables have a row for; the Gateway's always are. */
static int tableMonth(int month)
{
    return std::clamp(month, 0, MONTHS - 1);
}

/* Deliberate: 2100 counts among the 2000s, and nothing is right from 2200 on. The formula has a key
 * for two centuries, and programs get the results that they have always got. */
static int weekDay(const ESI_DATETIME& time)
{
    int month = tableMonth(time.month);
    int key = isLeapYear(time.year) != 0 ? leapMonthMods[month] : monthMods[month];
    int64_t year = int64_t{time.year} - 1900;
    int century = 0;
    if (time.year > 2100) {
        year = int64_t{time.year} - 2100;
        century = 4;
    } else if (time.year > 2000) {
        year = int64_t{time.year} - 2000;
        century = 6;
    }
    return static_cast<int>((year + century + year / 4 + key + time.day) % 7);
}

/* Deliberate: 1 January is day 1, unlike elsewhere in struct tm; programs count on it. */
static int dayOfYear(const ESI_DATETIME& time)
{
    int month = tableMonth(time.month);
    int64_t days = time.day;
    for (int before = 0; before < month; ++before) days += daysInMonth[before];
    if (month > 1 && isLeapYear(time.year) != 0) days += 1;
    return static_cast<int>(days);
}

/* The time comes as a copy: the application's may lie in the storage of the result. */
static void fillTime(ESI_DATETIME time, struct tm* result)
{
    namespace at = tp::QPX_ESI_convertTime;

    *result = {};
    if (time.year == 0) return; // not set by the server
    result->tm_wday = weekDay(time);
    result->tm_yday = dayOfYear(time);
    result->tm_isdst = -1;
    result->tm_year = static_cast<int>(static_cast<unsigned int>(time.year) - 1900u);
    result->tm_mon = time.month;
    result->tm_mday = time.day;
    result->tm_hour = time.hour;
    result->tm_min = time.minute;
    result->tm_sec = time.second;
    TRACE(at::members, result->tm_year, result->tm_mon, result->tm_mday, result->tm_hour,
          result->tm_min, result->tm_sec, result->tm_wday, result->tm_yday);
}

struct tm* QPX_ESI_convertTime(const ESI_DATETIME* esiTime, struct tm* result)
{
    namespace at = tp::QPX_ESI_convertTime;

    ApiCall apiCall;
    TRACE(at::entry, esiTime, result);
    if (esiTime != nullptr && result != nullptr) fillTime(*esiTime, result);
    TRACE(at::exit);
    return result;
}
