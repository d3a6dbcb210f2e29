// The registry of users and systems: every code by what stands in it, rules, history, revocation,
// expiry, the times of an answer, and the list of systems.

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

#include "ledger/ledger.h"
#include "registry/registry.h"
#include "temporary_directory.h"
#include "test_database.h"

using namespace standin;
using registry::Registry;
using registry::Time;
using standin_test::TemporaryDirectory;
using standin_test::TestDatabase;

namespace {

constexpr std::int64_t kMorning = 1772446272340; // 2026-03-02 10:11:12.34, UTC

const char* const kContent = R"(
[rules]
shortest = 6
longest = 10
digit = true
history = 3
lifetime = 30
attempts = 3

[[system]]
name = "MAIN"
description = "The default"
[[system]]
name = "SECOND"
[[system]]
name = "AWAY"
state = "unavailable"
[[system]]
name = "DIED"
state = "died"
[[system]]
name = "FAILING"
state = "failing"
[[system]]
name = "SHORT"
state = "resource shortage"
[[system]]
name = "BUSY"
state = "no sessions"
[[system]]
name = "SYSTEMS"
state = "too many systems"
[[system]]
name = "SESSIONS"
state = "too many sessions"
[[system]]
name = "PLAIN"
state = "no password management"
[[system]]
name = "ASLEEP"
state = "password management inactive"

[[user]]
id = "FRED"
password = "Blue7sky"
[[user]]
id = "OLGA"
password = "Winter5"
expires = 2026-03-02T10:11:13
[[user]]
id = "RALF"
password = "Copper2"
revoked = true
[[user]]
id = "ANNA"
password = "Paper4boat"
expires = 2026-12-31
verified = 2026-01-30T17:02:11.56
accessed = 2026-02-28T23:59:58.07
invalid = 2
rules = { attempts = 5 }
[[user]]
id = "FREE"
password = "x"
rules = { shortest = 1, longest = 511, digit = false, history = 0, lifetime = 0, attempts = 0 }
)";

// What a registry that hashes at once answers.
EsiReply answerOf(Registry& registry, const EsiRequest& request)
{
    EsiReply answer;
    registry.answer(request, [&answer](const EsiReply& reply) { answer = reply; });
    return answer;
}

// Work on passwords that is done when a test says so.
class PutOff {
public:
    explicit PutOff(std::size_t room) : room_(room) {}

    Registry::Aside aside()
    {
        return [this](std::function<void()> work, std::function<void()> then) {
            if (waiting_.size() == room_) return false;
            waiting_.push_back({std::move(work), std::move(then)});
            return true;
        };
    }

    std::size_t count() const { return waiting_.size(); }

    // Does what waits, and what comes of it.
    void doAll()
    {
        while (!waiting_.empty()) {
            const auto [work, then] = waiting_.front();
            waiting_.erase(waiting_.begin());
            work();
            then();
        }
    }

private:
    const std::size_t room_;
    std::vector<std::pair<std::function<void()>, std::function<void()>>> waiting_;
};

class TheRegistry : public testing::Test {
protected:
    TheRegistry()
    {
        ::setenv("TZ", "UTC0", 1);
        ::tzset();
    }

    void SetUp() override { load(kContent); }

    Registry open()
    {
        return Registry(
            database.name(), [this](LogLevel, const std::string& line) { log += line + '\n'; },
            [this] { return Time(std::chrono::milliseconds(now)); });
    }

    void load(const std::string& content)
    {
        std::ofstream(contentFile) << content;
        registry.load(registry::readContent(contentFile));
    }

    EsiReply verify(const std::string& user, const std::string& password,
                    const std::string& system = "MAIN")
    {
        EsiRequest request;
        request.userId = user;
        request.currentPassword = password;
        request.server = system;
        return answerOf(registry, request);
    }

    EsiReply change(const std::string& user, const std::string& password,
                    const std::string& newPassword)
    {
        EsiRequest request;
        request.callType = 1;
        request.userId = user;
        request.currentPassword = password;
        request.newPassword = newPassword;
        return answerOf(registry, request);
    }

