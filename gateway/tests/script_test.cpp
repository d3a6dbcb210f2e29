// Scripted answers as a client gets them.

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <memory>

#include "client.h"
#include "scrambled.h"
#include "script/script_file.h"
#include "standin/gateway.h"
#include "temporary_directory.h"

using standin_test::Call;
using standin_test::Client;
using standin_test::Raw;
using standin_test::Reply;
using standin_test::TemporaryDirectory;

namespace {

// A Gateway with a script in front of its programs, and a client of it.
class Scripted {
public:
    explicit Scripted(const std::string& text)
    {
        std::ofstream(directory_.file("data.bin"), std::ios::binary) << "from a file\n";
        write(text);
        file_ = std::make_unique<script::ScriptFile>(directory_.file("answers.toml"),
                                                     [](standin::LogLevel, const std::string&) {});
        file_->serve(gateway, nullptr);
        if (!client.shakeHands()) throw std::runtime_error("no connection");
    }

    ~Scripted() { gateway.stop(); }

    void write(const std::string& text) { std::ofstream(directory_.file("answers.toml")) << text; }

    // The COMMAREA that comes back, or what came instead of it.
    std::string ask(const Call& call) { return said(client.call(++lastMessage_, call)); }

    std::string ask(const std::string& program, const std::string& commarea = "")
    {
        Call call;
        call.program = program;
        call.commarea = commarea.empty() ? std::string(40, ' ') : commarea;
        return ask(call);
    }

    Reply call(const std::string& program, int mode = 0, int token = 0)
    {
        Call call;
        call.program = program;
        call.commarea = std::string(40, ' ');
        call.mode = mode;
        call.token = token;
        return client.call(++lastMessage_, call);
    }

    static std::string said(const Reply& reply)
    {
        if (reply.vornRc == -7) return reply.abendCode;
        if (reply.vornRc != 0) return std::to_string(reply.vornRc);
        return reply.commarea;
    }

private:
    const TemporaryDirectory directory_;
    std::unique_ptr<script::ScriptFile> file_;
    int lastMessage_ = 0;

public:
    standin::Gateway gateway;
    Client client{gateway.port()};
};

// Whether a script with this match takes the call.
bool takes(const std::string& match, const Call& call)
{
    Scripted scripted("[[on]]\n" + match + "\nanswer = { abend = \"TAKN\" }\n");
    return scripted.ask(call) == "TAKN";
}

Call with(const std::string& commarea, const std::string& program = "PRICE")
{
    Call call;
    call.program = program;
    call.commarea = commarea;
    return call;
}

Call withChannel(const std::vector<standin::Bytes>& records)
{
    Call call;
    call.program = "PRICE";
    call.channel = standin_test::channelSection("ORDER", 819, records);
    return call;
}

standin::Bytes container(const std::string& name, const std::string& data, int ccsid = 819)
{
    return standin_test::record(name, 1, 2, ccsid, data.size(), data);
}

} // namespace

// --------------------------------------------------------------------------------------- matches

TEST(ScriptMatch, IsTheProgramByNameOrBySeveralOrByPattern)
{
    EXPECT_TRUE(takes("program = \"PRICE\"", with("")));
    EXPECT_FALSE(takes("program = \"PRICE\"", with("", "PRICES")));
    EXPECT_FALSE(takes("program = \"PRICE\"", with("", "PRIC")));
    EXPECT_TRUE(takes("program = [\"STOCK\", \"PRICE\"]", with("")));
    EXPECT_TRUE(takes("program = \"P*C?\"", with("")));
    EXPECT_TRUE(takes("program = \"*\"", with("")));
    EXPECT_FALSE(takes("program = \"P*C\"", with("")));
    EXPECT_FALSE(takes("program = \"?\"", with("")));
}

