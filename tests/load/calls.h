// One thread's calls on connections that stand, or no longer do. Each is held against what is known
// about its connection, see connections.h, and what it brings against what it has asked for.
#ifndef LOAD_CALLS_H
#define LOAD_CALLS_H

#include <initializer_list>
#include <random>
#include <string>

#include "load/shared.h"
#include "support/eci_parms.h"

namespace load {

// Room for every answer, and room for none.
constexpr std::size_t enoughRoom = 256;
constexpr std::size_t littleRoom = 4;

// Threads that may be in a call that others must end: a close that waits for what nobody has
// collected, a wait for a reply when nothing is outstanding.
constexpr int mostLongWaits = 3;

bool isIn(int rc, std::initializer_list<int> codes);
bool saysClosed(int rc); // by the application
bool saysEnded(int rc);  // by the peer, or lost

class Calls {
public:
    Calls(Shared& shared, int number)
        : shared_(shared), number_(number), random_(shared.seed + static_cast<unsigned>(number))
    {
    }

    void callWithCommarea(const ConnectionPtr& connection, Program program);
    void callWithChannel(const ConnectionPtr& connection, Program program);
    void callWithSharedChannel(const ConnectionPtr& connection);
    void callAsync(const ConnectionPtr& connection, Program program, bool withChannel);
    void collectOne(const ConnectionPtr& connection);
    void collect(const ConnectionPtr& connection, int callType, int qualifier, std::size_t room);
    void runUnitOfWork(const ConnectionPtr& connection);
    void askForPassword(const ConnectionPtr& connection);
    void askForSystems(const ConnectionPtr& connection);
    void readApplid(const ConnectionPtr& connection);

    void workOnSharedChannel(const ConnectionPtr& connection);
    void workOnOwnChannel();

protected:
    unsigned choose(unsigned choices) { return static_cast<unsigned>(random_() % choices); }
    bool oneIn(unsigned times) { return choose(times) == 0; }

    void problem(const std::string& what) { shared_.watch.problem(number_, what); }

    // One of the few that may wait for what others do.
    bool beginLongWait();
    void endLongWait();

    // Its peer has been asked to end it, or answers a goodbye by that.
    static bool mayHaveEnded(const Knowledge& after) { return after.ending || after.closing; }

    Shared& shared_;
    const int number_;

private:
    template <typename Call>
    int call(const char* name, const ConnectionPtr& connection, std::initializer_list<int> due,
             Call makeCall);
    void expectText(const std::string& expected, const std::string& got);
    void askForTheEnd(const ConnectionPtr& connection, Program program);
    support::EciParms withQuestion(int callType, Program program, int number);
    std::string expectedAnswer(const ConnectionPtr& connection, int number);
    static std::string contentsOf(const support::EciParms& parms);
    int execute(const ConnectionPtr& connection, support::EciParms& parms,
                std::initializer_list<int> due);
    int executeChannel(const ConnectionPtr& connection, support::EciParms& parms,
                       std::initializer_list<int> due);
    ECI_ChannelToken_t channelWith(const std::string& question);
    std::string contentsOf(ECI_ChannelToken_t channel, const char* container);
    void expectAnswer(const ConnectionPtr& connection, Program program, int number,
                      ECI_ChannelToken_t channel);
    void expectBulk(ECI_ChannelToken_t channel);
    static void remember(const ConnectionPtr& connection, int number, const Pending& pending);
    static bool forget(const ConnectionPtr& connection, int number, Pending* pending);
    static const char* nameOfCollecting(int callType);
    void checkNothingCollected(const ConnectionPtr& connection, int callType, int rc,
                               const Knowledge& before);
    void checkReply(const ConnectionPtr& connection, support::EciParms& parms, int rc);
    bool callInUnit(const ConnectionPtr& connection, Program program, int* luwToken);
    bool continueLater(const ConnectionPtr& connection, int luwToken);
    void endUnit(const ConnectionPtr& connection, int luwToken);

    std::mt19937 random_;
};

} // namespace load

#endif
