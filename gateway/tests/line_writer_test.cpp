// Lines of a log on a pipe that somebody reads, reads late, or does not read at all.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <fstream>
#include <memory>
#include <sstream>

#include "log/line_writer.h"
#include "temporary_directory.h"

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

namespace {

// Files may grow up to a size, and no further, as if the disk were full.
class FullDisk {
public:
    explicit FullDisk(rlim_t bytes)
    {
        ::signal(SIGXFSZ, SIG_IGN);
        ::getrlimit(RLIMIT_FSIZE, &before_);
        const rlimit limit{bytes, before_.rlim_max};
        ::setrlimit(RLIMIT_FSIZE, &limit);
    }

    ~FullDisk() { ::setrlimit(RLIMIT_FSIZE, &before_); }

    FullDisk(const FullDisk&) = delete;
    FullDisk& operator=(const FullDisk&) = delete;

private:
    rlimit before_{};
};

class LinesOnADisk : public testing::Test {
protected:
    ~LinesOnADisk() override { ::close(target); }

    LineWriter::Manner manner()
    {
        LineWriter::Manner manner;
        manner.noteOfLoss = [](std::size_t lost) { return "lost " + std::to_string(lost) + "\n"; };
        manner.trouble = [this](int error) { troubles.push_back(error); };
        return manner;
    }

    std::string content() const
    {
        std::ostringstream text;
        text << std::ifstream(file).rdbuf();
        return text.str();
    }

    const standin_test::TemporaryDirectory directory;
    const std::string file = directory.file("lines");
    const int target = ::open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    std::vector<int> troubles;
};

} // namespace

TEST_F(LinesOnADisk, AreCountedWhileItIsFullAndGoOnBehindAWholeLine)
{
    LineWriter writer(target, manner());
    {
        const FullDisk full(25);
        for (const char* const line :
             {"line one.\n", "line two.\n", "line 333.\n", "line 444.\n", "line 555.\n"}) {
            writer.write(line);
        }
        EXPECT_EQ("line one.\nline two.\nline ", content());
        EXPECT_EQ(std::vector<int>{EFBIG}, troubles) << "told once";
    }
    writer.write("line 666.\n");
    EXPECT_EQ("line one.\nline two.\nline 333.\nlost 2\nline 666.\n", content());
    EXPECT_EQ((std::vector<int>{EFBIG, 0}), troubles);
    const FullDisk full(50);
    writer.write("line 777.\n");
    EXPECT_EQ((std::vector<int>{EFBIG, 0, EFBIG}), troubles) << "told again";
}

TEST_F(LinesOnADisk, AreCountedAtTheEndWhenThereIsRoomAgain)
{
    {
        LineWriter writer(target, manner());
        const FullDisk full(12); // is gone before the writer
        for (const char* const line : {"line one.\n", "line two.\n", "line 333.\n"})
            writer.write(line);
    }
    EXPECT_EQ("line one.\nline two.\nlost 1\n", content());
    EXPECT_EQ((std::vector<int>{EFBIG, 0}), troubles);
}
