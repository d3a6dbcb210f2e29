// The plain C interface: what a program of C can make the stand-in do, and what it is told.

#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "client.h"
#include "scrambled.h"
#include "standin.h"
#include "temporary_directory.h"

using standin_test::Bytes;
using standin_test::Call;
using standin_test::Client;
using standin_test::Raw;
using standin_test::Reply;

namespace {

constexpr int kLimit = 30000;

Call callOf(const std::string& program, const std::string& commarea = "")
{
    Call call;
    call.program = program;
    call.commarea = commarea;
    return call;
}

Call channelCall(const std::string& program)
{
    Call call = callOf(program);
    call.channel = standin_test::channelSection("ORDER", 819,
                                                {standin_test::record("ITEM", 1, 2, 819, 3, "nut"),
                                                 standin_test::record("OLD", 1, 1, 0, 2, "xy")});
    return call;
}

std::string textOf(const void* data, std::size_t length)
{
    return length == 0 ? std::string() : std::string(static_cast<const char*>(data), length);
}

// A call that was read back.
class ReadCall {
public:
    ReadCall(standin_gateway* gateway, std::size_t number)
    {
        EXPECT_EQ(STANDIN_OK, standin_read_call(gateway, number, &call_)) << standin_problem();
    }
    ~ReadCall() { standin_free_call(call_); }

    ReadCall(const ReadCall&) = delete;
    ReadCall& operator=(const ReadCall&) = delete;

    operator const standin_call*() const { return call_; }

    std::string commarea() const
    {
        std::size_t length = 7;
        const void* const data = standin_call_commarea(call_, &length);
        return textOf(data, length);
    }
    std::string answer() const
    {
        std::size_t length = 7;
        const void* const data = standin_call_answer_commarea(call_, &length);
        return textOf(data, length);
    }

private:
    standin_call* call_ = nullptr;
};

class TheCInterface : public testing::Test {
protected:
    TheCInterface()
    {
        EXPECT_EQ(STANDIN_OK, standin_start(&gateway)) << standin_problem();
        client = std::make_unique<Client>(static_cast<std::uint16_t>(standin_port(gateway)));
        EXPECT_TRUE(client->shakeHands());
    }
    ~TheCInterface() override
    {
        client.reset();
        EXPECT_EQ(STANDIN_OK, standin_stop(gateway));
    }

    // Answers the program's calls with what the function does to the answer.
    using Function = std::function<void(const standin_call*, standin_answer*)>;
    void answer(const char* program, Function function)
    {
        functions.push_back(std::make_unique<Function>(std::move(function)));
        const auto run = [](const standin_call* call, standin_answer* answer, void* context) {
            (*static_cast<Function*>(context))(call, answer);
        };
        ASSERT_EQ(STANDIN_OK, standin_set_program(gateway, program, run, functions.back().get()));
    }

    std::vector<std::unique_ptr<Function>> functions;
    standin_gateway* gateway = nullptr;
    std::unique_ptr<Client> client;
};

Bytes verifyRequest(int messageId)
{
    return standin_test::flow(1, messageId, "ESI",
                              Raw()
                                  .int32(0)
                                  .padded("FRED", 10)
                                  .int32(6)
                                  .bytes(standin_test::scrambled("SECRET"))
                                  .padded("SYS1", 8));
}

Bytes listQuery(int room)
{
    return Raw().int32(9).int32(room).int16(0).byte(0).int32(-1).int32(1);
}

const char* const kPatternScript =
    "[[on]]\nprogram = \"PRICE\"\ncommarea = { pattern = \"^fl\" }\nanswer = \"42\"\n";

} // namespace