TEST(ScriptMatch, IsServerTransactionAndUser)
{
    Call call = with("");
    call.user = "FRED";
    EXPECT_TRUE(takes("server = \"SERVER1\"\ntransaction = \"TRN?\"\nuser = \"FRED\"", call));
    EXPECT_FALSE(takes("server = \"SERVER2\"", call));
    EXPECT_FALSE(takes("transaction = \"TRN2\"", call));
    EXPECT_FALSE(takes("user = \"ANNA\"", call));
    EXPECT_TRUE(takes("user = \"\"", with("")));
}

TEST(ScriptMatch, IsAllOfTheCommareaButItsPadding)
{
    EXPECT_TRUE(takes("commarea = \"4711\"", with("4711")));
    EXPECT_TRUE(takes("commarea = \"4711\"", with(std::string("4711  \0\0", 8))));
    EXPECT_FALSE(takes("commarea = \"4711\"", with("47112")));
    EXPECT_FALSE(takes("commarea = \"4711\"", with("471")));
    EXPECT_FALSE(takes("commarea = \"4711\"", with("")));
}

TEST(ScriptMatch, IsAPieceOfTheCommarea)
{
    EXPECT_TRUE(takes("commarea = { text = \"47\" }", with("4711")));
    EXPECT_TRUE(takes("commarea = { at = 2, text = \"11\" }", with("4711 and more")));
    EXPECT_FALSE(takes("commarea = { at = 3, text = \"11\" }", with("4711")));
    EXPECT_FALSE(takes("commarea = { at = 5, text = \"\" }", with("4711")));
    EXPECT_TRUE(takes("commarea = { at = 1, hex = \"37 31\" }", with("4711")));
    EXPECT_FALSE(takes("commarea = { at = 3, hex = \"31 31\" }", with("4711")));
    EXPECT_TRUE(takes("commarea = [{ text = \"4\" }, { at = 3, text = \"1\" }]", with("4711")));
    EXPECT_FALSE(takes("commarea = [{ text = \"4\" }, { at = 3, text = \"2\" }]", with("4711")));
}

TEST(ScriptMatch, IsAPatternOrALength)
{
    EXPECT_TRUE(takes("commarea = { pattern = \"^[0-9]{4}$\" }", with("4711    ")));
    EXPECT_FALSE(takes("commarea = { pattern = \"^[0-9]{4}$\" }", with("47110")));
    EXPECT_TRUE(takes("commarea = { at = 2, pattern = \"^11\" }", with("4711")));
    EXPECT_TRUE(takes("commarea = { length = 4 }", with("4711")));
    EXPECT_FALSE(takes("commarea = { length = 5 }", with("4711")));
    EXPECT_TRUE(takes("commarea = false", with("")));
    EXPECT_FALSE(takes("commarea = true", with("")));
    EXPECT_TRUE(takes("commarea = true", with("4711")));
}

TEST(ScriptMatch, IsOfTextInACodePage)
{
    EXPECT_TRUE(takes("commarea = { text = \"AB\", ccsid = 37 }", with("\xC1\xC2\x40")));
    EXPECT_FALSE(takes("commarea = { text = \"AB\", ccsid = 37 }", with("AB")));
    EXPECT_TRUE(takes("commarea = { pattern = \"^A.$\", ccsid = 37 }", with("\xC1\xC2\x40")));
    EXPECT_TRUE(takes("commarea = \"K\u00E4se\"", with("K\xE4se")));
}

TEST(ScriptMatch, IsNotHeldUpByAPatternThatHasManyWays)
{
    EXPECT_FALSE(
        takes("commarea = { pattern = \"^(a+)+$\" }", with(std::string(30000, 'a') + "b")));
    EXPECT_FALSE(takes("program = \"*a*a*a*a*a*a*a*a*b\"", with("", "aaaaaaaa")));
}