    // Asks the registry, which answers when the passwords have been looked at.
    void ask(const std::string& user, const std::string& password)
    {
        EsiRequest request;
        request.userId = user;
        request.currentPassword = password;
        registry.answer(request, [this](const EsiReply& reply) { given.push_back(reply.vornRc); });
    }

    // Changes the database behind the registry's back.
    void run(const std::string& sql) { database.change(sql); }

    void passDays(int days) { now += days * std::int64_t{86400000}; }

    const TemporaryDirectory directory;
    const TestDatabase database;
    const std::string contentFile = directory.file("registry.toml");
    std::int64_t now = kMorning;
    std::string log;
    std::vector<int> given;                             // of the answers to ask()
    const ledger::Ledger accounts{database.name(), {}}; // they share the database
    Registry registry = open();
};

std::vector<int> fieldsOf(const EsiDateTime& time)
{
    return {time.year, time.month, time.day, time.hour, time.minute, time.second, time.hundredths};
}

using Fields = std::vector<int>;

} // namespace

// ----------------------------------------------------------------------------- codes, by the data

TEST_F(TheRegistry, AcceptsTheRightPassword)
{
    EXPECT_EQ(0, verify("FRED", "Blue7sky").vornRc);
}

TEST_F(TheRegistry, AnswersMinus108ToAnUnknownUser)
{
    EXPECT_EQ(-108, verify("NOBODY", "Blue7sky").vornRc);
    EXPECT_EQ(-108, verify("fred", "Blue7sky").vornRc);
}

TEST_F(TheRegistry, AnswersMinus106ToAWrongPassword)
{
    EXPECT_EQ(-106, verify("FRED", "blue7sky").vornRc);
    EXPECT_EQ(-106, change("FRED", "Blue7sk", "Green8sea").vornRc);
}

TEST_F(TheRegistry, AnswersMinus106ToAPasswordThatGoesOnBehindANul)
{
    EXPECT_EQ(-106, verify("FRED", std::string("Blue7sky\0more", 13)).vornRc);
}

TEST_F(TheRegistry, AnswersMinus106ToAPasswordLongerThanAnyThatIsKept)
{
    EXPECT_EQ(-106, verify("FRED", std::string(100000, 'x')).vornRc);
}

TEST_F(TheRegistry, TakesBlanksForNothing)
{
    EXPECT_EQ(-100, verify("", "").vornRc);
    EXPECT_EQ(-100, verify("          ", "Blue7sky").vornRc);
    EXPECT_EQ(-101, verify("FRED", "").vornRc);
    EXPECT_EQ(-101, change("FRED", "  ", "").vornRc);
    EXPECT_EQ(-102, change("FRED", "Blue7sky", "").vornRc);
    EXPECT_EQ(-102, change("FRED", "Blue7sky", " ").vornRc);
    EXPECT_EQ(0, verify("FRED      ", "Blue7sky").invalidCount);
    EXPECT_EQ(0, verify("FRED      ", "Blue7sky").vornRc);
}

TEST_F(TheRegistry, AnswersMinus22ToAnUnknownSystem)
{
    EXPECT_EQ(-22, verify("FRED", "Blue7sky", "NOWHERE").vornRc);
}

TEST_F(TheRegistry, AnswersTheCodeOfTheSystemsState)
{
    const std::vector<std::pair<std::string, int>> codes = {
        {"MAIN", 0},       {"SECOND", 0},   {"AWAY", -3},     {"DIED", -4},
        {"FAILING", -9},   {"SHORT", -16},  {"BUSY", -17},    {"SYSTEMS", -28},
        {"SESSIONS", -29}, {"PLAIN", -103}, {"ASLEEP", -104},
    };
    for (const auto& [system, code] : codes)
        EXPECT_EQ(code, verify("FRED", "Blue7sky", system).vornRc) << system;
}

