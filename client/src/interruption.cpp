#include "interruption.h"

#include <signal.h>
#include <unistd.h>

#include <system_error>
#include <thread>

#include "command.h"

namespace qpx {

void onInterruption(std::function<int()> tell)
{
    sigset_t signals;

    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    const auto takeSignal = [signals, tell = std::move(tell)] {
        int number = 0;
        if (sigwait(&signals, &number) != 0) return;
        // What there is to tell may wait for an output that takes nothing: the next one ends it.
        pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
        _exit(endWith(tell()));
    };
    try {
        std::thread(takeSignal).detach();
    } catch (const std::system_error& error) {
        throw Failure(kFailed, "cannot start a thread: " + error.code().message() +
                                   "; ulimit -u, -v and -s set how many there can be");
    }
}

} // namespace qpx
