// The registry of users and systems: verifies and changes passwords as the security service of a
// server would, and lists the systems.
//
// Everything is asked of the database anew for each request, so a change made to it from outside
// holds from the next request on. A request is one transaction that is over before its answer goes
// out, and has the right to write before it looks at the password: no guess goes uncounted. Nobody
// waits for another writer: the request is answered with vornRc -16 and has changed nothing. A
// failure of the database gives -9.
//
// An answer tells of the user as he was before the request, so that he sees when he was last there
// and how often somebody has tried since; only the expiry is the one that holds from now on.
//
// Thread: the Gateway's, once it has been constructed and loaded.
#ifndef REGISTRY_H
#define REGISTRY_H

#include <cstdint>
#include <functional>
#include <string>

#include "registry/registry_file.h"
#include "registry/registry_store.h"
#include "standin/log.h"
#include "standin/messages.h"

namespace registry {

// What a request comes to, beside the codes of the systems' states.
constexpr std::int32_t kUnknownServer = -22;
constexpr std::int32_t kSecurityError = -27; // the user is revoked
constexpr std::int32_t kNoUserId = -100;
constexpr std::int32_t kNoPassword = -101;
constexpr std::int32_t kNoNewPassword = -102;
constexpr std::int32_t kPasswordExpired = -105;
constexpr std::int32_t kPasswordInvalid = -106;
constexpr std::int32_t kPasswordRejected = -107;
constexpr std::int32_t kUserIdInvalid = -108;

class Registry {
public:
    using Clock = std::function<Time()>;

    // Opens the file, which must be a ledger or new, and makes the tables that are not in it.
    // Throws DatabaseError.
    Registry(const std::string& file, standin::LogSink log, Clock clock = now);

    // Sets the rules that are given, replaces the systems if any are given, and adds the users that
    // are not known yet; known ones stay as they are. All or nothing. Throws BadContent for a state
    // that is not there, and DatabaseError.
    void load(const Content& content);

    standin::EsiReply answer(const standin::EsiRequest& request);
    standin::EciReply list(const standin::EciRequest& request);

    // The clock of the machine.
    static Time now();

private:
    struct Outcome {
        standin::EsiReply reply;
        standin::LogLevel level = standin::LogLevel::Info;
        std::string story;
    };

    Outcome outcomeOf(const standin::EsiRequest& request);
    Outcome carryOut(const standin::EsiRequest& request);
    Outcome verify(User user);
    Outcome change(User user, const std::string& newPassword);
    Outcome countWrongPassword(User user);
    Outcome refusal(std::int32_t vornRc, const std::string& story) const;

    std::string complaintAbout(const User& user, const std::string& newPassword,
                               const Rules& rules);
    void noteAccess(User& user);
    std::optional<Time> expiryOfNewPassword(const Rules& rules) const;
    void addNewUser(const NewUser& newUser);

    std::int32_t vornRcFor(const DatabaseError& error) const;
    void log(standin::LogLevel level, const std::string& line) const;

    Database database_;
    standin::LogSink log_;
    Clock clock_;
};

// A time as it travels: by the clock on this machine's wall, with months from 0. All zeros for
// never.
standin::EsiDateTime toDateTime(const std::optional<Time>& time);

} // namespace registry

#endif