TEST_F(TheRegistry, CountsNoWrongPasswordAtASystemThatDoesNotWork)
{
    EXPECT_EQ(-3, verify("FRED", "wrong", "AWAY").vornRc);
    EXPECT_EQ(0, verify("FRED", "Blue7sky").invalidCount);
}

TEST_F(TheRegistry, TakesAStateOfItsUsersOwn)
{
    run("INSERT INTO state VALUES ('haunted', -77);"
        "UPDATE system SET state = 'haunted' WHERE name = 'SECOND'");
    EXPECT_EQ(-77, verify("FRED", "Blue7sky", "SECOND").vornRc);
}

TEST_F(TheRegistry, AnswersMinus9WhenASystemsStateIsNotInTheTable)
{
    run("UPDATE system SET state = 'unheard of' WHERE name = 'SECOND'");
    EXPECT_EQ(-9, verify("FRED", "Blue7sky", "SECOND").vornRc);
    EXPECT_NE(std::string::npos, log.find("there is no state \"unheard of\"")) << log;
}

TEST_F(TheRegistry, AsksTheFirstSystemWhenTheRequestNamesNone)
{
    EXPECT_EQ(0, verify("FRED", "Blue7sky", "").vornRc);
    run("UPDATE system SET state = 'unavailable' WHERE name = 'MAIN'");
    EXPECT_EQ(-3, verify("FRED", "Blue7sky", "").vornRc);
}

TEST_F(TheRegistry, AnswersMinus22WhenThereIsNoSystemAtAll)
{
    run("DELETE FROM system");
    EXPECT_EQ(-22, verify("FRED", "Blue7sky", "").vornRc);
}

TEST_F(TheRegistry, AnswersMinus27ToARevokedUserWhateverThePassword)
{
    EXPECT_EQ(-27, verify("RALF", "Copper2").vornRc);
    EXPECT_EQ(-27, verify("RALF", "wrong").vornRc);
    EXPECT_EQ(-27, change("RALF", "Copper2", "Green8sea").vornRc);
}

TEST_F(TheRegistry, AnswersMinus9WhenTheDatabaseFails)
{
    run("DROP TABLE password");
    EXPECT_EQ(-9, verify("FRED", "Blue7sky").vornRc);
}

TEST_F(TheRegistry, AnswersMinus16WhileSomebodyElseIsWriting)
{
    auto writer = std::make_unique<TestDatabase::Writer>(database);
    EXPECT_EQ(-16, verify("FRED", "Blue7sky").vornRc);
    EXPECT_EQ(-16, change("FRED", "Blue7sky", "Green8sea").vornRc);
    writer.reset();
    EXPECT_EQ(0, verify("FRED", "Blue7sky").vornRc);
}

TEST_F(TheRegistry, TellsNothingOfAPasswordWhileAGuessCannotBeCounted)
{
    passDays(1); // OLGA's password has expired
    auto writer = std::make_unique<TestDatabase::Writer>(database);
    for (const char* const password : {"Winter5", "wrong"}) {
        EXPECT_EQ(-16, verify("OLGA", password).vornRc) << password;
        EXPECT_EQ(-16, change("OLGA", password, "short").vornRc) << password;
    }
    writer.reset();
    EXPECT_EQ(-105, verify("OLGA", "Winter5").vornRc);
}

// ------------------------------------------------------------------------------ wrong passwords

TEST_F(TheRegistry, TellsOfWrongPasswordsWithTheNextRightOneAndForgetsThem)
{
    verify("FRED", "wrong");
    verify("FRED", "wrong");
    EXPECT_EQ(2, verify("FRED", "Blue7sky").invalidCount);
    EXPECT_EQ(0, verify("FRED", "Blue7sky").invalidCount);
}

TEST_F(TheRegistry, CountsTheWrongOldPasswordsOfChangesToo)
{
    change("FRED", "wrong", "Green8sea");
    EXPECT_EQ(1, verify("FRED", "Blue7sky").invalidCount);
}

