// Programs that run beside the gateway and answer calls, as a client sees them.

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <condition_variable>
#include <csignal>
#include <fstream>
#include <memory>
#include <mutex>
#include <thread>

#include "client.h"
#include "exec/exec_json.h"
#include "script/script_file.h"
#include "standin/gateway.h"
#include "temporary_directory.h"

using standin_test::Call;
using standin_test::Client;
using standin_test::Reply;
using standin_test::TemporaryDirectory;

namespace {

// The lines of a log, to look at and to wait for.
class Lines {
public:
    void add(const std::string& line)
    {
        {
            const std::lock_guard<std::mutex> guard(lock_);
            text_ += line + "\n";
        }
        changed_.notify_all();
    }

    bool await(const std::string& part)
    {
        std::unique_lock<std::mutex> guard(lock_);
        return changed_.wait_for(guard, std::chrono::seconds(30),
                                 [&] { return text_.find(part) != std::string::npos; });
    }

    std::string text()
    {
        const std::lock_guard<std::mutex> guard(lock_);
        return text_;
    }

private:
    std::mutex lock_;
    std::condition_variable changed_;
    std::string text_;
};

// A Gateway on which MINE is answered by a program.
class Exec : public testing::Test {
protected:
    ~Exec() override
    {
        if (file != nullptr) file->abandon();
        gateway.stop();
    }

    // A program of the shell, run with these keys beside it.
    void serve(const std::string& program, const std::string& keys = "")
    {
        const std::string name = directory.file("program.sh");
        std::ofstream(name) << "#!/bin/sh\n" << program;
        ::chmod(name.c_str(), 0755);
        serveCommand("\"./program.sh\"", keys);
    }

    void serveCommand(const std::string& command, const std::string& keys = "")
    {
        std::ofstream(directory.file("answers.toml"))
            << "[[on]]\nprogram = \"MINE\"\n[on.answer]\nexec = " << command << "\n"
            << keys << "\n";
        file = std::make_unique<script::ScriptFile>(
            directory.file("answers.toml"),
            [this](standin::LogLevel, const std::string& line) { lines.add(line); });
        file->serve(gateway, nullptr);
        ASSERT_TRUE(client.shakeHands());
    }

    Reply ask(const std::string& commarea = "          ", const std::string& user = "")
    {
        Call call;
        call.program = "MINE";
        call.commarea = commarea;
        call.user = user;
        return client.call(1, call);
    }

    const TemporaryDirectory directory;
    Lines lines;
    std::unique_ptr<script::ScriptFile> file;
    standin::Gateway gateway;
    Client client{gateway.port()};
};

// Answers each line with the number of its process and of the line.
const char* const kCounting = "n=0\nwhile read -r call; do\n  n=$((n + 1))\n"
                              "  echo \"{\\\"commarea\\\": \\\"$$ $n\\\"}\"\ndone\n";

} // namespace

TEST_F(Exec, OfTheExampleInPythonAnswersACall)
{
    serveCommand("\"" EXEC_EXAMPLES "/price.py\"");
    EXPECT_EQ("100105       1.20", ask("100105" + std::string(20, ' ')).commarea);
    EXPECT_EQ("NOAR", ask("4711  ").abendCode);
    EXPECT_EQ("100106       3.95", ask("100106" + std::string(20, ' ')).commarea);
}

TEST_F(Exec, OfTheExampleInShellAnswersEachCallWithANewProcess)
{
    serveCommand("\"" EXEC_EXAMPLES "/greet.sh\"", "workers = 1");
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ("Hello, FRED!", ask(std::string(20, ' '), "FRED").commarea);
    EXPECT_EQ("Hello, ANNA!", ask(std::string(20, ' '), "ANNA").commarea);
}

TEST_F(Exec, KeepsItsProcessFromCallToCall)
{
    serve(kCounting, "workers = 1");
    const std::string first = ask("                    ").commarea;
    const std::string process = first.substr(0, first.find(' '));
    EXPECT_EQ(process + " 2", ask("                    ").commarea);
    EXPECT_EQ(process + " 3", ask("                    ").commarea);
}

