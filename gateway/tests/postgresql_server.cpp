#include "postgresql_server.h"

#include <pwd.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <vector>

#include "child_process.h"
#include "temporary_directory.h"

namespace standin_test {

namespace {

// How a program of the server's is started: setpriv has the kernel end it with this process, and
// makes it somebody else's than root's.
std::vector<std::string> commandOf(const std::string& name,
                                   const std::vector<std::string>& arguments, const passwd* user)
{
    std::vector<std::string> command = {"setpriv", "--pdeathsig", "QUIT"};
    if (user != nullptr) {
        const std::string group = std::to_string(user->pw_gid);
        command.insert(command.end(), {"--reuid", std::to_string(user->pw_uid), "--regid", group,
                                       "--clear-groups"});
    }
    command.push_back(std::string(POSTGRESQL_PROGRAMS) + '/' + name);
    command.insert(command.end(), arguments.begin(), arguments.end());
    return command;
}

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
        ChildProcess initdb(
            commandOf("initdb",
                      {"--pgdata", data, "--username", "tester", "--auth", "trust", "--encoding",
                       "UTF8", "--locale", "C", "--no-sync", "--no-instructions"},
                      user));
        if (initdb.end() != 0) throw std::runtime_error("initdb: " + initdb.output());
        std::ofstream(folder_.file("data/pg_hba.conf"))
            << "local all secretive scram-sha-256\nlocal all all trust\n";
        server_ = std::make_unique<ChildProcess>(
            commandOf("postgres",
                      {"-D", data, "-k", folder(), "-c", "listen_addresses=", "-c", "fsync=off",
                       "-c", "autovacuum=off", "-c", "max_connections=60", "-c",
                       "log_min_messages=log"},
                      user),
            SIGQUIT);
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
    std::unique_ptr<ChildProcess> server_;
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