TEST_F(TheRegistry, RevokesAUserAtTheThirdWrongPassword)
{
    for (int i = 0; i < 3; ++i) EXPECT_EQ(-106, verify("FRED", "wrong").vornRc);
    EXPECT_EQ(-27, verify("FRED", "Blue7sky").vornRc);
}

TEST_F(TheRegistry, DoesNotRevokeAUserWhoSucceedsInBetween)
{
    for (int i = 0; i < 3; ++i) {
        verify("FRED", "wrong");
        verify("FRED", "wrong");
        EXPECT_EQ(0, verify("FRED", "Blue7sky").vornRc);
    }
}

TEST_F(TheRegistry, RevokesByTheUsersOwnRule)
{
    for (int attempt = 3; attempt <= 5; ++attempt)
        EXPECT_EQ(-106, verify("ANNA", "wrong").vornRc) << attempt;
    EXPECT_EQ(-27, verify("ANNA", "Paper4boat").vornRc);
}

TEST_F(TheRegistry, NeverRevokesAUserWithoutALimit)
{
    for (int i = 0; i < 10; ++i) EXPECT_EQ(-106, verify("FREE", "wrong").vornRc);
    EXPECT_EQ(10, verify("FREE", "x").invalidCount);
}

TEST_F(TheRegistry, TakesAUserBackWhoIsNoLongerRevokedInTheDatabase)
{
    run("UPDATE \"user\" SET revoked = 0 WHERE id = 'RALF'");
    EXPECT_EQ(0, verify("RALF", "Copper2").vornRc);
}

// ----------------------------------------------------------------------- passwords looked at aside

TEST_F(TheRegistry, LooksAtPasswordsAside)
{
    PutOff later(5);
    registry.hashAside(later.aside());
    ask("FRED", "Blue7sky");
    ask("FRED", "wrong");
    EXPECT_EQ(2U, later.count());
    EXPECT_TRUE(given.empty());
    run("UPDATE account SET balance = 1"); // nobody holds the right to write meanwhile
    later.doAll();
    EXPECT_EQ((std::vector<int>{0, -106}), given);
}

TEST_F(TheRegistry, LooksAtNoPasswordForARequestThatFailsWithoutIt)
{
    PutOff later(0);
    registry.hashAside(later.aside());
    ask("", "Blue7sky");
    ask("NOBODY", "Blue7sky");
    ask("RALF", "Copper2");
    EXPECT_EQ((std::vector<int>{-100, -108, -27}), given);
}

TEST_F(TheRegistry, CountsTheGuessesThatAreLookedAtTogetherOneByOne)
{
    PutOff later(9);
    registry.hashAside(later.aside());
    for (int i = 0; i < 4; ++i) ask("FRED", "wrong");
    ask("FRED", "Blue7sky");
    later.doAll();
    EXPECT_EQ((std::vector<int>{-106, -106, -106, -27, -27}), given);
}

TEST_F(TheRegistry, LooksAgainWhenThePasswordHasChangedMeanwhile)
{
    PutOff later(5);
    registry.hashAside(later.aside());
    ask("FRED", "Blue7sky");
    Registry other = open();
    EsiRequest request;
    request.callType = 1;
    request.userId = "FRED";
    request.currentPassword = "Blue7sky";
    request.newPassword = "Green8sea";
    EXPECT_EQ(0, answerOf(other, request).vornRc);
    later.doAll();
    EXPECT_EQ((std::vector<int>{-106}), given);
}

TEST_F(TheRegistry, AnswersMinus16WhenTooManyPasswordsWait)
{
    PutOff later(1);
    registry.hashAside(later.aside());
    ask("FRED", "Blue7sky");
    ask("FRED", "Blue7sky");
    EXPECT_EQ((std::vector<int>{-16}), given);
    later.doAll();
    EXPECT_EQ((std::vector<int>{-16, 0}), given);
}

