// The file that fills the registry: what it may hold, and what is said of what it may not.

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

#include "registry/registry_file.h"
#include "temporary_directory.h"

using registry::Content;
using standin_test::TemporaryDirectory;

namespace {

Content read(const std::string& text)
{
    const TemporaryDirectory directory;
    std::ofstream(directory.file("registry.toml")) << text;
    return registry::readContent(directory.file("registry.toml"));
}

std::string complaint(const std::string& text)
{
    try {
        read(text);
    } catch (const registry::BadContent& error) {
        return error.what();
    }
    return "none";
}

std::int64_t milliseconds(const std::optional<registry::Time>& time)
{
    return time ? time->time_since_epoch().count() : -1;
}

} // namespace

TEST(RegistryFile, MayBeEmpty)
{
    const Content content = read("");
    EXPECT_TRUE(content.systems.empty());
    EXPECT_TRUE(content.users.empty());
    EXPECT_FALSE(content.rules.shortest.has_value());
}

TEST(RegistryFile, GivesRules)
{
    const Content content = read("[rules]\nshortest = 4\nlongest = 8\ndigit = false\nhistory = 2\n"
                                 "lifetime = 60\nattempts = 5\n");
    EXPECT_EQ(4, content.rules.shortest);
    EXPECT_EQ(8, content.rules.longest);
    EXPECT_EQ(0, content.rules.digit);
    EXPECT_EQ(2, content.rules.history);
    EXPECT_EQ(60, content.rules.lifetime);
    EXPECT_EQ(5, content.rules.attempts);
}

TEST(RegistryFile, GivesSystemsInTheirOrder)
{
    const Content content = read("[[system]]\nname = \"ZULU\"\ndescription = \"Last\"\n"
                                 "state = \"no sessions\"\n[[system]]\nname = \"ALPHA\"\n");
    ASSERT_EQ(2U, content.systems.size());
    EXPECT_EQ("ZULU", content.systems[0].name);
    EXPECT_EQ("Last", content.systems[0].description);
    EXPECT_EQ("no sessions", content.systems[0].state);
    EXPECT_EQ("ALPHA", content.systems[1].name);
    EXPECT_EQ("", content.systems[1].description);
    EXPECT_EQ("available", content.systems[1].state);
}

TEST(RegistryFile, GivesUsersWithTimesOnThisMachinesClock)
{
    ::setenv("TZ", "EST5", 1);
    ::tzset();
    const Content content = read("[[user]]\nid = \"FRED\"\npassword = \"Blue#7 sky\"\n"
                                 "expires = 2026-03-02\nverified = 2026-03-02T05:11:12.34\n"
                                 "invalid = 2\nrevoked = true\nrules = { attempts = 0 }\n");
    ASSERT_EQ(1U, content.users.size());
    const registry::NewUser& fred = content.users[0];
    EXPECT_EQ("FRED", fred.user.id);
    EXPECT_EQ("Blue#7 sky", fred.password);
    EXPECT_EQ(1772427600000, milliseconds(fred.expiry)); // 05:00 UTC
    EXPECT_EQ(1772446272340, milliseconds(fred.user.verified));
    EXPECT_EQ(-1, milliseconds(fred.user.accessed));
    EXPECT_EQ(2, fred.user.invalidCount);
    EXPECT_TRUE(fred.user.revoked);
    EXPECT_EQ(0, fred.rules.attempts);
    EXPECT_FALSE(fred.rules.history.has_value());
}

