// The answering server of the bench: a Gateway that does nothing but answer, as fast as a blocking
// thread for each connection can. Usually a call takes it one recv and one send.

#include "../common/sockets.h"
#include "answers.h"

#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace bench {
namespace {

constexpr const char* usage =
    "Answers the calls of the benchmark at once.\n"
    "\n"
    "Usage: qpxbench-server\n"
    "\n"
    "Listens on a free port of the loopback, prints it and serves any number of connections until\n"
    "it is ended by a signal. The name of the program that is called chooses the answer:\n"
    "\n"
    "  HOLD     none, until RELEASE is called on the same connection\n"
    "  RELEASE  all that are held, then its own\n"
    "  MODIFY   every container of the channel modified, with the data that it had\n"
    "  ADDn     every container unchanged, and n more: ADD100\n"
    "  others   the COMMAREA as it came, every container unchanged\n"
    "\n"
    "Passwords are right.\n"
    "\n"
    "Examples:\n"
    "  qpxbench-server\n"
    "  taskset -c 0 qpxbench-server\n";

constexpr std::size_t stackSize = 64 * 1024;

bool sendReply(int socket, Reply* reply)
{
    msghdr message = {};
    message.msg_iov = reply->pieces;
    message.msg_iovlen = reply->count;
    while (message.msg_iovlen > 0) {
        ssize_t sent = sendmsg(socket, &message, MSG_NOSIGNAL);
        if (sent <= 0) return false;
        for (; message.msg_iovlen > 0 && static_cast<std::size_t>(sent) >= message.msg_iov->iov_len;
             --message.msg_iovlen, ++message.msg_iov)
            sent -= static_cast<ssize_t>(message.msg_iov->iov_len);
        if (message.msg_iovlen > 0) {
            message.msg_iov->iov_base = static_cast<char*>(message.msg_iov->iov_base) + sent;
            message.msg_iov->iov_len -= static_cast<std::size_t>(sent);
        }
    }
    return true;
}

// Answers flow by flow, until the client says goodbye or is gone.
void serve(int socket)
{
    ReadAhead reader(socket);
    Conversation conversation;
    Reply reply;
    Flow flow;
    while (reader.next(&flow)) {
        if (flow.type == requestFlow)
            answerRequest(flow, &conversation, &reply);
        else
            answerConnectionFlow(flow, &reply);
        if (!sendReply(socket, &reply) || flow.type == closeFlow) return;
    }
}

void* serveConnection(void* argument)
{
    const int socket = static_cast<int>(reinterpret_cast<std::intptr_t>(argument));
    serve(socket);
    close(socket);
    return nullptr;
}

void startThread(const pthread_attr_t& attributes, int socket)
{
    pthread_t thread;
    void* const argument = reinterpret_cast<void*>(static_cast<std::intptr_t>(socket));
    if (pthread_create(&thread, &attributes, serveConnection, argument) == 0) return;
    std::fprintf(stderr, "qpxbench-server: no thread for a connection\n");
    close(socket);
}

[[noreturn]] void acceptForever(int listener)
{
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, stackSize);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    for (;;) {
        const int socket = accept(listener, nullptr, nullptr);
        if (socket == -1) continue;
        sendAtOnce(socket);
        startThread(attributes, socket);
    }
}

} // namespace
} // namespace bench

int main(int argc, char** argv)
{
    if (argc > 1) {
        const bool asked = std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0;
        std::fputs(bench::usage, asked ? stdout : stderr);
        return asked ? 0 : 2;
    }
    std::uint16_t port = 0;
    bench::allowManyDescriptors();
    const int listener = bench::listenOnLoopback(&port);
    std::printf("%d\n", port);
    std::fflush(stdout);
    bench::acceptForever(listener);
}
