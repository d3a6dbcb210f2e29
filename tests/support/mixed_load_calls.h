// The calls of the mixed load, as both of its sides know them: by their numbers.
#ifndef SUPPORT_MIXED_LOAD_CALLS_H
#define SUPPORT_MIXED_LOAD_CALLS_H

#include <cstdio>
#include <string>

namespace support {

inline std::string numberText(int number)
{
    char shown[16];
    std::snprintf(shown, sizeof shown, "%08d", number);
    return shown;
}

// A text of a length of its own that begins with a word and the number.
inline std::string contentsOf(const std::string& word, int number)
{
    std::string contents = word + numberText(number);
    return contents + std::string(static_cast<std::size_t>(number % 193), contents[7]);
}

inline std::string questionOf(int number)
{
    return contentsOf("question ", number);
}

inline std::string answerOf(int number)
{
    return contentsOf("answered ", number);
}

inline std::string abendCodeOf(int number)
{
    return "A" + numberText(number).substr(5);
}

// The program that a call names, which decides what becomes of it.
enum class Kind {
    Plain,    // is answered
    Reversed, // is answered, out of order
    Abends,   // gets a server code
    Refused,  // gets a Gateway code
    Drops     // loses its connection
};

inline const char* programOf(Kind kind)
{
    switch (kind) {
    case Kind::Plain: return "PLAIN";
    case Kind::Reversed: return "REVERSED";
    case Kind::Abends: return "ABENDS";
    case Kind::Refused: return "REFUSED";
    default: return "DROPS";
    }
}

} // namespace support

#endif
