#include "secret.h"

#include <fcntl.h>
#include <signal.h>
#include <string.h>
#include <termios.h>
#include <unistd.h>

#include "descriptor.h"
#include "failure.h"

namespace qpx {

namespace {

// The terminal as it was, for the handler of signals.
int terminal = -1;
termios before;

void leaveTerminal(int signalNumber)
{
    tcsetattr(terminal, TCSAFLUSH, &before);
    raise(signalNumber); // is delivered when this returns
}

void onInterruption(void (*handler)(int))
{
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = handler == SIG_DFL ? 0 : static_cast<int>(SA_RESETHAND);
    for (const int number : {SIGHUP, SIGINT, SIGQUIT, SIGTERM}) {
        struct sigaction present = {};
        if (sigaction(number, nullptr, &present) == 0 && present.sa_handler != SIG_IGN)
            sigaction(number, &action, nullptr);
    }
}

void write(int descriptor, const std::string& text)
{
    if (::write(descriptor, text.data(), text.size()) < 0)
        throw Failure(kFailed, "cannot write to the terminal");
}

// The terminal without echo, for as long as this lives.
class SilentTerminal {
public:
    SilentTerminal() : descriptor_(open("/dev/tty", O_RDWR | O_CLOEXEC))
    {
        if (descriptor_ < 0 || tcgetattr(descriptor_, &before) != 0) {
            if (descriptor_ >= 0) ::close(descriptor_);
            throw Failure(kUsage, "there is no terminal to ask for the password at; give it with "
                                  "--password-fd");
        }
        terminal = descriptor_;
        termios silent = before;
        silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
        onInterruption(leaveTerminal);
        tcsetattr(descriptor_, TCSAFLUSH, &silent);
    }

    ~SilentTerminal()
    {
        tcsetattr(descriptor_, TCSAFLUSH, &before);
        onInterruption(SIG_DFL);
        ::close(descriptor_);
    }

    SilentTerminal(const SilentTerminal&) = delete;
    SilentTerminal& operator=(const SilentTerminal&) = delete;

    int descriptor() const { return descriptor_; }

private:
    int descriptor_;
};

} // namespace

Secret::~Secret()
{
    explicit_bzero(text_, sizeof text_);
}

bool Secret::operator==(const Secret& other) const
{
    return strcmp(text_, other.text_) == 0;
}

void Secret::readFrom(int descriptor, const std::string& which)
{
    std::size_t length = 0;
    bool any = false;

    for (;;) {
        char c = '\0';
        const ssize_t count = readSome(descriptor, &c, 1);
        if (count < 0) throw Failure(kFailed, "cannot read the " + which);
        if (count == 0 && !any) throw Failure(kFailed, "the " + which + " is missing");
        any = true;
        if (count == 0 || c == '\n') break;
        if (c == '\0') throw Failure(kFailed, "the " + which + " has a NUL in it");
        if (length > kLongest)
            throw Failure(kFailed, "the " + which + " is longer than " + std::to_string(kLongest) +
                                       " characters");
        text_[length++] = c;
    }
    if (length > 0 && text_[length - 1] == '\r') length -= 1;
    text_[length] = '\0';
    if (length > kLongest)
        throw Failure(kFailed, "the " + which + " is longer than " + std::to_string(kLongest) +
                                   " characters");
}

void Secret::askFor(const std::string& which)
{
    const SilentTerminal silent;

    write(silent.descriptor(), "The " + which + ": ");
    readFrom(silent.descriptor(), which);
    write(silent.descriptor(), "\n");
}

} // namespace qpx
