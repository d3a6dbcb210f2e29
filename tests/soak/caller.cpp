#include "caller.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <vector>

#include "qpxclient_esi.h"
#include "support/eci_parms.h"

namespace soak {

using support::EciParms;
using support::text;

const char* const didNames[didCount] = {"opens",
                                        "failed opens",
                                        "calls",
                                        "shared calls",
                                        "abends",
                                        "async",
                                        "collected",
                                        "channels",
                                        "async channels",
                                        "units",
                                        "backouts",
                                        "deposits",
                                        "passwords verified",
                                        "passwords changed",
                                        "lists",
                                        "closes",
                                        "purges",
                                        "lost"};

constexpr int accounts = 12;
constexpr int mostOutstanding = 20;

void Shared::did(Did what)
{
    counts[static_cast<std::size_t>(what)] += 1;
    if (++calls != wanted) return;
    std::lock_guard<std::mutex> guard(mutex);
    reached.notify_all();
}

bool Shared::awaitCalls(long number, std::chrono::steady_clock::time_point limit)
{
    wanted = number;
    std::unique_lock<std::mutex> lock(mutex);
    return reached.wait_until(lock, limit, [&] { return calls >= number; });
}

std::string Shared::text() const
{
    std::string all;
    for (std::size_t what = 0; what < didCount; ++what)
        all += (what == 0 ? "" : ", ") + std::to_string(counts[what]) + " " + didNames[what];
    return all;
}

// An open that fails depends on when the daemon ends.
bool Shared::hasDoneEverything() const
{
    for (std::size_t what = 0; what < didCount; ++what)
        if (counts[what] == 0 && what != static_cast<std::size_t>(Did::OpenThatFails)) return false;
    return true;
}

void Shared::problem(int thread, const std::string& what)
{
    if (++problems <= 50) {
        std::printf("thread %d: %s\n", thread, what.c_str());
        std::fflush(stdout);
    }
}

static std::string nameOf(int rc)
{
    char name[QPX_RC_STRING_SIZE];
    return std::string(QPX_getRcString(rc, name)) + " (" + std::to_string(rc) + ")";
}

// What a call gets when the daemon ends under it.
static bool saysEnded(int rc)
{
    return rc == QPX_ERR_LOSTGWCON || rc == QPX_ERR_GATEWAY_CLOSED;
}

// The number of a call in the record's field that version 6 does not look at: it comes back with
// the request's record, whatever its outcome.
static void putNumber(QPX_ECI_PARMS* record, int number)
{
    char digits[sizeof record->eci_userid + 1];
    std::snprintf(digits, sizeof digits, "%016d", number);
    std::memcpy(record->eci_userid, digits, sizeof record->eci_userid);
}

static int numberIn(const QPX_ECI_PARMS& record)
{
    return std::atoi(std::string(record.eci_userid, sizeof record.eci_userid).c_str());
}

// Data that no other call has, of a length that the number decides.
static std::string dataFor(int number)
{
    std::string data = "number " + std::to_string(number) + " ";
    std::size_t length = data.size() + static_cast<std::size_t>(number * 37 % 1500);
    if (number % 97 == 0) length = 32000;
    while (data.size() < length)
        data += data.substr(0, std::min(data.size(), length - data.size()));
    return data;
}

Caller::Caller(Shared& shared, int number, unsigned seed)
    : shared_(shared), number_(number), random_(seed), user_("SOAK" + std::to_string(number)),
      password_("First1" + user_)
{
}

bool Caller::isIn(int rc, std::initializer_list<int> codes) const
{
    return std::find(codes.begin(), codes.end(), rc) != codes.end();
}

// Whether a call has succeeded. The end of the connection is no problem, anything else is.
bool Caller::mayGoOn(int rc, const char* what)
{
    if (rc == QPX_OK) return true;
    if (saysEnded(rc))
        lost_ = true;
    else
        problem(std::string(what) + " has got " + nameOf(rc));
    return false;
}

// ---- Connections ----

void Caller::run()
{
    while (!shared_.stopping) {
        int life = shared_.keeper.life();
        if (open()) {
            work();
            leave();
        } else {
            shared_.keeper.awaitLifeBehind(life, shared_.stopping);
        }
    }
}

bool Caller::open()
{
    char host[] = "127.0.0.1";
    char applid[] = "SOAK";
    lost_ = false;
    int rc = QPX_openRemoteGatewayConnectionApplid(host, shared_.keeper.port(), &token_, 60, applid,
                                                   applid);
    shared_.did(rc == QPX_OK ? Did::Open : Did::OpenThatFails);
    if (rc == QPX_OK) return true;
    // The daemon ends, or has ended, or begins.
    if (!saysEnded(rc) && !isIn(rc, {QPX_ERR_CONNECTFAILED, QPX_ERR_SYSTEM_ERROR}))
        problem("an open has got " + nameOf(rc));
    return false;
}

void Caller::work()
{
    for (int left = 200 + chance(400); left > 0 && !lost_ && !shared_.stopping; --left) oneThing();
    if (lost_) shared_.did(Did::Lost);
}

void Caller::leave()
{
    collectTheRest();
    if (chance(3) == 0) {
        shared_.did(Did::Purge);
        int rc = QPX_purgeGatewayConnection(&token_, chance(2));
        if (rc != QPX_OK && !isIn(rc, {QPX_ERR_LOSTGWCON}))
            problem("a purge has got " + nameOf(rc));
    } else {
        shared_.did(Did::Close);
        int rc = QPX_closeGatewayConnection(&token_);
        if (rc != QPX_OK && !isIn(rc, {QPX_ERR_LOSTGWCON}))
            problem("a close has got " + nameOf(rc));
    }
    token_ = nullptr;
}

void Caller::oneThing()
{
    int which = chance(1000);
    if (which < 300) return call(token_);
    if (which < 400) return callShared();
    if (which < 430) return callThatAbends();
    if (which < 580) return beginAsync();
    if (which < 700) return collect(chance(2) == 0);
    if (which < 800) return callChannel(false);
    if (which < 850) return callChannel(true);
    if (which < 930) return transfer();
    if (which < 970) return deposit();
    if (which < 990) return list();
    if (which < 997) return verifyPassword();
    changePassword();
}

// ---- Calls with a COMMAREA ----

void Caller::call(QPX_ConnToken_t token)
{
    static const int versions[] = {ECI_VERSION_3, ECI_VERSION_4, ECI_VERSION_5, ECI_VERSION_6};

    int number = shared_.books.next(Asked);
    std::string data = dataFor(number);
    EciParms parms = support::syncCall("ECHO", text(data));
    parms.withVersion(versions[chance(4)]);
    shared_.did(token == token_ ? Did::Call : Did::SharedCall);
    int rc = QPX_ECI_Execute(token, &parms.record);
    shared_.books.change(number, Asked, Answered);
    if (token == token_ ? !mayGoOn(rc, "a call") : rc != QPX_OK) {
        if (!saysEnded(rc)) problem("a shared call has got " + nameOf(rc));
        return;
    }
    if (support::toText(parms.commarea()) != data)
        problem("call " + std::to_string(number) + " has got the data of another");
}

// On the connection of all threads. Who finds that it has ended opens it anew, once.
void Caller::callShared()
{
    SharedConnection& shared = shared_.shared;
    int life = shared_.keeper.life();
    {
        std::shared_lock<std::shared_mutex> users(shared.mutex);
        if (shared.token != nullptr && shared.life == life) return call(shared.token);
    }
    openShared(life);
}

void Caller::openShared(int life)
{
    SharedConnection& shared = shared_.shared;
    char host[] = "127.0.0.1";

    std::unique_lock<std::shared_mutex> alone(shared.mutex);
    if (shared.token != nullptr && shared.life == life) return;
    if (shared.token != nullptr) QPX_purgeGatewayConnection(&shared.token, 0);
    shared.token = nullptr;
    shared.life = life;
    int rc = QPX_openRemoteGatewayConnection(host, shared_.keeper.port(), &shared.token, 60);
    shared_.did(rc == QPX_OK ? Did::Open : Did::OpenThatFails);
}

void Caller::callThatAbends()
{
    int number = shared_.books.next(Asked);
    char code[16];
    std::snprintf(code, sizeof code, "%04d", number % 10000);
    EciParms parms = support::syncCall("ABEND", text(std::string(code)));
    shared_.did(Did::Abend);
    int rc = QPX_ECI_Execute(token_, &parms.record);
    shared_.books.change(number, Asked, Answered);
    if (rc != ECI_ERR_TRANSACTION_ABEND) {
        if (mayGoOn(rc, "a call that abends")) problem("a call that abends has got 0");
        return;
    }
    if (std::memcmp(parms.record.eci_abend_code, code, 4) != 0)
        problem("call " + std::to_string(number) + " has got the abend of another");
}

// ---- Asynchronous calls ----

void Caller::beginAsync()
{
    if (outstanding_.size() >= mostOutstanding) return collect(true);
    int number = shared_.books.next(Asked);
    EciParms parms = support::asyncCall("ECHO", text(dataFor(number)));
    putNumber(&parms.record, number);
    shared_.did(Did::Async);
    int rc = QPX_ECI_Execute(token_, &parms.record);
    if (!mayGoOn(rc, "an asynchronous call")) {
        shared_.books.change(number, Asked, Answered);
        return;
    }
    noteOutstanding(parms.record.eci_message_qualifier, number);
}

void Caller::noteOutstanding(int qualifier, int number)
{
    if (!outstanding_.emplace(qualifier, number).second)
        problem("two asynchronous calls have one qualifier");
}

void Caller::collect(bool waits)
{
    if (outstanding_.empty()) return;
    if (chance(2) == 0) {
        collectOne(waits ? ECI_GET_REPLY_WAIT : ECI_GET_REPLY, 0);
        return;
    }
    auto which = std::next(outstanding_.begin(), chance(static_cast<int>(outstanding_.size())));
    collectOne(waits ? ECI_GET_SPECIFIC_REPLY_WAIT : ECI_GET_SPECIFIC_REPLY, which->first);
}

// Collects the outcome of a call, if there is one. Whose it is shows in the record.
bool Caller::collectOne(int callType, int qualifier)
{
    EciParms parms = support::eciCall(callType, "", support::filled(32700));
    parms.record.eci_message_qualifier = qualifier;
    int rc = QPX_ECI_Execute(token_, &parms.record);
    int number = numberIn(parms.record);
    if (number == 0) {
        if (rc != ECI_ERR_NO_REPLY) mayGoOn(rc, "a collecting call");
        if (rc == QPX_OK) problem("a reply says nothing of its request");
        return false;
    }
    shared_.did(Did::Collect);
    if (!shared_.books.change(number, Asked, Answered))
        problem("reply " + std::to_string(number) + " has come twice");
    auto found = std::find_if(outstanding_.begin(), outstanding_.end(),
                              [&](const auto& call) { return call.second == number; });
    if (found == outstanding_.end()) {
        problem("reply " + std::to_string(number) + " is not one of this connection");
        return true;
    }
    if (qualifier != 0 && found->first != qualifier)
        problem("reply " + std::to_string(number) + " is not the one that was asked for");
    outstanding_.erase(found);

    auto channel = channels_.find(number);
    bool isGood = mayGoOn(rc, "an asynchronous call");
    if (channel != channels_.end()) {
        if (isGood) checkChannel(channel->second, number);
        ECI_deleteChannel(&channel->second);
        channels_.erase(channel);
    } else if (isGood) {
        std::string data = dataFor(number);
        auto length = static_cast<std::size_t>(parms.record.commarea_inbound_length);
        if (support::toText(parms.commarea()).substr(0, length) != data)
            problem("reply " + std::to_string(number) + " has the data of another");
    }
    return true;
}

// Whatever becomes of a connection, each call on it has one outcome.
void Caller::collectTheRest()
{
    while (!outstanding_.empty())
        if (!collectOne(lost_ ? ECI_GET_REPLY : ECI_GET_REPLY_WAIT, 0) && lost_) break;
    // The end of the connection has been seen by a call first: now its outcomes are there.
    while (!outstanding_.empty() && collectOne(ECI_GET_REPLY_WAIT, 0)) continue;
    for (const auto& call : outstanding_)
        problem("reply " + std::to_string(call.second) + " has not come");
    outstanding_.clear();
    for (auto& channel : channels_) ECI_deleteChannel(&channel.second);
    channels_.clear();
}

// ---- Channels ----

// The server replaces one container, adds one and deletes one.
void Caller::callChannel(bool isAsync)
{
    if (isAsync && outstanding_.size() >= mostOutstanding) return collect(true);
    int number = shared_.books.next(Asked);
    std::string data = dataFor(number);
    std::string edits = "replace DATA reply " + std::to_string(number) + "\nadd NEW char 819 new " +
                        std::to_string(number) + "\ndelete OLD\n";
    ECI_ChannelToken_t channel = nullptr;
    int rc = ECI_createChannel("SOAK", &channel);
    if (rc == ECI_NO_ERROR)
        rc = ECI_createContainer(channel, "EDITS", ECI_CHAR, 819, edits.data(), edits.size());
    if (rc == ECI_NO_ERROR)
        rc = ECI_createContainer(channel, "DATA", ECI_CHAR, 819, data.data(), data.size());
    if (rc == ECI_NO_ERROR)
        rc = ECI_createContainer(channel, "OLD", ECI_BIT, 0, data.data(), data.size() / 2);
    if (rc != ECI_NO_ERROR) problem("a channel has got " + nameOf(rc));

    EciParms parms = support::eciCall(isAsync ? ECI_ASYNC : ECI_SYNC, "CHANEDIT", {});
    parms.record.channel = channel;
    putNumber(&parms.record, number);
    shared_.did(isAsync ? Did::AsyncChannel : Did::Channel);
    rc = QPX_ECI_Execute_Channel(token_, &parms.record);
    bool isGood = mayGoOn(rc, "a call with a channel");
    if (isGood && isAsync) {
        channels_[number] = channel;
        noteOutstanding(parms.record.eci_message_qualifier, number);
        return;
    }
    shared_.books.change(number, Asked, Answered);
    if (isGood) checkChannel(channel, number);
    ECI_deleteChannel(&channel);
}

void Caller::checkChannel(ECI_ChannelToken_t channel, int number)
{
    auto dataOf = [&](const char* name) {
        char buffer[64] = {};
        std::size_t length = 0;
        int rc = ECI_getContainerData(channel, name, buffer, sizeof buffer, 0, &length);
        return rc == ECI_NO_ERROR ? std::string(buffer, length) : nameOf(rc);
    };
    ECI_CONTAINER_INFO info;
    if (dataOf("DATA") != "reply " + std::to_string(number) ||
        dataOf("NEW") != "new " + std::to_string(number) ||
        ECI_getContainerInfo(channel, "OLD", &info) != ECI_ERR_CONTAINER_NOTFOUND)
        problem("channel " + std::to_string(number) + " has come back as \"" + dataOf("DATA") +
                "\" and \"" + dataOf("NEW") + "\"");
}

// ---- The ledger ----

static std::string accountOf(int which)
{
    char name[16];
    std::snprintf(name, sizeof name, "ACC%05d", which + 1);
    return name;
}

// One posting; *result is what the ledger says of it.
int Caller::post(char function, const std::string& account, int amount, int mode, int* luwToken,
                 std::string* result)
{
    char digits[13];
    std::snprintf(digits, sizeof digits, "%012d", amount);
    std::string record(1, function);
    record += "  " + account + digits;
    record.resize(80, ' ');
    EciParms parms = support::syncCall("LEDGER", text(record));
    parms.withExtendMode(mode, *luwToken);
    int rc = QPX_ECI_Execute(token_, &parms.record);
    *luwToken = parms.record.eci_luw_token;
    *result = support::toText(parms.commarea()).substr(1, 2);
    return rc;
}

int Caller::endUnit(int mode, int luwToken)
{
    EciParms parms = support::syncCall("LEDGER");
    parms.withExtendMode(mode, luwToken);
    return QPX_ECI_Execute(token_, &parms.record);
}

// What is told when the ledger is another writer's at the moment: the unit of work is backed out.
static bool saysBusy(int rc)
{
    return rc == ECI_ERR_RESOURCE_SHORTAGE || rc == ECI_ERR_ROLLEDBACK;
}

// A debit and a credit in one unit of work, whose amount is the number.
void Caller::transfer()
{
    int number = shared_.books.next(TransferBegun);
    int from = chance(accounts);
    std::string result;
    int luwToken = 0;
    shared_.did(Did::Unit);

    Entry outcome = TransferRefused;
    int rc = post('D', accountOf(from), number, ECI_EXTENDED, &luwToken, &result);
    bool isGood = rc == ECI_NO_ERROR && result == "00";
    if (isGood) {
        int to = (from + 1 + chance(accounts - 1)) % accounts;
        rc = post('C', accountOf(to), number, ECI_EXTENDED, &luwToken, &result);
        isGood = rc == ECI_NO_ERROR && result == "00";
    }
    if (isGood && chance(8) != 0) {
        rc = endUnit(ECI_COMMIT, luwToken);
        if (rc == ECI_NO_ERROR)
            outcome = TransferDone;
        else if (!saysBusy(rc))
            outcome = TransferInDoubt;
    } else if (rc == ECI_NO_ERROR) {
        shared_.did(Did::Backout);
        rc = endUnit(ECI_BACKOUT, luwToken);
    }
    if (!shared_.books.change(number, TransferBegun, outcome))
        problem("transfer " + std::to_string(number) + " has had an outcome before");
    if (!saysBusy(rc)) mayGoOn(rc, "a transfer");
}

void Caller::deposit()
{
    int number = shared_.books.next(DepositBegun);
    std::string result;
    int luwToken = 0;
    shared_.did(Did::Deposit);

    int rc = post('C', accountOf(chance(accounts)), number, ECI_NO_EXTEND, &luwToken, &result);
    Entry outcome = DepositInDoubt;
    if (saysBusy(rc))
        outcome = DepositRefused;
    else if (rc == ECI_NO_ERROR)
        outcome = result == "00" ? DepositDone : DepositRefused;
    if (!shared_.books.change(number, DepositBegun, outcome))
        problem("deposit " + std::to_string(number) + " has had an outcome before");
    if (!saysBusy(rc)) mayGoOn(rc, "a deposit");
}

// ---- Passwords and systems ----

// A change whose answer has not come has been made or not; the next verification tells.
void Caller::verifyPassword()
{
    ESI_DETAILS details = {};
    shared_.did(Did::Verify);
    int rc = QPX_ESI_verifyPassword(token_, user_.c_str(), password_.c_str(), nullptr, &details);
    if (rc == ESI_ERR_PASSWORD_INVALID && !otherPassword_.empty()) {
        std::swap(password_, otherPassword_);
        rc = QPX_ESI_verifyPassword(token_, user_.c_str(), password_.c_str(), nullptr, &details);
    }
    if (rc == ESI_ERR_RESOURCE_SHORTAGE) return;
    if (mayGoOn(rc, "a verification")) otherPassword_.clear();
}

void Caller::changePassword()
{
    if (!otherPassword_.empty()) return verifyPassword();
    int number = shared_.books.next(Asked);
    std::string changed = "Passw" + std::to_string(number); // with one digit as long as it must be
    ESI_DETAILS details = {};
    shared_.did(Did::Change);
    int rc = QPX_ESI_changePassword(token_, user_.c_str(), password_.c_str(), changed.c_str(),
                                    nullptr, &details);
    shared_.books.change(number, Asked, Answered);
    if (rc == ESI_ERR_RESOURCE_SHORTAGE) return;
    if (mayGoOn(rc, "a change of a password"))
        password_ = changed;
    else
        otherPassword_ = changed;
}

void Caller::list()
{
    QPX_listSystem_t systems[10];
    unsigned short count = 10;
    shared_.did(Did::List);
    int rc = QPX_listSystems(token_, &count, systems);
    if (!mayGoOn(rc, "a query for systems")) return;
    if (count != 2 || std::strcmp(systems[0].SystemName, "SOAKA") != 0 ||
        std::strcmp(systems[1].SystemName, "SOAKB") != 0)
        problem("the list of systems has " + std::to_string(count) +
                ", and is not the one there is");
}

} // namespace soak
