// The mixed load for helgrind, on a gateway in a process of its own:
//
//     valgrind --tool=helgrind helgrind_load .../helgrind_gateway
//
// Exits with 1 if a call went wrong or the gateway has something to say, whatever helgrind says.
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <stdexcept>
#include <string>

#include "helgrind/plan.h"

namespace {

// The gateway's process. It is started before there is a thread.
class GatewayProcess {
public:
    explicit GatewayProcess(const char* program)
    {
        int in[2];
        int out[2];
        if (pipe(in) != 0 || pipe(out) != 0) throw std::runtime_error("no pipe");
        process_ = fork();
        if (process_ == 0) {
            dup2(in[0], STDIN_FILENO);
            dup2(out[1], STDOUT_FILENO);
            for (int end : {in[0], in[1], out[0], out[1]}) ::close(end);
            execl(program, program, static_cast<char*>(nullptr));
            _exit(127);
        }
        ::close(in[0]);
        ::close(out[1]);
        to_ = fdopen(in[1], "w");
        from_ = fdopen(out[0], "r");
    }
    ~GatewayProcess()
    {
        std::fclose(to_);
        std::fclose(from_);
    }
    GatewayProcess(const GatewayProcess&) = delete;
    GatewayProcess& operator=(const GatewayProcess&) = delete;

    int readPort()
    {
        int port = 0;
        if (std::fscanf(from_, "%d", &port) != 1) throw std::runtime_error("no gateway");
        return port;
    }

    void tell(const std::string& word)
    {
        std::fprintf(to_, "%s\n", word.c_str());
        std::fflush(to_);
    }

    // Whether it ends content.
    bool ends()
    {
        int status = 0;
        return waitpid(process_, &status, 0) == process_ && WIFEXITED(status) &&
               WEXITSTATUS(status) == 0;
    }

private:
    pid_t process_ = -1;
    std::FILE* to_ = nullptr;
    std::FILE* from_ = nullptr;
};

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s GATEWAY\n", argv[0]);
        return 2;
    }
    GatewayProcess gateway(argv[1]);
    const support::LoadPlan plan = smallLoad();
    support::MixedLoad load(plan, gateway.readPort(), [&gateway] { gateway.tell("release"); });
    load.run();

    const support::LoadCounts counts = load.counts();
    std::printf("%d answered, %d abended, %d refused, %d lost\n", counts.answered, counts.abended,
                counts.refused, counts.lost);
    for (const std::string& problem : load.problems())
        std::fprintf(stderr, "%s\n", problem.c_str());
    gateway.tell(std::to_string(counts.reopened));
    bool gatewayIsContent = gateway.ends();
    bool allCollected = counts.answered + counts.abended + counts.refused + counts.lost ==
                        plan.calls;
    return gatewayIsContent && allCollected && load.problems().empty() ? 0 : 1;
}