TEST_F(TheRegistry, TellsNothingOfAPasswordWhenAGuessCanNoLongerBeCounted)
{
    PutOff later(5);
    registry.hashAside(later.aside());
    ask("FRED", "Blue7sky");
    ask("FRED", "wrong");
    auto writer = std::make_unique<TestDatabase::Writer>(database);
    later.doAll();
    EXPECT_EQ((std::vector<int>{-16, -16}), given);
    writer.reset();
}

// ------------------------------------------------------------------------------ times and expiry

TEST_F(TheRegistry, AnswersWithTheTimesBeforeTheRequest)
{
    const EsiReply reply = verify("ANNA", "Paper4boat");
    EXPECT_EQ(0, reply.vornRc);
    EXPECT_EQ((Fields{2026, 0, 30, 17, 2, 11, 56}), fieldsOf(reply.lastVerified));
    EXPECT_EQ((Fields{2026, 11, 31, 0, 0, 0, 0}), fieldsOf(reply.expiry));
    EXPECT_EQ((Fields{2026, 1, 28, 23, 59, 58, 7}), fieldsOf(reply.lastAccessed));
    EXPECT_EQ(2, reply.invalidCount);
}

TEST_F(TheRegistry, NotesTheTimeOfARightPassword)
{
    verify("ANNA", "Paper4boat");
    const EsiReply next = verify("ANNA", "Paper4boat");
    EXPECT_EQ((Fields{2026, 2, 2, 10, 11, 12, 34}), fieldsOf(next.lastVerified));
    EXPECT_EQ((Fields{2026, 2, 2, 10, 11, 12, 34}), fieldsOf(next.lastAccessed));
}

TEST_F(TheRegistry, NotesNoTimeOfAWrongPassword)
{
    verify("ANNA", "wrong");
    EXPECT_EQ((Fields{2026, 0, 30, 17, 2, 11, 56}),
              fieldsOf(verify("ANNA", "Paper4boat").lastVerified));
}

TEST_F(TheRegistry, AnswersZerosForATimeThatNeverWas)
{
    const EsiReply reply = verify("FREE", "x");
    EXPECT_EQ((Fields{0, 0, 0, 0, 0, 0, 0}), fieldsOf(reply.lastVerified));
    EXPECT_EQ((Fields{0, 0, 0, 0, 0, 0, 0}), fieldsOf(reply.lastAccessed));
    EXPECT_EQ((Fields{0, 0, 0, 0, 0, 0, 0}), fieldsOf(reply.expiry));
}

TEST_F(TheRegistry, AnswersInTheLocalTime)
{
    ::setenv("TZ", "EST5", 1);
    ::tzset();
    verify("FRED", "Blue7sky");
    EXPECT_EQ((Fields{2026, 2, 2, 5, 11, 12, 34}),
              fieldsOf(verify("FRED", "Blue7sky").lastVerified));
}

TEST_F(TheRegistry, AnswersMinus105FromTheMomentOfExpiryOn)
{
    now += 659; // 10:11:12.999
    EXPECT_EQ(0, verify("OLGA", "Winter5").vornRc);
    now += 1;
    EXPECT_EQ(-105, verify("OLGA", "Winter5").vornRc);
}

TEST_F(TheRegistry, AnswersMinus106ToAWrongPasswordEvenIfTheRightOneHasExpired)
{
    passDays(1);
    EXPECT_EQ(-106, verify("OLGA", "wrong").vornRc);
}

TEST_F(TheRegistry, LetsAnExpiredPasswordBeChanged)
{
    passDays(1);
    EXPECT_EQ(0, change("OLGA", "Winter5", "Spring6").vornRc);
    EXPECT_EQ(0, verify("OLGA", "Spring6").vornRc);
}

TEST_F(TheRegistry, GivesALoadedUserWithoutAnExpiryThatOfTheRules)
{
    EXPECT_EQ((Fields{2026, 3, 1, 10, 11, 12, 34}), fieldsOf(verify("FRED", "Blue7sky").expiry));
}

