// Lines of a log on a pipe that somebody reads, reads late, or does not read at all.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <memory>

#include "log/line_writer.h"

using log_text::LineWriter;

namespace {

constexpr int kLines = 30000; // more than wait, of 100 bytes each

class Lines : public testing::Test {
protected:
    Lines()
    {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("no pipe");
        reader = ends[0];
        target = ends[1];
    }

    ~Lines() override
    {
        if (reader != -1) ::close(reader);
        ::close(target);
    }

    static std::string line(int number)
    {
        const std::string text = std::to_string(number);
        return text + std::string(99 - text.size(), '.') + "\n";
    }

    // Reads until the text has come.
    std::string readTo(const std::string& end)
    {
        std::string text;
        char buffer[4096];
        while (text.find(end) == std::string::npos) {
            const ssize_t count = ::read(reader, buffer, sizeof buffer);
            if (count < 1) break;
            text.append(buffer, static_cast<std::size_t>(count));
        }
        return text;
    }

    int reader = -1;
    int target = -1;
};

} // namespace

TEST_F(Lines, AreThereOnceTheyHaveBeenWritten)
{
    LineWriter writer(target);
    writer.write("one\n");
    char text[5] = {};
    ::fcntl(reader, F_SETFL, O_NONBLOCK);
    EXPECT_EQ(4, ::read(reader, text, 4));
    EXPECT_STREQ("one\n", text);
}

TEST_F(Lines, WaitForALateReader)
{
    LineWriter writer(target);
    std::string all;
    for (int i = 0; i < 5000; ++i) {
        writer.write(line(i));
        all += line(i);
    }
    EXPECT_EQ(all, readTo(line(4999)));
}

TEST_F(Lines, AreCountedWhenTheyAreLost)
{
    LineWriter writer(target);
    for (int i = 0; i < kLines; ++i) writer.write(line(i));
    const std::string mark = " lines are missing here: nobody took them\n";
    std::string text = readTo(mark);
    const std::size_t start = text.rfind('\n', text.size() - mark.size()) + 1;
    const int taken = static_cast<int>(start / 100);
    EXPECT_EQ(line(taken - 1), text.substr(start - 100, 100));
    EXPECT_EQ(std::to_string(kLines - taken) + mark, text.substr(start));
    writer.write("and on\n");
    EXPECT_EQ("and on\n", readTo("and on\n"));
}

TEST_F(Lines, HoldUpNobodyAtTheEnd)
{
    auto writer = std::make_unique<LineWriter>(target, std::chrono::milliseconds(10));
    for (int i = 0; i < kLines; ++i) writer->write(line(i));
    writer.reset();
    EXPECT_EQ(line(0), readTo(line(0)).substr(0, 100));
}

TEST_F(Lines, MayHaveNoReader)
{
    ::signal(SIGPIPE, SIG_IGN);
    ::close(std::exchange(reader, -1));
    LineWriter writer(target);
    for (int i = 0; i < kLines; ++i) writer.write(line(i));
}