TEST(RegistryFile, IsRefusedWithTheLineAndTheReason)
{
    const std::string fred = "[[user]]\nid = \"FRED\"\npassword = \"Blue7sky\"\n";
    EXPECT_EQ("line 2: shortest is not a number from 1 to 511", complaint("[rules]\nshortest = 0"));
    EXPECT_EQ("line 2: longest is not a number from 1 to 511", complaint("[rules]\nlongest = 512"));
    EXPECT_EQ("line 2: history is not a number from 0 to 1000",
              complaint("[rules]\nhistory = \"3\""));
    EXPECT_EQ("line 2: digit is neither true nor false", complaint("[rules]\ndigit = 1"));
    EXPECT_EQ("line 1: each user begins with [[user]]", complaint("[user]\nid = \"FRED\"\n"));
    EXPECT_EQ("line 1: rules is no table", complaint("rules = 3"));
    EXPECT_EQ("line 2: name is not a text of 1 to 8 printable characters in quotes",
              complaint("[[system]]\nname = \"NINELONG1\"\n"));
    EXPECT_EQ("line 1: name is missing", complaint("[[system]]\ndescription = \"x\"\n"));
    EXPECT_EQ(
        "line 3: description is not a text of 0 to 60 printable characters in quotes",
        complaint("[[system]]\nname = \"ONE\"\ndescription = \"" + std::string(61, 'x') + "\"\n"));
    EXPECT_EQ("line 2: id is not a text of 1 to 10 printable characters in quotes",
              complaint("[[user]]\nid = \"ELEVENLONG1\"\n"));
    EXPECT_EQ("line 1: id ends with a blank", complaint("[[user]]\nid = \"FRED \"\n"));
    EXPECT_EQ("line 1: password is missing", complaint("[[user]]\nid = \"FRED\"\n"));
    EXPECT_EQ("line 4: expires is neither a date nor a date and time, as 2026-03-31T18:00:00",
              complaint(fred + "expires = 90\n"));
    EXPECT_EQ("line 4: expires has an offset; give the local time",
              complaint(fred + "expires = 2026-03-31T18:00:00Z\n"));
    EXPECT_EQ("line 4: FRED is there twice", complaint(fred + fred));
    EXPECT_EQ("line 3: ONE is there twice",
              complaint("[[system]]\nname = \"ONE\"\n[[system]]\nname = \"ONE\"\n"));
}

TEST(RegistryFile, IsRefusedForAnUnknownKeyWithThoseThatThereAre)
{
    const std::string ofTheFile = " here; there are rules, system and user";
    const std::string ofRules =
        " here; there are shortest, longest, digit, history, lifetime and attempts";
    const std::string ofASystem = " here; there are name, description and state";
    const std::string ofAUser = " here; there are id, password, expires, verified, accessed, "
                                "invalid, revoked and rules";
    const std::string one = "[[system]]\nname = \"ONE\"\n";
    const std::string fred = "[[user]]\nid = \"FRED\"\npassword = \"Blue7sky\"\n";

    EXPECT_EQ("line 1: there is no such key" + ofTheFile, complaint("[[users]]\nid = \"FRED\"\n"));
    EXPECT_EQ("line 1: there is no such key" + ofTheFile, complaint("\"ru\\u001Ble\" = 3\n"));
    EXPECT_EQ("line 3: there is no such key" + ofRules,
              complaint("[rules]\ndigit = true\nlifetimes = 3"));
    EXPECT_EQ("line 1: there is no such key" + ofRules, complaint("rules.lifetimes = 3"));
    EXPECT_EQ("line 1: there is no such key" + ofRules, complaint("[rules.new]\ndigit = true"));
    EXPECT_EQ("line 3: there is no such key" + ofASystem, complaint(one + "status = \"died\"\n"));
    EXPECT_EQ("line 3: there is no such key" + ofASystem,
              complaint(one + "[system.site]\nname = \"ONE\"\n"));
    EXPECT_EQ("line 4: there is no such key" + ofAUser, complaint(fred + "invald = 2\n"));
    EXPECT_EQ("line 4: there is no such key" + ofRules,
              complaint(fred + "rules = { digit = true, atempts = 5 }\n"));
    EXPECT_EQ("line 5: there is no such key" + ofRules,
              complaint(fred + "[user.rules]\natempts = 5\n"));
}

TEST(RegistryFile, WithAMisspelledKeyIsNotSaidToLackTheKey)
{
    EXPECT_EQ("line 3: there is no such key here; there are id, password, expires, "
              "verified, accessed, invalid, revoked and rules",
              complaint("[[user]]\nid = \"FRED\"\npasword = \"Blue7sky\"\n"));
}

TEST(RegistryFile, IsRefusedWithoutShowingWhatMayBeAPassword)
{
    EXPECT_EQ("line 3: this is no TOML, from column 13 on",
              complaint("[[user]]\nid = \"FRED\"\npassword = tSecret7\n"));
    EXPECT_EQ("line 3: password is not a text of 1 to 511 printable characters in quotes",
              complaint("[[user]]\nid = \"FRED\"\npassword = 77777777\n"));
    EXPECT_EQ("line 3: this is no TOML, from column 19 on",
              complaint("[[user]]\nid = \"FRED\"\npassword = \"Secret\n"));
}

TEST(RegistryFile, ThatIsNotThereIsRefused)
{
    const TemporaryDirectory directory;
    try {
        registry::readContent(directory.file("missing.toml"));
        FAIL() << "a missing file is accepted";
    } catch (const registry::BadContent& error) {
        EXPECT_STREQ("it cannot be read", error.what());
    }
}