TEST(ScriptMatch, IsTheChannelAndItsContainers)
{
    const Call call = withChannel({container("NAME", "Fred "), container("CITY", "\xC1", 37)});
    EXPECT_TRUE(takes("channel = \"ORD*\"", call));
    EXPECT_FALSE(takes("channel = \"STOCK\"", call));
    EXPECT_TRUE(takes("channel = true", call));
    EXPECT_FALSE(takes("channel = false", call));
    EXPECT_TRUE(takes("channel = false", with("")));
    EXPECT_FALSE(takes("channel = \"*\"", with("")));
    EXPECT_TRUE(takes("containers = { NAME = \"Fred\", CITY = \"A\", \"A.B\" = false }", call));
    EXPECT_TRUE(takes("containers.NAME = true", call));
    EXPECT_FALSE(takes("containers.OTHER = true", call));
    EXPECT_FALSE(takes("containers.NAME = \"Anna\"", call));
    EXPECT_FALSE(takes("containers.NAME = \"Fred\"", with("")));
}

TEST(ScriptMatch, IsTheFirstOneThatFitsAndTheRestIsAsEver)
{
    Scripted scripted("[[on]]\nprogram = \"P*\"\ncommarea = \"1\"\nanswer = \"one\"\n"
                      "[[on]]\nprogram = \"P*\"\nanswer = \"other\"\n");
    EXPECT_EQ("one", scripted.ask("PRICE", "1   "));
    EXPECT_EQ("other", scripted.ask("PRICE", "2    "));
    EXPECT_EQ("hello", scripted.ask("ECHO", "hello"));
    EXPECT_EQ("AEI0", scripted.ask("STOCK", "1"));
}

TEST(ScriptMatch, MayTakeTheGatewaysOwnPrograms)
{
    Scripted scripted("[[on]]\nprogram = \"ECHO\"\nanswer = \"mine\"\n");
    EXPECT_EQ("mine", scripted.ask("ECHO", "hello"));
}

// --------------------------------------------------------------------------------------- answers

TEST(ScriptAnswer, IsAReplyToTheByte)
{
    Scripted scripted("[[on]]\nprogram = \"PRICE\"\nanswer = \"1.20\"\n");
    scripted.client.send(standin_test::eciRequest(9, with("4711    ")));
    const standin_test::Received answer = scripted.client.read().value();
    EXPECT_EQ(3, answer.flowType);
    EXPECT_EQ(9, answer.messageId);
    EXPECT_EQ(0, answer.gatewayRc);
    EXPECT_EQ(static_cast<standin::Bytes>(Raw()
                                              .int32(1)
                                              .int32(0)
                                              .int32(0)
                                              .int32(0)
                                              .text("    ")
                                              .int32(8)
                                              .byte(0xFF)
                                              .byte(0)
                                              .int32(4)
                                              .text("1.20")
                                              .byte(0)),
              answer.body);
}

TEST(ScriptAnswer, IsTextHexOrAFile)
{
    Scripted scripted("[[on]]\nprogram = \"TEXT\"\nanswer = { text = \"AB\", ccsid = 37 }\n"
                      "[[on]]\nprogram = \"HEX\"\nanswer = { hex = \"01 02 ff\" }\n"
                      "[[on]]\nprogram = \"FILE\"\nanswer = { file = \"data.bin\" }\n"
                      "[[on]]\nprogram = \"LONG\"\nanswer = { text = \"AB\", length = 5 }\n"
                      "[[on]]\nprogram = \"LONGHEX\"\nanswer = { hex = \"01\", length = 3 }\n"
                      "[[on]]\nprogram = \"LATIN\"\nanswer = \"K\u00E4se \u20AC\"\n");
    EXPECT_EQ("\xC1\xC2", scripted.ask("TEXT"));
    EXPECT_EQ("\x01\x02\xFF", scripted.ask("HEX"));
    EXPECT_EQ("from a file\n", scripted.ask("FILE"));
    EXPECT_EQ("AB   ", scripted.ask("LONG"));
    EXPECT_EQ(std::string("\x01\0\0", 3), scripted.ask("LONGHEX"));
    EXPECT_EQ("K\xE4se ?", scripted.ask("LATIN"));
}

