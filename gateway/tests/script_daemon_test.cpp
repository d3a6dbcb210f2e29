// Scripts of qpxgatewayd as a process: the option, and a file that changes while it runs.

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <csignal>
#include <filesystem>
#include <fstream>

#include "client.h"
#include "daemon.h"
#include "document_example.h"
#include "temporary_directory.h"

using standin_test::Call;
using standin_test::Client;
using standin_test::Daemon;
using standin_test::TemporaryDirectory;

namespace {

std::string answering(const std::string& text)
{
    return "[[on]]\nprogram = \"PRICE\"\nanswer = \"" + text + "\"\n";
}

class DaemonScript : public testing::Test {
protected:
    void write(const std::string& text) { std::ofstream(file) << text; }

    static std::string ask(Client& client, const std::string& program = "PRICE")
    {
        Call call;
        call.program = program;
        call.commarea = std::string(40, ' ');
        return client.call(1, call).commarea;
    }

    const TemporaryDirectory directory;
    const std::string file = directory.file("answers.toml");
};

} // namespace

TEST_F(DaemonScript, ThatIsWrongAtTheStartEndsWithCode7AndNamesFileLineAndColumn)
{
    write("[[on]]\nprogram = \"PRICE\"\nanswer = { abend = 3 }\n");
    Daemon daemon({"--script", file});
    EXPECT_EQ(7, daemon.end());
    EXPECT_TRUE(daemon.wrote("cannot use the script " + file +
                             ": line 3, column 20: abend is no text in quotes. docs/gateway.md "
                             "describes scripts.\n"))
        << daemon.output();
}

TEST_F(DaemonScript, ThatIsNotThereEndsWithCode7)
{
    Daemon daemon({"--script", file});
    EXPECT_EQ(7, daemon.end());
    EXPECT_TRUE(daemon.wrote(file + ": it cannot be read: No such file or directory."))
        << daemon.output();
    Daemon other({"--script", directory.file(".")});
    EXPECT_EQ(7, other.end());
    EXPECT_TRUE(other.wrote(": it is a folder.")) << other.output();
}

TEST_F(DaemonScript, IsReadAgainBySighup)
{
    // A folder that is no longer there cannot be watched, and a link leads elsewhere.
    std::filesystem::create_directory(directory.file("elsewhere"));
    const std::string real = directory.file("elsewhere/answers.toml");
    std::ofstream(real) << answering("one");
    std::filesystem::create_symlink(real, file);
    Daemon daemon({"--script", file});
    Client client(daemon.port());
    ASSERT_TRUE(client.shakeHands());
    EXPECT_EQ("one", ask(client));
    std::ofstream(real) << answering("two");
    EXPECT_EQ("one", ask(client));
    daemon.signal(SIGHUP);
    ASSERT_TRUE(daemon.awaitOutput("script " + file + " is read again: 1 [[on]]\n"));
    EXPECT_EQ("two", ask(client));
}

TEST_F(DaemonScript, IsReadAgainWhenItIsWritten)
{
    write(answering("one"));
    Daemon daemon({"--script", file});
    Client client(daemon.port());
    ASSERT_TRUE(client.shakeHands());
    EXPECT_EQ("one", ask(client));
    write(answering("two"));
    ASSERT_TRUE(daemon.awaitOutput("is read again"));
    EXPECT_EQ("two", ask(client));
}

TEST_F(DaemonScript, IsReadAgainWhenAnotherTakesItsPlace)
{
    write(answering("one"));
    Daemon daemon({"--script", file});
    Client client(daemon.port());
    ASSERT_TRUE(client.shakeHands());
    std::ofstream(directory.file("next")) << answering("two") << answering("three");
    std::filesystem::rename(directory.file("next"), file);
    ASSERT_TRUE(daemon.awaitOutput("is read again: 2 [[on]]s\n"));
    EXPECT_EQ("two", ask(client));
}

TEST_F(DaemonScript, StaysInForceWhenTheNextOneIsWrong)
{
    write(answering("one"));
    Daemon daemon({"--script", file});
    Client client(daemon.port());
    ASSERT_TRUE(client.shakeHands());
    write(answering("two") + "answer = \"twice\"\n");
    ASSERT_TRUE(daemon.awaitOutput("script " + file +
                                   ": line 4, column 10: from here on this is no TOML. The one "
                                   "that was read before stays in force.\n"))
        << daemon.output();
    EXPECT_EQ("one", ask(client));
    write(answering("three"));
    ASSERT_TRUE(daemon.awaitOutput("is read again"));
    EXPECT_EQ("three", ask(client));
}

// Nobody writes to the pipe: whoever reads it would wait for ever, at the end of the daemon, too.
TEST_F(DaemonScript, StaysInForceWhenAPipeTakesItsPlace)
{
    write(answering("one"));
    Daemon daemon({"--script", file});
    Client client(daemon.port());
    ASSERT_TRUE(client.shakeHands());
    ASSERT_EQ(0, ::mkfifo(directory.file("pipe").c_str(), 0600));
    ASSERT_EQ(0, std::rename(directory.file("pipe").c_str(), file.c_str()));
    ASSERT_TRUE(daemon.awaitOutput("script " + file +
                                   ": it is a pipe, which is read at the start only. The one that "
                                   "was read before stays in force.\n"))
        << daemon.output();
    EXPECT_EQ("one", ask(client));
}

TEST_F(DaemonScript, BeginsItsCountsAnewWhenItIsReadAgain)
{
    write(answering("${call} ${counter:n}"));
    Daemon daemon({"--script", file});
    Client client(daemon.port());
    ASSERT_TRUE(client.shakeHands());
    EXPECT_EQ("1 1", ask(client));
    EXPECT_EQ("2 2", ask(client));
    daemon.signal(SIGHUP);
    ASSERT_TRUE(daemon.awaitOutput("is read again"));
    EXPECT_EQ("1 1", ask(client));
}

TEST_F(DaemonScript, SaysWhichLineAnswers)
{
    write("\n" + answering("one"));
    Daemon daemon({"--script", file});
    Client client(daemon.port());
    ASSERT_TRUE(client.shakeHands());
    ask(client);
    EXPECT_EQ(0, daemon.stop());
    EXPECT_TRUE(daemon.wrote("script " + file + ": 1 [[on]]\n")) << daemon.output();
    EXPECT_TRUE(daemon.wrote("script: connection 1, request 1 is answered by line 2\n"))
        << daemon.output();
}

TEST(DaemonWithoutAScript, TakesNoNoticeOfSighup)
{
    Daemon daemon({});
    Client client(daemon.port());
    ASSERT_TRUE(client.shakeHands());
    daemon.signal(SIGHUP);
    EXPECT_EQ(0, client.call(1, {}).vornRc);
    EXPECT_EQ(0, daemon.stop());
}

TEST_F(DaemonScript, OfTheDocumentAnswersAnApplicationsOwnProgram)
{
    write(standin_test::documentExample("program = \"PRICE\""));
    Daemon daemon({"--script", file});
    Client client(daemon.port());
    ASSERT_TRUE(client.shakeHands());
    Call call;
    call.program = "PRICE";
    call.commarea = "100106" + std::string(34, ' ');
    EXPECT_EQ("100106 Bag of flour               1.20", client.call(1, call).commarea);
    call.commarea = "4711" + std::string(36, ' ');
    EXPECT_EQ("-16", std::to_string(client.call(2, call).vornRc));
    EXPECT_EQ("NONE", client.call(3, call).abendCode);
    EXPECT_EQ("NONE", client.call(4, call).abendCode);
    EXPECT_EQ(0, client.call(5, {}).vornRc);
}