TEST_F(TheCInterface, AnswersACallWithTheCommareaOfAFunction)
{
    answer("PRICE", [](const standin_call* call, standin_answer* answer) {
        std::size_t length = 0;
        const void* const area = standin_call_commarea(call, &length);
        std::string text = textOf(area, length);
        text = std::string(text.rbegin(), text.rend()) + ", and more than there is room for";
        EXPECT_EQ(STANDIN_OK, standin_answer_commarea(answer, text.data(), text.size()));
    });
    EXPECT_EQ("ruolf", client->call(1, callOf("PRICE", "flour")).commarea);
}

TEST_F(TheCInterface, ShowsAFunctionWhatCame)
{
    std::string seen;
    answer("PRICE", [&](const standin_call* call, standin_answer*) {
        seen = std::string(standin_call_program(call)) + "/" + standin_call_user(call) + "/" +
               std::to_string(standin_call_type(call)) + "/" +
               std::to_string(standin_call_connection(call)) + "/" +
               std::to_string(standin_call_message(call)) + "/" +
               std::to_string(standin_call_is_done(call));
    });
    Call call = callOf("PRICE");
    call.user = "FRED";
    client->call(5, call);
    EXPECT_EQ("PRICE/FRED/1/1/5/0", seen);
}

TEST_F(TheCInterface, LeavesTheCommareaAsItIsWhenAFunctionSaysNothing)
{
    answer("PRICE", [](const standin_call*, standin_answer*) {});
    const Reply reply = client->call(1, callOf("PRICE", "flour"));
    EXPECT_EQ(0, reply.vornRc);
    EXPECT_EQ(0, reply.commareaLength);
}

TEST_F(TheCInterface, AnswersWithOneCommareaForAll)
{
    ASSERT_EQ(STANDIN_OK, standin_set_commarea(gateway, "PRICE", "42.00", 5));
    EXPECT_EQ("42.00", client->call(1, callOf("PRICE", "flour")).commarea);
}

TEST_F(TheCInterface, AnswersWithCodes)
{
    answer("CODE", [](const standin_call*, standin_answer* answer) {
        standin_answer_commarea(answer, "lost", 4);
        standin_answer_code(answer, -16);
    });
    answer("ABND", [](const standin_call*, standin_answer* answer) {
        standin_answer_abend(answer, "AXY");
    });
    const Reply code = client->call(1, callOf("CODE", "flour"));
    EXPECT_EQ(-16, code.vornRc);
    EXPECT_EQ("", code.commarea);
    const Reply abend = client->call(2, callOf("ABND"));
    EXPECT_EQ(-7, abend.vornRc);
    EXPECT_EQ("AXY ", abend.abendCode);
}

TEST_F(TheCInterface, AnswersWithACodeOfTheGateway)
{
    answer("CODE", [](const standin_call*, standin_answer* answer) {
        standin_answer_gateway(answer, 61446);
    });
    client->send(standin_test::eciRequest(1, callOf("CODE")));
    EXPECT_EQ(61446, client->read().value().gatewayRc);
}

TEST_F(TheCInterface, ShowsAndChangesAChannel)
{
    std::string seen;
    answer("EDIT", [&](const standin_call* call, standin_answer* answer) {
        seen = standin_call_channel(call);
        standin_container container;
        for (std::size_t i = 0; standin_call_container(call, i, &container) == STANDIN_OK; ++i) {
            seen += std::string(" ") + container.name + "=" +
                    textOf(container.data, container.length) + ":" +
                    std::to_string(container.ccsid);
        }
        EXPECT_EQ(STANDIN_OK, standin_call_find_container(call, "OLD", &container));
        EXPECT_EQ("xy", textOf(container.data, container.length));
        EXPECT_EQ(STANDIN_ERR_NO_CALL, standin_call_find_container(call, "NONE", &container));
        EXPECT_EQ(STANDIN_OK, standin_answer_container(answer, "PRICE", 819, "42", 2));
        EXPECT_EQ(STANDIN_OK, standin_answer_delete_container(answer, "OLD"));
        EXPECT_EQ(STANDIN_ERR_NO_CALL, standin_answer_delete_container(answer, "OLD"));
    });
    EXPECT_EQ(standin_test::channelSection("ORDER", 819,
                                           {standin_test::record("ITEM", 4, 2, 819, 3),
                                            standin_test::record("OLD", 2, 1, 0, 0),
                                            standin_test::record("PRICE", 1, 2, 819, 2, "42")}),
              client->call(1, channelCall("EDIT")).channel);
    EXPECT_EQ("ORDER ITEM=nut:819 OLD=xy:0", seen);

    const ReadCall call(gateway, 1);
    ASSERT_EQ(3U, standin_call_answer_containers(call));
    const std::pair<int, std::size_t> expected[] = {{4, 0}, {2, 0}, {1, 2}};
    for (std::size_t i = 0; i < 3; ++i) {
        standin_container container;
        ASSERT_EQ(STANDIN_OK, standin_call_answer_container(call, i, &container));
        EXPECT_EQ(expected[i], std::make_pair(container.change, container.length)) << i;
    }
}

