// The registry of users and systems: verifies and changes passwords as the security service of a
// server would, and lists the systems.
//
// Everything is asked of the database anew for each request, so a change made to it from outside
// holds from the next request on. A request is one transaction that is over before its answer goes
// out, and has the right to write before it looks at the password: no guess goes uncounted. Nobody
// waits for another writer: the request is answered with vornRc -16 and has changed nothing. A
// failure of the database gives -9.
//
// Passwords are compared and hashed aside, between transactions: each one begins from the start,
// knowing more than the one before, until it comes to an answer.
//
// An answer tells of the user as he was before the request, so that he sees when he was last there
// and how often somebody has tried since; only the expiry is the one that holds from now on.
//
// Thread: the Gateway's, once it has been constructed and loaded.
#ifndef REGISTRY_H
#define REGISTRY_H

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "registry/password_check.h"
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
    using Deliver = std::function<void(const standin::EsiReply&)>;

    // Does `work` on some thread, and behind it `then` on the Gateway's. False, and neither is
    // done, when there is too much to do already.
    using Aside = std::function<bool(std::function<void()> work, std::function<void()> then)>;

    // Opens the file, which must be a ledger or new, and makes the tables that are not in it.
    // Throws DatabaseError.
    Registry(const std::string& file, standin::LogSink log, Clock clock = now);

    // Sets the rules that are given, replaces the systems if any are given, and adds the users that
    // are not known yet; known ones stay as they are. All or nothing. Throws BadContent for a state
    // that is not there, and DatabaseError.
    void load(const Content& content);

    // How passwords are hashed from now on; at first that is done at once.
    void hashAside(Aside aside) { aside_ = std::move(aside); }

    // Delivers the answer at once, or when the passwords have been looked at.
    void answer(const standin::EsiRequest& request, Deliver deliver);
    standin::EciReply list(const standin::EciRequest& request);

    // The clock of the machine.
    static Time now();

private:
    struct Outcome {
        standin::EsiReply reply;
        standin::LogLevel level = standin::LogLevel::Info;
        std::string story;
    };

    // A request on its way to its answer.
    struct Inquiry {
        Inquiry(const standin::EsiRequest& theRequest, Deliver theDeliver)
            : request(theRequest), deliver(std::move(theDeliver))
        {
        }

        const standin::EsiRequest request;
        const Deliver deliver;
        PasswordCheck current{request.currentPassword};
        PasswordCheck next{request.newPassword};
        std::string failure; // of the hashing; empty: none
    };

    // Nothing instead of an outcome: more has to be found out about the passwords first.
    void proceed(const std::shared_ptr<Inquiry>& inquiry);
    bool findOutAside(const std::shared_ptr<Inquiry>& inquiry);
    std::optional<Outcome> outcomeOf(Inquiry& inquiry);
    std::optional<Outcome> carryOut(Inquiry& inquiry);
    Outcome verify(User user);
    std::optional<Outcome> change(User user, Inquiry& inquiry);
    Outcome countWrongPassword(User user);
    Outcome refusal(std::int32_t vornRc, const std::string& story) const;

    std::string complaintAboutForm(const std::string& newPassword, const Rules& rules) const;
    std::optional<bool> isOneOfTheLast(const User& user, PasswordCheck& password,
                                       const Rules& rules);
    void noteAccess(User& user);
    std::optional<Time> expiryOfNewPassword(const Rules& rules) const;
    void fill(const Content& content);
    bool isFilledWith(const Content& content);
    void addNewUser(const NewUser& newUser);
    void tellOfKnown(const std::string& id) const;

    std::int32_t vornRcFor(const DatabaseError& error) const;
    void log(standin::LogLevel level, const std::string& line) const;

    Database database_;
    standin::LogSink log_;
    Clock clock_;
    Aside aside_;
};

// A time as it travels: by the clock on this machine's wall, with months from 0. All zeros for
// never.
standin::EsiDateTime toDateTime(const std::optional<Time>& time);

} // namespace registry

#endif