TEST_F(TheRegistry, SetsTheExpiryAnewWithAChange)
{
    passDays(10);
    const EsiReply reply = change("FRED", "Blue7sky", "Green8sea");
    EXPECT_EQ(0, reply.vornRc);
    EXPECT_EQ((Fields{2026, 3, 11, 10, 11, 12, 34}), fieldsOf(reply.expiry));
    passDays(30);
    EXPECT_EQ(-105, verify("FRED", "Green8sea").vornRc);
}

// --------------------------------------------------------------------------------------- changes

TEST_F(TheRegistry, KnowsOnlyTheNewPasswordAfterAChange)
{
    EXPECT_EQ(0, change("FRED", "Blue7sky", "Green8sea").vornRc);
    EXPECT_EQ(0, verify("FRED", "Green8sea").vornRc);
    EXPECT_EQ(-106, verify("FRED", "Blue7sky").vornRc);
}

TEST_F(TheRegistry, NotesTheTimeAndForgetsWrongPasswordsWithAChange)
{
    verify("FRED", "wrong");
    EXPECT_EQ(1, change("FRED", "Blue7sky", "Green8sea").invalidCount);
    const EsiReply next = verify("FRED", "Green8sea");
    EXPECT_EQ(0, next.invalidCount);
    EXPECT_EQ((Fields{2026, 2, 2, 10, 11, 12, 34}), fieldsOf(next.lastVerified));
}

TEST_F(TheRegistry, AnswersMinus107ToANewPasswordAgainstTheRules)
{
    EXPECT_EQ(-107, change("FRED", "Blue7sky", "Gre8n").vornRc);
    EXPECT_EQ(-107, change("FRED", "Blue7sky", "Green8sea12").vornRc);
    EXPECT_EQ(-107, change("FRED", "Blue7sky", "Greensea").vornRc);
    EXPECT_EQ(0, change("FRED", "Blue7sky", "Gree8n").vornRc);
    EXPECT_EQ(0, change("FRED", "Gree8n", "Green8sea1").vornRc);
}

TEST_F(TheRegistry, AnswersMinus107ToANewPasswordThatCannotBeKept)
{
    EXPECT_EQ(-107, change("FREE", "x", std::string("a\0b", 3)).vornRc);
    EXPECT_EQ(-107, change("FREE", "x", std::string(512, 'y')).vornRc);
    EXPECT_EQ(0, change("FREE", "x", std::string(511, 'y')).vornRc);
    EXPECT_EQ(0, verify("FREE", std::string(511, 'y')).vornRc);
}

TEST_F(TheRegistry, KeepsThePasswordWhenTheNewOneIsRejected)
{
    EXPECT_EQ(-107, change("FRED", "Blue7sky", "Gre8n").vornRc);
    EXPECT_EQ(0, verify("FRED", "Blue7sky").vornRc);
}

TEST_F(TheRegistry, RejectsTheLastThreePasswordsAndNoneBefore)
{
    ASSERT_EQ(0, change("FRED", "Blue7sky", "Second2").vornRc);
    ASSERT_EQ(0, change("FRED", "Second2", "Third3").vornRc);
    EXPECT_EQ(-107, change("FRED", "Third3", "Third3").vornRc);
    EXPECT_EQ(-107, change("FRED", "Third3", "Second2").vornRc);
    EXPECT_EQ(-107, change("FRED", "Third3", "Blue7sky").vornRc);
    ASSERT_EQ(0, change("FRED", "Third3", "Fourth4").vornRc);
    EXPECT_EQ(0, change("FRED", "Fourth4", "Blue7sky").vornRc);
}

TEST_F(TheRegistry, AppliesTheUsersOwnRulesToAChange)
{
    const EsiReply reply = change("FREE", "x", "x");
    EXPECT_EQ(0, reply.vornRc);
    EXPECT_EQ((Fields{0, 0, 0, 0, 0, 0, 0}), fieldsOf(reply.expiry));
}

// ---------------------------------------------------------------------------------- lasting data