TEST_F(TheCInterface, PutsNoContainerIntoACallWithoutAChannel)
{
    answer("EDIT", [](const standin_call* call, standin_answer* answer) {
        EXPECT_STREQ("", standin_call_channel(call));
        EXPECT_EQ(STANDIN_ERR_STATE, standin_answer_container(answer, "PRICE", 0, "42", 2));
        EXPECT_EQ(STANDIN_ERR_STATE, standin_answer_delete_container(answer, "PRICE"));
    });
    EXPECT_EQ(0, client->call(1, callOf("EDIT")).vornRc);
}

TEST_F(TheCInterface, ReadsACallBackWithItsAnswer)
{
    ASSERT_EQ(STANDIN_OK, standin_set_commarea(gateway, "PRICE", "42", 2));
    Call called = callOf("PRICE", "flour");
    called.user = "FRED";
    client->call(1, callOf("NOBODY"));
    client->call(2, called);
    const ReadCall none(gateway, 1);
    EXPECT_STREQ("NOBODY", standin_call_program(none));
    EXPECT_EQ(-7, standin_call_code(none));
    EXPECT_STREQ("AEI0", standin_call_abend(none));
    const ReadCall call(gateway, 2);
    EXPECT_EQ(STANDIN_CALL_PROGRAM, standin_call_type(call));
    EXPECT_STREQ("PRICE", standin_call_program(call));
    EXPECT_STREQ("FRED", standin_call_user(call));
    EXPECT_EQ("flour", call.commarea());
    EXPECT_EQ(1, standin_call_is_done(call));
    EXPECT_EQ("42", call.answer());
    EXPECT_STREQ("", standin_call_abend(call));
    EXPECT_EQ(32U + 37U - 4U, standin_call_sent(call));
}

TEST_F(TheCInterface, WaitsForCallsAndForTheirAnswers)
{
    EXPECT_EQ(STANDIN_ERR_TIME, standin_await_calls(gateway, 1, 0));
    ASSERT_EQ(STANDIN_OK, standin_misbehave(gateway, "hold"));
    client->send(standin_test::eciRequest(1, callOf("ECHO")));
    EXPECT_EQ(STANDIN_OK, standin_await_calls(gateway, 1, kLimit));
    EXPECT_EQ(STANDIN_OK, standin_await_held(gateway, 1, kLimit));
    EXPECT_EQ(1U, standin_call_count(gateway));
    EXPECT_EQ(0U, standin_answer_count(gateway));
    EXPECT_EQ(STANDIN_ERR_TIME, standin_await_answers(gateway, 1, 0));
    EXPECT_EQ(0, standin_call_is_done(ReadCall(gateway, 1)));
    ASSERT_EQ(STANDIN_OK, standin_release(gateway));
    EXPECT_EQ(STANDIN_OK, standin_await_answers(gateway, 1, kLimit));
    EXPECT_EQ(1, standin_call_is_done(ReadCall(gateway, 1)));
    EXPECT_TRUE(client->read());
}

