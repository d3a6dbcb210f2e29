#include "interruption.h"

#include <signal.h>
#include <unistd.h>

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
    std::thread([signals, tell = std::move(tell)] {
        int number = 0;
        if (sigwait(&signals, &number) != 0) return;
        _exit(endWith(tell()));
    }).detach();
}

} // namespace qpx