TEST(ScriptAnswer, IsCutToWhatTheApplicationTakes)
{
    Scripted scripted("[[on]]\nprogram = \"PRICE\"\nanswer = \"1234567890\"\n");
    EXPECT_EQ("1234", scripted.ask("PRICE", "abcd"));
}

TEST(ScriptAnswer, MayPutPiecesIntoTheCommareaOfTheCall)
{
    Scripted scripted("[[on]]\nprogram = \"PRICE\"\nanswer = { put = [{ at = 1, text = \"00\" }, "
                      "{ at = 6, hex = \"2A\" }, { at = 7, text = \"12345\" }, "
                      "{ at = 30, text = \"lost\" }] }\n"
                      "[[on]]\nprogram = \"ONE\"\nanswer.put = { at = 0, text = \"${user}!\" }\n");
    EXPECT_EQ("Q00def*123", scripted.ask("PRICE", "Qbcdefghij"));
    EXPECT_EQ("!bc", scripted.ask("ONE", "abc"));
}

TEST(ScriptAnswer, IsACodeAnAbendOrACodeOfTheGateway)
{
    Scripted scripted("[[on]]\nprogram = \"CODE\"\nanswer = { code = -16 }\n"
                      "[[on]]\nprogram = \"ABND\"\nanswer = { abend = \"AB1\" }\n"
                      "[[on]]\nprogram = \"GATE\"\nanswer = { gateway = 61448 }\n");
    EXPECT_EQ("-16", scripted.ask("CODE"));
    EXPECT_EQ("AB1 ", scripted.ask("ABND"));
    scripted.client.send(standin_test::eciRequest(9, with("", "GATE")));
    const standin_test::Received answer = scripted.client.read().value();
    EXPECT_EQ(3, answer.flowType);
    EXPECT_EQ(61448, answer.gatewayRc);
}

TEST(ScriptAnswer, AddsChangesAndDeletesContainers)
{
    Scripted scripted("[[on]]\nprogram = \"PRICE\"\n[on.answer.containers]\n"
                      "OLD = false\nNAME = \"Anna\"\n\"NEW.ONE\" = { hex = \"0102\" }\n"
                      "TEXT = { text = \"A\", ccsid = 37 }\nGONE = false\n");
    const Call call = withChannel(
        {container("OLD", "x"), container("NAME", "Fred", 37), container("KEPT", "y")});
    const Reply reply = scripted.client.call(1, call);
    EXPECT_EQ(0, reply.vornRc);
    EXPECT_EQ(standin_test::channelSection("ORDER", 819,
                                           {standin_test::record("OLD", 2, 2, 819, 0),
                                            standin_test::record("NAME", 3, 2, 819, 4, "Anna"),
                                            standin_test::record("KEPT", 4, 2, 819, 1),
                                            standin_test::record("NEW.ONE", 1, 1, 0, 2, "\x01\x02"),
                                            standin_test::record("TEXT", 1, 2, 37, 1, "\xC1")}),
              reply.channel);
}

TEST(ScriptAnswer, WithContainersAbendsWithoutAChannel)
{
    Scripted scripted("[[on]]\nprogram = \"PRICE\"\nanswer.containers.NEW = \"x\"\n");
    EXPECT_EQ("ACHN", scripted.ask("PRICE"));
}

TEST(ScriptAnswer, LeavesAChannelAsItIs)
{
    Scripted scripted("[[on]]\nprogram = \"PRICE\"\nanswer = {}\n");
    EXPECT_EQ(
        standin_test::channelSection("ORDER", 819, {standin_test::record("KEPT", 4, 2, 819, 1)}),
        scripted.client.call(1, withChannel({container("KEPT", "y")})).channel);
}