TEST_F(TheCInterface, CountsACallThatIsLostAsAnswered)
{
    ASSERT_EQ(STANDIN_OK, standin_misbehave(gateway, "hold"));
    client->send(standin_test::eciRequest(1, callOf("ECHO")));
    ASSERT_EQ(STANDIN_OK, standin_await_held(gateway, 1, kLimit));
    ASSERT_EQ(STANDIN_OK, standin_reset(gateway, 1));
    EXPECT_EQ(STANDIN_OK, standin_await_answers(gateway, 1, kLimit));
    EXPECT_EQ(0U, standin_call_sent(ReadCall(gateway, 1)));
}

TEST_F(TheCInterface, CountsAnewOnceItHasForgotten)
{
    ASSERT_EQ(STANDIN_OK, standin_misbehave(gateway, "hold@message:1"));
    client->send(standin_test::eciRequest(1, callOf("ECHO", "first")));
    ASSERT_EQ(STANDIN_OK, standin_await_held(gateway, 1, kLimit));
    ASSERT_EQ(STANDIN_OK, standin_forget(gateway));
    EXPECT_EQ(0U, standin_call_count(gateway));
    standin_call* call = nullptr;
    EXPECT_EQ(STANDIN_ERR_NO_CALL, standin_read_call(gateway, 1, &call));
    EXPECT_EQ(nullptr, call);
    ASSERT_EQ(STANDIN_OK, standin_release(gateway)); // an answer to what is forgotten
    ASSERT_TRUE(client->read());
    client->call(2, callOf("ECHO", "second"));
    EXPECT_EQ(1U, standin_answer_count(gateway));
    EXPECT_EQ("second", ReadCall(gateway, 1).commarea());
}

TEST_F(TheCInterface, MisbehavesAndBehaves)
{
    ASSERT_EQ(STANDIN_OK, standin_misbehave(gateway, "flow-error=61445@program:ECHO"));
    client->send(standin_test::eciRequest(1, callOf("ECHO")));
    EXPECT_EQ(61445, client->read().value().gatewayRc);
    EXPECT_STREQ("flow-error", standin_call_faults(ReadCall(gateway, 1)));
    EXPECT_EQ(61445, standin_call_gateway(ReadCall(gateway, 1)));
    ASSERT_EQ(STANDIN_OK, standin_behave(gateway));
    EXPECT_EQ(0, client->call(2, callOf("ECHO")).vornRc);
}

TEST_F(TheCInterface, SpoilsASingleAnswer)
{
    answer("PRICE", [](const standin_call*, standin_answer* answer) {
        EXPECT_EQ(STANDIN_OK, standin_answer_fault(answer, "gateway-rc=61446"));
        EXPECT_EQ(STANDIN_OK, standin_answer_delay(answer, 1));
        EXPECT_EQ(STANDIN_ERR_FAULT, standin_answer_fault(answer, "drop@once"));
        EXPECT_EQ(STANDIN_ERR_FAULT, standin_answer_fault(answer, "drop-at-connect"));
        EXPECT_EQ(STANDIN_ERR_FAULT, standin_answer_fault(answer, "no-such-thing"));
        EXPECT_EQ(STANDIN_ERR_ARGUMENT, standin_answer_delay(answer, -1));
    });
    client->send(standin_test::eciRequest(1, callOf("PRICE")));
    EXPECT_EQ(61446, client->read().value().gatewayRc);
    EXPECT_LE(1000, standin_call_microseconds(ReadCall(gateway, 1)));
}

TEST_F(TheCInterface, EndsConnections)
{
    EXPECT_EQ(STANDIN_ERR_NO_CALL, standin_drop(gateway, 2));
    ASSERT_EQ(STANDIN_OK, standin_send_close(gateway, 1));
    EXPECT_EQ(10, client->read().value().flowType);
    ASSERT_EQ(STANDIN_OK, standin_drop(gateway, 0));
    EXPECT_TRUE(client->endsInOrder());
}

