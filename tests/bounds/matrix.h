// The matrix: every exported call that can wait, times what the connection is doing when something
// happens at the other side, times what happens. A cell is one of each, and runs in a process of
// its own.
#ifndef BOUNDS_MATRIX_H
#define BOUNDS_MATRIX_H

#include <string>
#include <vector>

namespace bounds {

// What a call is, as far as the cells treat it differently.
enum class Role { Open, Work, Send, Collect, Close, Container };

// What the connection is doing when the fault meets it.
enum class State { Opening, Idle, Calling, Sending, Collecting, Closing };
constexpr State allStates[] = {State::Opening, State::Idle,       State::Calling,
                               State::Sending, State::Collecting, State::Closing};

struct Application;

struct Call {
    const char* name;  // in results
    const char* title; // on the page
    Role role;
    std::vector<State> states;
    int (*run)(Application& application);
};
const std::vector<Call>& allCalls();

struct Situation;

struct Fault {
    const char* name;   // in results
    const char* phrase; // on the page: "the Gateway ..."
    std::vector<State> states;
    void (*strike)(Situation& situation);

    // Behind it the Gateway goes on as it should.
    bool isPolite;

    // Only for these roles; all if empty.
    std::vector<Role> roles;

    // It takes seconds, and a network of the cell's own.
    bool isOfTheHost;
};
const std::vector<Fault>& allFaults();

const char* nameOf(State state);

// What has come of a cell.
struct Result {
    std::string call;
    std::string state;
    std::string fault;
    int rc = 0;
    std::string bound; // what has ended the wait
    std::string next;  // where the next call works

    std::string key() const { return call + " " + state + " " + fault; }
    std::string text() const { return key() + " " + std::to_string(rc) + " " + bound + " " + next; }
};

struct Cell {
    const Call* call;
    State state;
    const Fault* fault;

    std::string key() const
    {
        return std::string(call->name) + " " + nameOf(state) + " " + fault->name;
    }
};
std::vector<Cell> allCells();

// Runs a cell in this process, which ends behind it. Prints the result.
int runCell(const Cell& cell);

// The page for users that the results make, with a text that has places for them.
std::string pageOf(const std::vector<Result>& results, std::string text);

} // namespace bounds

#endif