TEST_F(Exec, IsGivenTheCallAsOneLineOfJson)
{
    serve("read -r call\necho \"$call\" >call.json\necho {}\n");
    Call call;
    call.program = "MINE";
    call.commarea = std::string("4711\xE4\0\0", 7);
    call.mode = 1;
    call.user = "FRED";
    call.channel = standin_test::channelSection(
        "ORDER", 819,
        {standin_test::record("NAME", 1, 2, 37, 2, "\xC1\xC2"),
         standin_test::record("DATA", 1, 1, 0, 2, "\x01\xFF")});
    EXPECT_EQ(0, client.call(3, call).vornRc);
    std::string line;
    std::getline(std::ifstream(directory.file("call.json")), line);
    EXPECT_EQ("{\"program\":\"MINE\",\"transaction\":\"TRN1\",\"server\":\"SERVER1\","
              "\"user\":\"FRED\",\"mode\":\"extended\",\"unit\":1,\"commarea\":{\"length\":7,"
              "\"text\":\"4711\xC3\xA4\",\"hex\":\"34373131e40000\"},\"channel\":{\"name\":"
              "\"ORDER\",\"ccsid\":819,\"containers\":[{\"name\":\"NAME\",\"type\":\"char\","
              "\"ccsid\":37,\"length\":2,\"text\":\"AB\",\"hex\":\"c1c2\"},{\"name\":\"DATA\","
              "\"type\":\"bit\",\"ccsid\":0,\"length\":2,\"hex\":\"01ff\"}]},\"connection\":1,"
              "\"message\":3}",
              line);
}

TEST_F(Exec, MayAnswerWithACodeOrAMisbehaviour)
{
    serve("read -r call\necho '{\"code\": -16}'\n");
    EXPECT_EQ(-16, ask().vornRc);
}

TEST_F(Exec, MayHaveItsConnectionDropped)
{
    serve("read -r call\necho '{\"fault\": \"drop\"}'\n");
    Call call;
    call.program = "MINE";
    client.send(standin_test::eciRequest(1, call));
    EXPECT_TRUE(client.endsInOrder());
}

TEST_F(Exec, ThatCrashesIsAnAbendAndStartsAnewWithTheNextCall)
{
    serve("read -r call\ncase $call in *crash*) kill -SEGV $$ ;; *leave*) exit 3 ;; esac\n"
          "echo '{\"commarea\": \"good\"}'\nread -r call\nkill -SEGV $$\n",
          "workers = 1");
    EXPECT_EQ("AEXC", ask("crash").abendCode);
    EXPECT_TRUE(lines.await("abends with AEXC: it was ended by signal 11\n")) << lines.text();
    EXPECT_EQ("AEXC", ask("leave").abendCode);
    EXPECT_TRUE(lines.await("abends with AEXC: it has ended with code 3\n")) << lines.text();
    EXPECT_EQ("good", ask("hello     ").commarea);
    EXPECT_EQ("AEXC", ask("again     ").abendCode) << "in the second line of the same process";
    EXPECT_EQ("good", ask("hello     ").commarea);
}

TEST_F(Exec, ThatEndsWithoutAnAnswerIsAnAbendAlsoWhenItEndsInOrder)
{
    serve("read -r call\n");
    EXPECT_EQ("AEXC", ask().abendCode);
    EXPECT_EQ("AEXC", ask().abendCode);
}

TEST_F(Exec, ThatTakesTooLongIsEndedAndTheCallAbends)
{
    serve("read -r call\necho $$ >process\nread -r never\n", "limit = \"1s\"");
    EXPECT_EQ("AEXT", ask().abendCode);
    int process = 0;
    std::ifstream(directory.file("process")) >> process;
    ASSERT_GT(process, 0);
    EXPECT_EQ(-1, ::kill(process, 0));
    EXPECT_TRUE(lines.await("abends with AEXT: its time is over")) << lines.text();
}

TEST_F(Exec, ThatSaysWhatIsNoAnswerIsAnAbend)
{
    const std::pair<const char*, const char*> cases[] = {
        {"hello", "it is no JSON"},
        {"[]", "the answer is no object"},
        {"{\"cod\": 3}", "the answer has a key other than commarea, containers, code, abend, "
                         "gateway and fault"},
        {"{\"code\": \"x\"}", "code is no number of 32 bits"},
        {"{\"code\": 1e3}", "code is no number of 32 bits"},
        {"{\"code\": 2147483648}", "code is no number of 32 bits"},
        {"{\"code\": 18446744073709551615}", "code is no number of 32 bits"},
        {"{\"commarea\": 3}", "commarea is no text"},
        {"{\"commarea\": {}}", "commarea needs either text or hex"},
        {"{\"commarea\": {\"hex\": \"1\"}}", "hex is no even number of hexadecimal digits"},
        {"{\"commarea\": {\"text\": \"\", \"ccsid\": 4711}}", "a CCSID is not known"},
        {"{\"abend\": \"\"}", "abend is no code of 1 to 4 printable characters"},
        {"{\"containers\": {\"A\": \"\"}}", "there are containers, and the call has no channel"},
        {"{\"fault\": \"pieces=7\"}", "fault is no misbehaviour that strikes at answers"},
    };
    const standin::EciRequest request;
    for (const auto& [line, problem] : cases) {
        try {
            exec::replyFrom(line, request);
            ADD_FAILURE() << line;
        } catch (const exec::BadAnswer& bad) {
            EXPECT_STREQ(problem, bad.what()) << line;
        }
    }
    serve("read -r call\necho hello\n");
    EXPECT_EQ("AEXJ", ask().abendCode);
}