TEST_F(TheCInterface, AnswersRequestsAboutPasswordsAndShowsThemToTheFunctionAlone)
{
    static std::string seen;
    const auto check = [](const standin_call* call, standin_answer* answer, void*) {
        seen = std::string(standin_call_user(call)) + "/" + standin_call_password(call) + "/" +
               standin_call_new_password(call) + "/" + std::to_string(standin_call_type(call));
        EXPECT_EQ(STANDIN_ERR_STATE, standin_answer_delay(answer, 1));
        standin_answer_code(answer, -106);
    };
    ASSERT_EQ(STANDIN_OK, standin_set_passwords(gateway, check, nullptr));
    client->send(verifyRequest(1));
    ASSERT_TRUE(client->read());
    EXPECT_EQ("FRED/SECRET//3", seen);
    const ReadCall call(gateway, 1);
    EXPECT_EQ(STANDIN_CALL_VERIFY, standin_call_type(call));
    EXPECT_EQ(-106, standin_call_code(call));
    EXPECT_STREQ("FRED", standin_call_user(call));
    EXPECT_STREQ("", standin_call_password(call));
}

TEST_F(TheCInterface, CountsMalformedFlows)
{
    Bytes body = standin_test::eciBody(callOf("ECHO"));
    body.pop_back();
    client->send(standin_test::flow(1, 1, "ECI", body));
    ASSERT_TRUE(client->read());
    EXPECT_EQ(1U, standin_finding_count(gateway));
    const ReadCall call(gateway, 1);
    EXPECT_EQ(STANDIN_CALL_MALFORMED, standin_call_type(call));
    EXPECT_STRNE("", standin_call_problem(call));
}

TEST_F(TheCInterface, ShowsTheSystemsThatWereAdded)
{
    ASSERT_EQ(STANDIN_OK, standin_add_system(gateway, "SYS1", "the first"));
    ASSERT_EQ(STANDIN_OK, standin_add_system(gateway, "SYS2", ""));
    EXPECT_EQ(STANDIN_ERR_ARGUMENT, standin_add_system(gateway, "TOOLONGNAME", ""));
    EXPECT_EQ(STANDIN_ERR_ARGUMENT, standin_add_system(gateway, "SYS3", nullptr));
    client->send(standin_test::flow(1, 1, "ECI", listQuery(5)));
    const std::string list = standin_test::textOf(client->read().value().body);
    EXPECT_NE(std::string::npos, list.find("SYS1"));
    EXPECT_NE(std::string::npos, list.find("the first"));
    EXPECT_NE(std::string::npos, list.find("SYS2"));
    EXPECT_EQ(std::string::npos, list.find("SYS3"));
    EXPECT_EQ(STANDIN_CALL_LIST, standin_call_type(ReadCall(gateway, 1)));
}

TEST_F(TheCInterface, RefusesEverythingElseWithinAFunction)
{
    answer("PRICE", [this](const standin_call*, standin_answer*) {
        EXPECT_EQ(STANDIN_ERR_INSIDE, standin_await_calls(gateway, 1, 0));
        EXPECT_EQ(STANDIN_ERR_INSIDE, standin_misbehave(gateway, "drop"));
        EXPECT_EQ(STANDIN_ERR_INSIDE, standin_stop(gateway));
    });
    EXPECT_EQ(0, client->call(1, callOf("PRICE")).vornRc);
    EXPECT_EQ(STANDIN_OK, standin_await_calls(gateway, 1, 0));
}