TEST(ScriptAnswer, HasFieldsOfTheCallInItsText)
{
    Scripted scripted(
        "[[on]]\nprogram = \"PRICE\"\n"
        "answer = \"${program} ${server} ${transaction} ${user} ${commarea:2:3}|${commarea:40}|"
        "${connection}.${message}.${unit} $${x} ${call:3} $ {\"\n"
        "[[on]]\nprogram = \"ALL\"\nanswer = \"<${commarea}>\"\n");
    Call call = with("0123456789" + std::string(70, 'x'));
    call.user = "FRED";
    EXPECT_EQ("PRICE SERVER1 TRN1 FRED 234|" + std::string(40, 'x') + "|1.1.0 ${x} ",
              scripted.ask(call));
    EXPECT_EQ("PRICE SERVER1 TRN1  234||1.2.0 ${x} 002 ",
              scripted.ask("PRICE", "0123456789" + std::string(30, ' ')));
    EXPECT_EQ("<ab", scripted.ask("ALL", "abc"));
}

TEST(ScriptAnswer, HasContainersInItsText)
{
    Scripted scripted("[[on]]\nprogram = \"PRICE\"\n"
                      "answer.containers.NEW = \"${channel}:${container:NAME}"
                      "${container:NAME:1:2}${container:NONE}\"\n");
    EXPECT_EQ(
        standin_test::channelSection("ORDER", 819,
                                     {standin_test::record("NAME", 4, 2, 819, 4),
                                      standin_test::record("NEW", 1, 2, 819, 12, "ORDER:Fredre")}),
        scripted.client.call(1, withChannel({container("NAME", "Fred")})).channel);
}

TEST(ScriptAnswer, HasCountersAndTheTimeInItsText)
{
    Scripted scripted("[[on]]\nprogram = \"A\"\nanswer = \"${counter:n:4} ${counter:m}\"\n"
                      "[[on]]\nprogram = \"B\"\nanswer = \"${counter:n}\"\n"
                      "[[on]]\nprogram = \"T\"\nanswer = \"${time} ${time:%Y%m%d}\"\n");
    EXPECT_EQ("0001 1", scripted.ask("A"));
    EXPECT_EQ("2", scripted.ask("B"));
    EXPECT_EQ("0003 2", scripted.ask("A"));
    const std::string time = scripted.ask("T");
    ASSERT_EQ(28U, time.size());
    std::string digits = time.substr(0, 10);
    digits.erase(std::remove(digits.begin(), digits.end(), '-'), digits.end());
    EXPECT_EQ(digits, time.substr(20));
    EXPECT_EQ('T', time[10]);
}

TEST(ScriptAnswer, MayWaitWhileOthersAreAnswered)
{
    Scripted scripted("[[on]]\nprogram = \"SLOW\"\nanswer = { text = \"late\", delay = \"1min\" }\n"
                      "[[on]]\nprogram = \"SOON\"\nanswer = { text = \"soon\", delay = { from = "
                      "\"1us\", to = \"2ms\" } }\n");
    scripted.client.send(standin_test::eciRequest(77, with("", "SLOW")));
    EXPECT_EQ("soon", scripted.ask("SOON"));
    EXPECT_EQ("hello", scripted.ask("ECHO", "hello"));
}

TEST(ScriptAnswer, MayMisbehave)
{
    Scripted scripted("[[on]]\nprogram = \"PING\"\nanswer = { text = \"x\", fault = [\"ping\", "
                      "\"gateway-rc=61448\"] }\n"
                      "[[on]]\nprogram = \"DROP\"\nanswer = { fault = \"drop\" }\n");
    scripted.client.send(standin_test::eciRequest(1, with("", "PING")));
    EXPECT_EQ(7, scripted.client.read().value().flowType);
    EXPECT_EQ(61448, scripted.client.read().value().gatewayRc);
    scripted.client.send(standin_test::eciRequest(2, with("", "DROP")));
    EXPECT_TRUE(scripted.client.endsInOrder());
}