TEST_F(Exec, ChangesContainers)
{
    serve("read -r call\necho '{\"containers\": {\"OLD\": null, \"NAME\": \"Anna\", "
          "\"NEW\": {\"hex\": \"01\"}}}'\n");
    Call call;
    call.program = "MINE";
    call.channel = standin_test::channelSection(
        "ORDER", 819,
        {standin_test::record("OLD", 1, 1, 0, 1, "x"),
         standin_test::record("NAME", 1, 2, 819, 4, "Fred")});
    EXPECT_EQ(standin_test::channelSection("ORDER", 819,
                                           {standin_test::record("OLD", 2, 1, 0, 0),
                                            standin_test::record("NAME", 3, 2, 819, 4, "Anna"),
                                            standin_test::record("NEW", 1, 1, 0, 1, "\x01")}),
              client.call(1, call).channel);
}

TEST_F(Exec, ThatSaysMoreThanOneLineIsNotAskedAgain)
{
    serve("read -r call\nprintf '{\"commarea\": \"one\"}\\n{\"commarea\": \"two\"}\\n'\n"
          "read -r call\necho '{\"commarea\": \"three\"}'\n",
          "workers = 1");
    EXPECT_EQ("one", ask().commarea);
    EXPECT_EQ("one", ask().commarea) << "by a new process";
    EXPECT_TRUE(lines.await("it has written more than one line for a call; it is ended\n"))
        << lines.text();
}

TEST_F(Exec, ThatCannotBeStartedIsAnAbend)
{
    serveCommand("\"there-is-no-such-program\"");
    EXPECT_EQ("AEXS", ask().abendCode);
    EXPECT_TRUE(lines.await("abends with AEXS: it cannot be started: No such file"))
        << lines.text();
}

TEST_F(Exec, HasItsStandardErrorInTheLog)
{
    serve("read -r call\necho 'what is this?' >&2\necho {}\n");
    EXPECT_EQ(0, ask().vornRc);
    EXPECT_TRUE(lines.await("exec ./program.sh: worker 1: what is this?\n")) << lines.text();
}

TEST_F(Exec, BlocksNobodyWhileItWorks)
{
    serve("read -r call\nread -r never\n", "limit = \"1min\"");
    Call mine;
    mine.program = "MINE";
    client.send(standin_test::eciRequest(1, mine));
    Call echo;
    echo.commarea = "hello";
    EXPECT_EQ("hello", client.call(2, echo).commarea);
    file->abandon(); // and nobody waits for it at the end
    EXPECT_EQ("AEXT", standin_test::takeApart(client.read().value().body).abendCode);
}

TEST_F(Exec, WorksOnSeveralCallsAtOnce)
{
    // Each waits until the other one is there.
    serve("read -r call\n>\"here.$$\"\nwhile [ \"$(ls here.* | wc -l)\" -lt 2 ]; do :; done\n"
          "echo {}\n",
          "workers = 2");
    Call mine;
    mine.program = "MINE";
    client.send(standin_test::eciRequest(1, mine));
    client.send(standin_test::eciRequest(2, mine));
    EXPECT_TRUE(client.read());
    EXPECT_TRUE(client.read());
}

TEST_F(Exec, HasNoneOfTheGatewaysSocketsOpen)
{
    serve("read -r call\nls -l /proc/$$/fd | grep -c socket >open\necho {}\n");
    EXPECT_EQ(0, ask().vornRc);
    std::string open;
    std::getline(std::ifstream(directory.file("open")), open);
    EXPECT_EQ("0", open);
}

TEST_F(Exec, IsReplacedWithItsScriptAndAnswersWhatItWasGiven)
{
    serve("read -r call\n>asked\nwhile [ ! -e go ]; do :; done\necho '{\"commarea\": \"old\"}'\n",
          "limit = \"1min\"");
    Call mine;
    mine.program = "MINE";
    mine.commarea = "    ";
    client.send(standin_test::eciRequest(1, mine));
    ASSERT_TRUE(gateway.awaitRequests());
    std::ofstream(directory.file("answers.toml"))
        << "[[on]]\nprogram = \"MINE\"\nanswer = \"new\"\n";
    ASSERT_TRUE(lines.await("is read again"));
    EXPECT_EQ("new", client.call(2, mine).commarea);
    std::ofstream(directory.file("go")) << "";
    const standin_test::Received late = client.read().value();
    EXPECT_EQ(1, late.messageId);
    EXPECT_EQ("old", standin_test::takeApart(late.body).commarea);
}