TEST_F(TheRegistry, FindsEverythingAgainWhenItIsOpenedAgain)
{
    verify("FRED", "wrong");
    change("ANNA", "Paper4boat", "Green8sea");
    Registry again = open();
    EsiRequest request;
    request.userId = "FRED";
    request.currentPassword = "Blue7sky";
    EXPECT_EQ(1, answerOf(again, request).invalidCount);
    request.userId = "ANNA";
    request.currentPassword = "Green8sea";
    EXPECT_EQ(0, answerOf(again, request).vornRc);
}

TEST_F(TheRegistry, LeavesKnownUsersAsTheyAreWhenTheyAreLoadedAgain)
{
    change("FRED", "Blue7sky", "Green8sea");
    load(kContent);
    EXPECT_EQ(0, verify("FRED", "Green8sea").vornRc);
    EXPECT_EQ(-106, verify("FRED", "Blue7sky").vornRc);
    EXPECT_NE(std::string::npos, log.find("registry: FRED is known, and not loaded again")) << log;
}

TEST_F(TheRegistry, SetsOnlyTheRulesThatAreGiven)
{
    load("[rules]\nshortest = 3\n");
    EXPECT_EQ(0, change("FRED", "Blue7sky", "a1b").vornRc);
    EXPECT_EQ(-107, change("FRED", "a1b", "abc").vornRc);
}

TEST_F(TheRegistry, ReplacesTheSystemsWhenSomeAreGiven)
{
    load("[[system]]\nname = \"NEW\"\n");
    EXPECT_EQ(0, verify("FRED", "Blue7sky", "NEW").vornRc);
    EXPECT_EQ(-22, verify("FRED", "Blue7sky", "MAIN").vornRc);
}

TEST_F(TheRegistry, LoadsTheExampleThatComesWithIt)
{
    run("DELETE FROM \"user\"; DELETE FROM password");
    registry.load(registry::readContent(EXAMPLE_REGISTRY));
    EXPECT_EQ(0, verify("ANNA", "Paper4boat", "").vornRc);
    EXPECT_EQ(0, verify("FRED", "Blue7sky", "VORNB").vornRc);
    EXPECT_EQ(-105, verify("OLGA", "Winter5", "VORNA").vornRc);
    EXPECT_EQ(-27, verify("RALF", "Copper2pan", "VORNA").vornRc);
    EXPECT_EQ(-103, verify("FRED", "Blue7sky", "VORNOLD").vornRc);
    EXPECT_EQ(-3, verify("FRED", "Blue7sky", "VORNTEST").vornRc);
}

TEST_F(TheRegistry, LoadsAllOrNothing)
{
    const std::string content = "[rules]\nshortest = 1\n[[system]]\nname = \"NEW\"\n"
                                "[[system]]\nname = \"ODD\"\nstate = \"tired\"\n";
    try {
        load(content);
        FAIL() << "a state that is not there is accepted";
    } catch (const registry::BadContent& error) {
        EXPECT_STREQ("the system ODD has the state \"tired\", which is not in the table of states",
                     error.what());
    }
    EXPECT_EQ(0, verify("FRED", "Blue7sky", "MAIN").vornRc);
    EXPECT_EQ(-107, change("FRED", "Blue7sky", "a1").vornRc);
}

// --------------------------------------------------------------------------------------- secrets

TEST_F(TheRegistry, KeepsPasswordsAsTheirHashesOnly)
{
    change("FRED", "Blue7sky", "Green8sea");
    EXPECT_EQ(6, database.ask("SELECT count(*) FROM password"));
    EXPECT_EQ(6, database.ask("SELECT count(*) FROM password WHERE hash LIKE '$y$%'"));
}

TEST_F(TheRegistry, SaltsEachPassword)
{
    load("[[user]]\nid = \"A\"\npassword = \"Same1one\"\n"
         "[[user]]\nid = \"B\"\npassword = \"Same1one\"\n");
    const std::string both = "FROM password WHERE \"user\" IN ('A', 'B')";
    EXPECT_EQ(2, database.ask("SELECT count(DISTINCT hash) " + both));
    EXPECT_EQ(2, database.ask("SELECT count(*) " + both));
}