TEST_F(TheCInterface, AnswersAsAScriptSays)
{
    const standin_test::TemporaryDirectory folder;
    const std::string file = folder.file("answers.toml");
    std::ofstream(file) << "[[on]]\nprogram = \"PRICE\"\nanswer = \"42.00\"\n";
    ASSERT_EQ(STANDIN_OK, standin_set_script(gateway, file.c_str())) << standin_problem();
    EXPECT_EQ("42.00", client->call(1, callOf("PRICE", "flour")).commarea.substr(0, 5));
    ASSERT_EQ(STANDIN_OK, standin_set_script(gateway, nullptr));
    EXPECT_EQ("AEI0", client->call(2, callOf("PRICE", "flour")).abendCode);
}

TEST_F(TheCInterface, SaysWhereAScriptIsWrongAndKeepsTheOneBefore)
{
    const standin_test::TemporaryDirectory folder;
    const std::string good = folder.file("good.toml");
    const std::string bad = folder.file("bad.toml");
    std::ofstream(good) << "[[on]]\nprogram = \"PRICE\"\nanswer = \"42.00\"\n";
    std::ofstream(bad) << "[[on]]\nprogramme = \"PRICE\"\nanswer = \"1\"\n";
    ASSERT_EQ(STANDIN_OK, standin_set_script(gateway, good.c_str()));
    EXPECT_EQ(STANDIN_ERR_SCRIPT, standin_set_script(gateway, bad.c_str()));
    EXPECT_EQ(0U, std::string(standin_problem()).find(bad + ": line 2, column 1: "))
        << standin_problem();
    EXPECT_EQ(STANDIN_ERR_SCRIPT, standin_set_script(gateway, folder.file("none").c_str()));
    EXPECT_EQ(0, client->call(1, callOf("PRICE", "flour")).vornRc);
}

#ifdef STANDIN_HAS_PATTERNS
TEST_F(TheCInterface, TakesPatternsInAScript)
{
    const standin_test::TemporaryDirectory folder;
    const std::string file = folder.file("answers.toml");
    std::ofstream(file) << kPatternScript;
    ASSERT_EQ(STANDIN_OK, standin_set_script(gateway, file.c_str())) << standin_problem();
    EXPECT_EQ(0, client->call(1, callOf("PRICE", "flour")).vornRc);
    EXPECT_EQ(-7, client->call(2, callOf("PRICE", "rice")).vornRc);
}
#else
TEST_F(TheCInterface, RefusesPatternsInAScriptWhereTheirLibraryIsMissing)
{
    const standin_test::TemporaryDirectory folder;
    const std::string file = folder.file("answers.toml");
    std::ofstream(file) << kPatternScript;
    EXPECT_EQ(STANDIN_ERR_SCRIPT, standin_set_script(gateway, file.c_str()));
    EXPECT_EQ(file + ": line 3, column 24: this build has no patterns, since there was no RE2 of "
                     "its word size",
              standin_problem());
}
#endif

#ifndef STANDIN_HAS_PASSWORDS
TEST_F(TheCInterface, RefusesPasswordsInAScriptWhereTheirLibraryIsMissing)
{
    const standin_test::TemporaryDirectory folder;
    const std::string file = folder.file("answers.toml");
    std::ofstream(file) << "[[user]]\nid = \"FRED\"\npassword = \"SECRET\"\n";
    EXPECT_EQ(STANDIN_ERR_SCRIPT, standin_set_script(gateway, file.c_str()));
    EXPECT_NE(std::string::npos, std::string(standin_problem()).find("no libcrypt"));
    EXPECT_EQ(std::string::npos, std::string(standin_problem()).find("SECRET"));
}
#endif