// -------------------------------------------------------------------------------------- sequences

TEST(ScriptSequence, GivesOneAnswerBehindTheOtherAndStaysAtTheLast)
{
    Scripted scripted(
        "[[on]]\nprogram = \"PRICE\"\n"
        "answers = [\"first\", { text = \"then\", times = 2 }, { abend = \"LAST\" }]\n");
    std::vector<std::string> said;
    for (int i = 0; i < 6; ++i) said.push_back(scripted.ask("PRICE"));
    EXPECT_EQ((std::vector<std::string>{"first", "then", "then", "LAST", "LAST", "LAST"}), said);
}

TEST(ScriptSequence, MayBeginAgain)
{
    Scripted scripted("[[on]]\nprogram = \"PRICE\"\nagain = true\n"
                      "answers = [\"a\", { text = \"b\", times = 2 }]\n");
    std::string said;
    for (int i = 0; i < 7; ++i) said += scripted.ask("PRICE");
    EXPECT_EQ("abbabba", said);
}

TEST(ScriptSequence, MayEndBehindSoManyCalls)
{
    Scripted scripted("[[on]]\nprogram = \"PRICE\"\ntimes = 2\nanswer = \"good\"\n"
                      "[[on]]\nprogram = \"PRICE\"\nanswer = { code = -9 }\n");
    EXPECT_EQ("good", scripted.ask("PRICE"));
    EXPECT_EQ("good", scripted.ask("PRICE"));
    EXPECT_EQ("-9", scripted.ask("PRICE"));
    EXPECT_EQ("-9", scripted.ask("PRICE"));
}

TEST(ScriptSequence, MayBelongToAConnection)
{
    Scripted scripted("[[on]]\nprogram = \"PRICE\"\nper = \"connection\"\n"
                      "answers = [\"first ${call}\", \"later ${call}\"]\n");
    EXPECT_EQ("first 1", scripted.ask("PRICE"));
    EXPECT_EQ("later 2", scripted.ask("PRICE"));
    Client other(scripted.gateway.port());
    ASSERT_TRUE(other.shakeHands());
    EXPECT_EQ("first 1", Scripted::said(other.call(1, with("          "))));
}

TEST(ScriptSequence, MayBelongToAUnitOfWork)
{
    Scripted scripted("[[on]]\nprogram = \"PRICE\"\nper = \"unit\"\nanswers = [\"1\", \"2\"]\n");
    const int token = scripted.call("PRICE", 1).luwToken;
    EXPECT_EQ("2", scripted.call("PRICE", 1, token).commarea);
    EXPECT_EQ("1", scripted.call("PRICE").commarea) << "a unit of its own";
    EXPECT_EQ("1", scripted.call("PRICE").commarea);
    EXPECT_EQ("1", scripted.call("PRICE", 1).commarea) << "another unit";
    EXPECT_EQ("2", scripted.call("PRICE", 1, token).commarea);
}

// ------------------------------------------------------------------------------------------ state

namespace {

const char* const kBasket = "[[on]]\nprogram = \"ADD\"\nanswer = \"added\"\n"
                            "set.unit.basket = \"${commarea:0:4}\"\n"
                            "[[on]]\nprogram = \"SHOW\"\nif.unit.basket = \"\"\n"
                            "answer = \"empty\"\n"
                            "[[on]]\nprogram = \"SHOW\"\nif.unit.basket = [\"soap\", \"salt\"]\n"
                            "answer = \"small ${unit.basket}\"\n"
                            "[[on]]\nprogram = \"SHOW\"\nanswer = \"large ${unit.basket}\"\n"
                            "[[on]]\nprogram = \"LOGON\"\nanswer = \"hello\"\n"
                            "set.connection.user = \"${user}\"\n"
                            "[[on]]\nprogram = \"WHO\"\nanswer = \"<${connection.user}>\"\n";

} // namespace