TEST_F(TheRegistry, LogsWhatHappensWithoutPasswords)
{
    verify("FRED", "Blue7sky");
    verify("FRED", "Orange1");
    verify("FRED", "Orange1");
    verify("FRED", "Orange1");
    change("ANNA", "Paper4boat", "Nodigits");
    change("ANNA", "Paper4boat", "Paper4boat");
    change("ANNA", "Paper4boat", "Green8sea");
    verify("NOBODY", "Orange1");
    verify("ANNA", "Green8sea", "AWAY");
    EXPECT_EQ("registry: FRED's password is right\n"
              "registry: FRED's password is wrong, number 1\n"
              "registry: FRED's password is wrong, number 2\n"
              "registry: FRED's password is wrong, number 3; revoked\n"
              "registry: ANNA's new password has no digit\n"
              "registry: ANNA's new password is one of the last 3\n"
              "registry: ANNA's password is changed\n"
              "registry: unknown user\n"
              "registry: system: unavailable\n",
              log);
}

// ---------------------------------------------------------------------------------------- systems

namespace {

EciRequest listQuery(int room)
{
    EciRequest request;
    request.callType = 9;
    request.serverNum = room;
    return request;
}

} // namespace

TEST_F(TheRegistry, ListsItsSystemsInTheirOrderWhateverTheirState)
{
    load("[[system]]\nname = \"ZULU\"\ndescription = \"First\"\n"
         "[[system]]\nname = \"ALPHA\"\ndescription = \"Second\"\nstate = \"unavailable\"\n");
    const EciReply reply = registry.list(listQuery(2));
    EXPECT_EQ(9, reply.callType);
    EXPECT_EQ(0, reply.vornRc);
    EXPECT_EQ(2, reply.serverNum);
    EXPECT_EQ(140, reply.commareaLength);
    std::string expected(140, '\0');
    expected.replace(0, 4, "ZULU").replace(9, 5, "First");
    expected.replace(70, 5, "ALPHA").replace(79, 6, "Second");
    EXPECT_EQ(expected, std::string(reply.commarea.begin(), reply.commarea.end()));
}

TEST_F(TheRegistry, ListsAsManySystemsAsThereIsRoomFor)
{
    const EciReply one = registry.list(listQuery(1));
    EXPECT_EQ(-25, one.vornRc);
    EXPECT_EQ(1, one.serverNum);
    const EciReply allButOne = registry.list(listQuery(10));
    EXPECT_EQ(-25, allButOne.vornRc);
    EXPECT_EQ(10, allButOne.serverNum);
    const EciReply all = registry.list(listQuery(11));
    EXPECT_EQ(0, all.vornRc);
    EXPECT_EQ(11, all.serverNum);
    const EciReply allAndMore = registry.list(listQuery(65535));
    EXPECT_EQ(0, allAndMore.vornRc);
    EXPECT_EQ(11, allAndMore.serverNum);
}

TEST_F(TheRegistry, ListsNoneOfManyWithoutRoom)
{
    const EciReply reply = registry.list(listQuery(0));
    EXPECT_EQ(-25, reply.vornRc);
    EXPECT_EQ(0, reply.serverNum);
    EXPECT_EQ(0U, reply.commarea.size());
}

TEST_F(TheRegistry, AnswersMinus26WhenThereIsNoSystemToList)
{
    run("DELETE FROM system");
    const EciReply reply = registry.list(listQuery(5));
    EXPECT_EQ(-26, reply.vornRc);
    EXPECT_EQ(0, reply.serverNum);
}

TEST_F(TheRegistry, AnswersMinus9ToAListQueryWhenTheDatabaseFails)
{
    run("DROP TABLE system");
    const EciReply reply = registry.list(listQuery(5));
    EXPECT_EQ(-9, reply.vornRc);
    EXPECT_EQ(0, reply.serverNum);
}
