#include "postgresql_server.h"

#include <fcntl.h>
#include <pwd.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <system_error>
#include <vector>

#include "temporary_directory.h"

extern char** environ;

namespace standin_test {

namespace {

// A program of the server's, whose output can be read.
class Program {
public:
    // setpriv has the kernel end it with this process, and makes it somebody else's than root's.
    Program(const std::string& name, const std::vector<std::string>& arguments, const passwd* user)
    {
        std::vector<std::string> command = {"setpriv", "--pdeathsig", "QUIT"};
        if (user != nullptr) {
            const std::string group = std::to_string(user->pw_gid);
            command.insert(command.end(), {"--reuid", std::to_string(user->pw_uid), "--regid",
                                           group, "--clear-groups"});
        }
        command.push_back(std::string(POSTGRESQL_PROGRAMS) + '/' + name);
        command.insert(command.end(), arguments.begin(), arguments.end());
        std::vector<char*> argv;
        for (std::string& each : command) argv.push_back(each.data());
        argv.push_back(nullptr);

        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0)
            throw std::system_error(errno, std::generic_category(), "pipe");
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
        posix_spawn_file_actions_adddup2(&actions, ends[1], STDERR_FILENO);
        const int error = ::posix_spawnp(&process_, argv[0], &actions, nullptr, argv.data(),
                                         environ);
        posix_spawn_file_actions_destroy(&actions);
        ::close(ends[1]);
        output_ = ends[0];
        if (error != 0) throw std::system_error(error, std::generic_category(), name);
    }

    ~Program()
    {
        if (process_ > 0) {
            ::kill(process_, SIGQUIT);
            end();
        }
        ::close(output_);
    }

    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    bool awaitOutput(const std::string& part)
    {
        while (text_.find(part) == std::string::npos) {
            if (!readMore()) return false;
        }
        return true;
    }

    const std::string& output() const { return text_; }

    // The exit code; -1 when a signal has killed it.
    int end()
    {
        while (readMore()) {}
        int status = 0;
        ::waitpid(process_, &status, 0);
        process_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

private:
    bool readMore()
    {
        char buffer[4096];
        ssize_t count = 0;
        while ((count = ::read(output_, buffer, sizeof buffer)) == -1 && errno == EINTR) {}
        if (count < 1) return false;
        text_.append(buffer, static_cast<std::size_t>(count));
        return true;
    }

    pid_t process_ = -1;
    int output_ = -1;
    std::string text_;
};

class Server {
public:
    Server()
    {
        // What somebody has set for his own server has nothing to do with this one.
        for (const char* const name : {"PGHOST", "PGPORT", "PGUSER", "PGDATABASE", "PGPASSWORD",
                                       "PGOPTIONS", "PGSERVICE", "PGPASSFILE"}) {
            ::unsetenv(name);
        }
        const passwd* user = nullptr;
        if (::geteuid() == 0) {
            user = ::getpwnam("postgres");
            if (user == nullptr) user = ::getpwnam("nobody");
            if (user == nullptr || ::chown(folder().c_str(), user->pw_uid, user->pw_gid) != 0)
                throw std::runtime_error("nobody can run the server");
        }
        const std::string data = folder_.file("data");
        Program initdb("initdb",
                       {"--pgdata", data, "--username", "tester", "--auth", "trust", "--encoding",
                        "UTF8", "--locale", "C", "--no-sync", "--no-instructions"},
                       user);
        if (initdb.end() != 0) throw std::runtime_error("initdb: " + initdb.output());
        std::ofstream(folder_.file("data/pg_hba.conf"))
            << "local all secretive scram-sha-256\nlocal all all trust\n";
        server_ = std::make_unique<Program>(
            "postgres",
            std::vector<std::string>{"-D", data, "-k", folder(), "-c", "listen_addresses=", "-c",
                                     "fsync=off", "-c", "autovacuum=off", "-c",
                                     "max_connections=60", "-c", "log_min_messages=log"},
            user);
        if (!server_->awaitOutput("ready to accept connections"))
            throw std::runtime_error("postgres: " + server_->output());
    }

    std::string folder() const
    {
        const std::string any = folder_.file("x");
        return any.substr(0, any.rfind('/'));
    }

private:
    const TemporaryDirectory folder_;
    std::unique_ptr<Program> server_;
};

std::unique_ptr<Server> server;

// Ends the server while the program is still whole.
class EndOfServer final : public testing::Environment {
    void TearDown() override { server.reset(); }
};

testing::Environment* const kEnd = testing::AddGlobalTestEnvironment(new EndOfServer);

} // namespace

std::string urlAt(const std::string& database, const std::string& more)
{
    if (server == nullptr) server = std::make_unique<Server>();
    // Longer than a busy machine takes for anything.
    return "postgresql:///" + database + "?connect_timeout=90&host=" + server->folder() +
           (more.find("user=") == std::string::npos ? "&user=tester" : "") + more;
}

Session::Session(const std::string& url) : handle_(PQconnectdb(url.c_str()))
{
    if (PQstatus(handle_) != CONNECTION_OK) {
        const std::string reason = PQerrorMessage(handle_);
        PQfinish(handle_);
        throw std::runtime_error(reason);
    }
    PQsetNoticeProcessor(
        handle_, [](void*, const char*) {}, nullptr);
}

Session::~Session()
{
    PQfinish(handle_);
}

std::int64_t Session::run(const std::string& sql) const
{
    const std::unique_ptr<PGresult, void (*)(PGresult*)> result(PQexec(handle_, sql.c_str()),
                                                                PQclear);
    const ExecStatusType status = PQresultStatus(result.get());
    if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK)
        throw std::runtime_error(PQresultErrorMessage(result.get()));
    if (PQntuples(result.get()) == 0) return -1;
    return std::strtoll(PQgetvalue(result.get(), 0, 0), nullptr, 10);
}

} // namespace standin_test