TEST(ScriptState, BelongsToAUnitOfWorkAndGoesWithIt)
{
    Scripted scripted(kBasket);
    Call add = with("salt      ", "ADD");
    add.mode = 1;
    const int token = scripted.client.call(1, add).luwToken;
    ASSERT_NE(0, token);
    EXPECT_EQ("small salt", scripted.call("SHOW", 1, token).commarea);
    add.commarea = "sofa      ";
    add.token = token;
    EXPECT_EQ(token, scripted.client.call(2, add).luwToken);
    EXPECT_EQ("large sofa", scripted.call("SHOW", 1, token).commarea);
    EXPECT_EQ("empty", scripted.call("SHOW", 1).commarea) << "another unit";
    EXPECT_EQ("empty", scripted.call("SHOW").commarea) << "no unit";
    EXPECT_EQ(0, scripted.call("SHOW", 2, token).vornRc);
    EXPECT_EQ(-8, scripted.call("SHOW", 1, token).vornRc);
}

TEST(ScriptState, BelongsToAConnectionAndGoesWithIt)
{
    Scripted scripted(kBasket);
    Call logon = with("          ", "LOGON");
    logon.user = "FRED";
    EXPECT_EQ("hello", scripted.ask(logon));
    EXPECT_EQ("<FRED>", scripted.ask("WHO"));
    Client other(scripted.gateway.port());
    ASSERT_TRUE(other.shakeHands());
    EXPECT_EQ("<>", other.call(1, with("          ", "WHO")).commarea);
}

TEST(ScriptState, IsKeptWhenTheUnitOfWorkOfAnotherIsBackedOut)
{
    Scripted scripted(kBasket);
    Call add = with("salt      ", "ADD");
    add.mode = 1;
    const int first = scripted.client.call(1, add).luwToken;
    const int second = scripted.client.call(2, add).luwToken;
    EXPECT_EQ(0, scripted.call("SHOW", 4, second).vornRc);
    EXPECT_EQ("small salt", scripted.call("SHOW", 1, first).commarea);
}

TEST(ScriptUnitOfWork, IsBackedOutByAnAnswerWithACode)
{
    Scripted scripted("[[on]]\nprogram = \"BAD\"\nanswer = { code = -16 }\n");
    const int token = scripted.call("ECHO", 1).luwToken;
    EXPECT_EQ(0, scripted.call("BAD", 1, token).luwToken);
    EXPECT_EQ(0U, scripted.gateway.openUnitsOfWork());
}

// ------------------------------------------------------------------------------------------ users

namespace {

standin::Bytes callOf(const std::string& user, const std::string& password)
{
    Call call = with("", "PRICE");
    call.user = user;
    standin::Bytes body = standin_test::eciBody(call);
    const standin::Bytes masked = standin_test::scrambled(password);
    body[48] = static_cast<std::uint8_t>(masked.size());
    body.insert(body.begin() + 49, masked.begin(), masked.end());
    return standin_test::flow(1, 5, "ECI", body);
}

} // namespace

TEST(ScriptUsers, NeedTheirPasswords)
{
    Scripted scripted("[[user]]\nid = \"FRED\"\npassword = \"Blue7sky\"\n"
                      "[[on]]\nprogram = \"PRICE\"\nanswer = {}\n");
    const auto codeFor = [&](const std::string& user, const std::string& password) {
        scripted.client.send(callOf(user, password));
        return standin_test::takeApart(scripted.client.read().value().body).vornRc;
    };
    EXPECT_EQ(0, codeFor("FRED", "Blue7sky"));
    EXPECT_EQ(-27, codeFor("FRED", "Blue8sky"));
    EXPECT_EQ(-27, codeFor("FRED", ""));
    EXPECT_EQ(0, codeFor("ANNA", "whatever")) << "whom the script does not know";
}
