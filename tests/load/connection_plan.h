// What the two sides of the load agree on: the names of connections, what their peers do, and what
// answers look like.
//
// A connection carries its name as its applid, and as its qualifier a letter for what its peer does
// when it is opened and one for when it is closed. A call names a program, which decides what
// becomes of it. So a peer ends a connection only when it has been asked to, and the load always
// knows what may have happened. Every answer carries the name of the connection it was given on.
#ifndef LOAD_CONNECTION_PLAN_H
#define LOAD_CONNECTION_PLAN_H

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace load {

enum class Greeting : char {
    AtOnce = 'A',
    Late = 'L',
    Refusal = 'X', // with the code below
    Goodbye = 'G', // greets, and says goodbye in the same breath
    Drop = 'D',
    Reset = 'R',
    Never = 'N'
};

enum class Farewell : char {
    Answer = 'A', // answers the close flow, and ends the connection
    Late = 'L',
    Drop = 'D', // ends it without an answer
    Reset = 'R'
};

struct ConnectionPlan {
    Greeting greeting = Greeting::AtOnce;
    Farewell farewell = Farewell::Answer;

    std::string text() const { return {static_cast<char>(greeting), static_cast<char>(farewell)}; }
    static ConnectionPlan of(const std::string& text)
    {
        ConnectionPlan plan;
        if (text.size() != 2) return plan;
        plan.greeting = static_cast<Greeting>(text[0]);
        plan.farewell = static_cast<Farewell>(text[1]);
        return plan;
    }
};

constexpr int refusalOfGreeting = 61445;

// A large program adds a container of much data to a channel.
enum class Program { Plain, Large, Abends, Refused, Throws, Drops, Resets, Goodbye };

constexpr const char* programNames[] = {"PLAIN",  "LARGE", "ABENDS", "REFUSED",
                                        "THROWS", "DROPS", "RESETS", "GOODBYE"};

inline const char* nameOf(Program program)
{
    return programNames[static_cast<int>(program)];
}

inline bool endsConnection(Program program)
{
    return program == Program::Drops || program == Program::Resets || program == Program::Goodbye;
}

inline std::string eightDigits(int number)
{
    char shown[16];
    std::snprintf(shown, sizeof shown, "%08d", number);
    return shown;
}

inline std::string questionOf(int call)
{
    return "question " + eightDigits(call) + std::string(static_cast<std::size_t>(call % 97), '.');
}

// The answer of one connection's peer to a question.
inline std::string answerTo(const std::string& question, int connection)
{
    return eightDigits(connection) + " has got " + question;
}

// What a large program adds: more than comes into one mapping without that being grown.
constexpr const char* bulkName = "BULK";
constexpr std::size_t bulkLength = 1'200'000;

constexpr const char* abendCode = "ALOD";
constexpr const char* wrongPassword = "WRONG";

// Units of work have tokens that tell their connection.
constexpr int unitsPerConnection = 64;

inline int connectionOfUnit(int luwToken)
{
    return luwToken / unitsPerConnection;
}

} // namespace load

#endif