TEST_F(TheCInterface, RefusesValuesOutOfTheirRanges)
{
    const auto function = [](const standin_call*, standin_answer*, void*) {};
    EXPECT_EQ(STANDIN_ERR_ARGUMENT, standin_set_program(gateway, "", function, nullptr));
    EXPECT_EQ(STANDIN_ERR_ARGUMENT, standin_set_program(gateway, "NINECHARS", function, nullptr));
    EXPECT_EQ(STANDIN_ERR_ARGUMENT, standin_set_program(gateway, nullptr, function, nullptr));
    EXPECT_EQ(STANDIN_ERR_ARGUMENT, standin_set_program(gateway, "PRICE", nullptr, nullptr));
    EXPECT_EQ(STANDIN_OK, standin_set_program(gateway, "EIGHTCHR", function, nullptr));
    const std::string area(32768, 'x');
    EXPECT_EQ(STANDIN_OK, standin_set_commarea(gateway, "PRICE", area.data(), 32767));
    EXPECT_EQ(STANDIN_ERR_ARGUMENT, standin_set_commarea(gateway, "PRICE", area.data(), 32768));
    EXPECT_EQ(STANDIN_ERR_ARGUMENT, standin_set_commarea(gateway, "PRICE", nullptr, 1));
    EXPECT_EQ(STANDIN_OK, standin_set_commarea(gateway, "PRICE", nullptr, 0));
    EXPECT_EQ(STANDIN_ERR_FAULT, standin_misbehave(gateway, "no-such-thing"));
    EXPECT_STRNE("", standin_problem());
    EXPECT_EQ(STANDIN_ERR_ARGUMENT, standin_misbehave(gateway, nullptr));
    EXPECT_EQ(STANDIN_ERR_ARGUMENT, standin_await_calls(gateway, 1, -1));
    EXPECT_EQ(STANDIN_ERR_ARGUMENT, standin_drop(gateway, -1));
    EXPECT_EQ(STANDIN_ERR_ARGUMENT, standin_behave(nullptr));
    EXPECT_EQ(STANDIN_ERR_ARGUMENT, standin_read_call(gateway, 1, nullptr));
    EXPECT_EQ(STANDIN_ERR_ARGUMENT, standin_start(nullptr));
    EXPECT_EQ(STANDIN_OK, standin_stop(nullptr));
    EXPECT_EQ(0, standin_port(nullptr));
    EXPECT_STREQ("", standin_call_program(nullptr));
    EXPECT_EQ(nullptr, standin_call_commarea(nullptr, nullptr));
}

TEST(TheCInterfaceAtItsStart, SaysThatAPortIsTaken)
{
    standin_gateway* first = nullptr;
    standin_gateway* second = nullptr;
    ASSERT_EQ(STANDIN_OK, standin_start_at(&first, "127.0.0.1", 0, nullptr, nullptr));
    EXPECT_EQ(STANDIN_ERR_LISTEN,
              standin_start_at(&second, nullptr, standin_port(first), nullptr, nullptr));
    EXPECT_EQ(nullptr, second);
    EXPECT_NE(std::string::npos,
              std::string(standin_problem()).find(std::to_string(standin_port(first))));
    EXPECT_EQ(STANDIN_ERR_ARGUMENT, standin_start_at(&second, "", 0, nullptr, nullptr));
    EXPECT_EQ(STANDIN_ERR_ARGUMENT, standin_start_at(&second, nullptr, 65536, nullptr, nullptr));
    EXPECT_EQ(STANDIN_OK, standin_stop(first));
}

TEST(TheCInterfaceAtItsStart, TellsALogWhatHappens)
{
    static std::mutex lock;
    static std::string lines;
    const auto log = [](int level, const char* line, void* context) {
        const std::lock_guard<std::mutex> guard(lock);
        lines += std::to_string(level) + static_cast<const char*>(context) + line + "\n";
    };
    char context[] = "> ";
    standin_gateway* gateway = nullptr;
    ASSERT_EQ(STANDIN_OK, standin_start_at(&gateway, nullptr, 0, log, context));
    EXPECT_TRUE(Client(static_cast<std::uint16_t>(standin_port(gateway))).shakeHands());
    EXPECT_EQ(STANDIN_OK, standin_stop(gateway));
    EXPECT_NE(std::string::npos, lines.find("1> connection 1: accepted")) << lines;
}
