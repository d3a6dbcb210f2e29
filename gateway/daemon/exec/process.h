// A program that runs beside the daemon: it gets lines on its standard input and gives one line for
// each on its standard output. What it writes to standard error goes into the log.
//
// Thread: one at a time. Nothing here needs the Gateway's thread, and some of it waits.
#ifndef EXEC_PROCESS_H
#define EXEC_PROCESS_H

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace exec {

// How a line came to an answer, or did not.
enum class Outcome {
    Answered,
    CannotStart, // there is no such program, say
    Ended,       // without an answer
    TooLate,
    TooLong, // an answer larger than 32 MB
};

class Process {
public:
    using Complain = std::function<void(const std::string& text)>;

    // `abandoned` makes every wait end when it becomes true; `told` gets what the program writes
    // to its standard error.
    Process(std::vector<std::string> words, std::string folder,
            std::shared_ptr<const std::atomic<bool>> abandoned, Complain told);
    ~Process();

    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    // Sends the line, which comes with its end, to the program, which is started if it does not
    // run, and waits for its answer. `answer` is that without its end, or in words what went wrong;
    // the program does not run any more then.
    Outcome ask(const std::string& line, std::chrono::microseconds limit, std::string& answer);

    // Closes its standard input, gives it a moment to end, and ends it if it does not.
    void end();

private:
    using Clock = std::chrono::steady_clock;

    Outcome askOnce(const std::string& line, Clock::time_point until, std::string& answer);
    bool start(std::string& problem);
    bool isUsable();
    bool takeOutput();
    void takeComplaints();
    void tellComplaints(bool all);
    std::string reap(std::chrono::milliseconds patience);
    void closePipes();

    const std::vector<std::string> words_;
    const std::string folder_;
    const std::shared_ptr<const std::atomic<bool>> abandoned_;
    const Complain told_;
    pid_t process_ = -1;
    int input_ = -1; // pipes to and from it
    int output_ = -1;
    int complaints_ = -1;
    std::string received_;
    std::string complained_;
    bool hasAnswered_ = false; // since it was started
    bool endedInOrder_ = false;
};

} // namespace exec

#endif
