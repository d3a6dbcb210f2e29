#include "registry/registry.h"

#include <algorithm>
#include <ctime>
#include <utility>

#include "registry/password_hash.h"

namespace registry {

using standin::EsiReply;
using standin::LogLevel;

namespace {

bool isBlank(const std::string& text)
{
    return text.find_first_not_of(std::string(" \0", 2)) == std::string::npos;
}

std::string withoutBlanksBehind(const std::string& text)
{
    return text.substr(0, text.find_last_not_of(' ') + 1);
}

bool hasDigit(const std::string& text)
{
    return text.find_first_of("0123456789") != std::string::npos;
}

// What an answer tells of a user.
EsiReply detailsOf(const User& user)
{
    EsiReply reply;
    reply.lastVerified = toDateTime(user.verified);
    reply.expiry = toDateTime(user.expiry);
    reply.lastAccessed = toDateTime(user.accessed);
    reply.invalidCount = static_cast<std::int32_t>(user.invalidCount);
    return reply;
}

} // namespace

standin::EsiDateTime toDateTime(const std::optional<Time>& time)
{
    if (!time) return {};
    const auto seconds = std::chrono::floor<std::chrono::seconds>(*time);
    const std::time_t calendar = std::chrono::system_clock::to_time_t(seconds);
    std::tm local{};
    ::localtime_r(&calendar, &local);
    const auto hundredths = static_cast<std::int32_t>((*time - seconds).count() / 10);
    return {local.tm_year + 1900, local.tm_mon, local.tm_mday, local.tm_hour,
            local.tm_min,         local.tm_sec, hundredths};
}

Registry::Registry(const std::string& file, standin::LogSink log, Clock clock)
    : database_(file), log_(std::move(log)), clock_(std::move(clock))
{
    prepareRegistry(database_);
    hashAside([](const std::function<void()>& work, const std::function<void()>& then) {
        work();
        then();
        return true;
    });
}

Time Registry::now()
{
    return std::chrono::floor<std::chrono::milliseconds>(std::chrono::system_clock::now());
}

// ----------------------------------------------------------------------------------------- loading

// Another daemon may be at work on the same file: who has nothing to write needs not wait for it.
void Registry::load(const Content& content)
{
    if (!isFilledWith(content)) {
        const Patience patience(database_);
        return fill(content);
    }
    for (const NewUser& newUser : content.users) tellOfKnown(newUser.user.id);
}

bool Registry::isFilledWith(const Content& content)
{
    Transaction transaction(database_, Transaction::Kind::Deferred);
    if (!hasRules(database_, content.rules)) return false;
    if (!content.systems.empty() && fullSystems(database_) != content.systems) return false;
    return std::all_of(content.users.begin(), content.users.end(), [this](const NewUser& newUser) {
        return findUser(database_, newUser.user.id).has_value();
    });
}

void Registry::fill(const Content& content)
{
    Transaction transaction(database_, Transaction::Kind::Immediate);
    setRules(database_, content.rules);
    if (!content.systems.empty()) removeSystems(database_);
    for (const System& system : content.systems) {
        if (!isState(database_, system.state)) {
            throw BadContent("the system " + system.name + " has the state \"" + system.state +
                             "\", which is not in the table of states");
        }
        addSystem(database_, system);
    }
    for (const NewUser& newUser : content.users) addNewUser(newUser);
    transaction.commit();
}

void Registry::tellOfKnown(const std::string& id) const
{
    log(LogLevel::Info, id + " is known, and not loaded again");
}

void Registry::addNewUser(const NewUser& newUser)
{
    User user = newUser.user;
    if (findUser(database_, user.id)) return tellOfKnown(user.id);
    addUser(database_, user, newUser.rules);
    addHash(database_, user.id, hashOf(newUser.password));
    user.expiry = newUser.expiry ? newUser.expiry
                                 : expiryOfNewPassword(rulesOf(database_, user.id));
    updateUser(database_, user);
}

// ---------------------------------------------------------------------------------------- requests

void Registry::answer(const standin::EsiRequest& request, Deliver deliver)
{
    proceed(std::make_shared<Inquiry>(request, std::move(deliver)));
}

void Registry::proceed(const std::shared_ptr<Inquiry>& inquiry)
{
    EsiReply reply;
    try {
        if (!inquiry->failure.empty()) throw DatabaseError(inquiry->failure);
        const std::optional<Outcome> outcome = outcomeOf(*inquiry);
        if (!outcome && findOutAside(inquiry)) return;
        if (outcome) {
            log(outcome->level, outcome->story);
            reply = outcome->reply;
        } else {
            log(LogLevel::Warning, "too many passwords wait to be looked at");
            reply.vornRc = standin::kServerResourceShortage;
        }
    } catch (const DatabaseError& error) {
        reply.vornRc = vornRcFor(error);
    }
    inquiry->deliver(reply);
}

bool Registry::findOutAside(const std::shared_ptr<Inquiry>& inquiry)
{
    const auto work = [inquiry] {
        try {
            inquiry->current.findOut();
            inquiry->next.findOut();
        } catch (const std::exception& failure) {
            inquiry->failure = failure.what();
        }
    };
    return aside_(work, [this, inquiry] { proceed(inquiry); });
}

standin::EciReply Registry::list(const standin::EciRequest& request)
{
    try {
        return standin::EciReply::systemList(request, systems(database_));
    } catch (const DatabaseError& error) {
        return standin::EciReply::serverError(request, vornRcFor(error));
    }
}

std::optional<Registry::Outcome> Registry::outcomeOf(Inquiry& inquiry)
{
    const standin::EsiRequest& request = inquiry.request;
    const bool isChange = request.callType == standin::kEsiChange;
    if (isBlank(request.userId)) return refusal(kNoUserId, "no user id");
    if (isBlank(request.currentPassword)) return refusal(kNoPassword, "no password");
    if (isChange && isBlank(request.newPassword)) return refusal(kNoNewPassword, "no new password");

    // The right to write comes before the look at the password: a guess that could not be counted
    // is told nothing.
    Transaction transaction(database_, Transaction::Kind::Immediate);
    std::optional<Outcome> outcome = carryOut(inquiry);
    transaction.commit();
    return outcome;
}

std::optional<Registry::Outcome> Registry::carryOut(Inquiry& inquiry)
{
    const standin::EsiRequest& request = inquiry.request;
    const std::optional<SystemState> state = stateOf(database_, request.server);
    if (!state) return refusal(kUnknownServer, "unknown system");
    if (state->code != standin::kServerOk) return refusal(state->code, "system: " + state->name);

    const std::optional<User> user = findUser(database_, withoutBlanksBehind(request.userId));
    if (!user) return refusal(kUserIdInvalid, "unknown user");
    if (user->revoked) return refusal(kSecurityError, user->id + " is revoked");
    const std::vector<std::string> inForce = lastHashes(database_, user->id, 1);
    const std::optional<bool> isRight = inquiry.current.has(inForce.empty() ? "" : inForce.front());
    if (!isRight) return std::nullopt;
    if (!*isRight) return countWrongPassword(*user);
    if (request.callType == standin::kEsiChange) return change(*user, inquiry);
    return verify(*user);
}

Registry::Outcome Registry::verify(User user)
{
    if (user.expiry && *user.expiry <= clock_())
        return refusal(kPasswordExpired, user.id + "'s password has expired");
    const EsiReply reply = detailsOf(user);
    noteAccess(user);
    updateUser(database_, user);
    return {reply, LogLevel::Info, user.id + "'s password is right"};
}

// An expired password is good enough to be changed.
std::optional<Registry::Outcome> Registry::change(User user, Inquiry& inquiry)
{
    const auto rejected = [&](const std::string& complaint) {
        return refusal(kPasswordRejected, user.id + "'s new password " + complaint);
    };
    const Rules rules = rulesOf(database_, user.id);
    const std::string complaint = complaintAboutForm(inquiry.request.newPassword, rules);
    if (!complaint.empty()) return rejected(complaint);
    const std::optional<bool> isOld = isOneOfTheLast(user, inquiry.next, rules);
    if (isOld && *isOld) return rejected("is one of the last " + std::to_string(rules.history));
    const std::optional<std::string> hash = inquiry.next.newHash();
    if (!isOld || !hash) return std::nullopt;

    addHash(database_, user.id, *hash);
    user.expiry = expiryOfNewPassword(rules);
    const EsiReply reply = detailsOf(user);
    noteAccess(user);
    updateUser(database_, user);
    return Outcome{reply, LogLevel::Info, user.id + "'s password is changed"};
}

Registry::Outcome Registry::countWrongPassword(User user)
{
    const Rules rules = rulesOf(database_, user.id);
    user.invalidCount += 1;
    user.revoked = rules.attempts > 0 && user.invalidCount >= rules.attempts;
    updateUser(database_, user);
    return refusal(kPasswordInvalid, user.id + "'s password is wrong, number " +
                                         std::to_string(user.invalidCount) +
                                         (user.revoked ? "; revoked" : ""));
}

Registry::Outcome Registry::refusal(std::int32_t vornRc, const std::string& story) const
{
    Outcome outcome;
    outcome.reply.vornRc = vornRc;
    outcome.level = LogLevel::Warning;
    outcome.story = story;
    return outcome;
}

// "" when the new password looks as the rules want it, else what is wrong with it.
std::string Registry::complaintAboutForm(const std::string& newPassword, const Rules& rules) const
{
    const auto length = static_cast<std::int64_t>(newPassword.size());
    if (length < rules.shortest) return "is too short";
    if (length > rules.longest) return "is too long";
    if (!isHashable(newPassword)) return "cannot be kept";
    if (rules.digit && !hasDigit(newPassword)) return "has no digit";
    return "";
}

std::optional<bool> Registry::isOneOfTheLast(const User& user, PasswordCheck& password,
                                             const Rules& rules)
{
    bool allKnown = true;
    for (const std::string& hash : lastHashes(database_, user.id, rules.history)) {
        const std::optional<bool> isThis = password.has(hash);
        if (isThis && *isThis) return true;
        allKnown = allKnown && isThis;
    }
    if (!allKnown) return std::nullopt;
    return false;
}

void Registry::noteAccess(User& user)
{
    user.verified = user.accessed = clock_();
    user.invalidCount = 0;
}

std::optional<Time> Registry::expiryOfNewPassword(const Rules& rules) const
{
    if (rules.lifetime == 0) return std::nullopt;
    return clock_() + std::chrono::hours(24 * rules.lifetime);
}

// ------------------------------------------------------------------------------------------ errors

std::int32_t Registry::vornRcFor(const DatabaseError& error) const
{
    if (error.isConflict()) {
        log(LogLevel::Warning, std::string("meets another writer: ") + error.what());
        return standin::kServerResourceShortage;
    }
    log(LogLevel::Error, std::string("has failed: ") + error.what());
    return standin::kServerSystemError;
}

void Registry::log(LogLevel level, const std::string& line) const
{
    if (log_) log_(level, "registry: " + line);
}

} // namespace registry
