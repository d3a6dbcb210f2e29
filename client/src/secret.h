// A password: asked for at the terminal, where it does not show, or read from a descriptor; and
// overwritten when it is no longer needed.
#ifndef QPX_SECRET_H
#define QPX_SECRET_H

#include <cstddef>
#include <string>

namespace qpx {

class Secret {
public:
    Secret() = default;
    ~Secret();

    Secret(const Secret&) = delete;
    Secret& operator=(const Secret&) = delete;

    // Takes a line from the descriptor and nothing behind it. Throws a Failure.
    void readFrom(int descriptor, const std::string& which);

    // Asks for it at the terminal of the process, whatever standard input is. Ctrl-C ends the
    // program and leaves a terminal that shows what is typed. Throws a Failure.
    void askFor(const std::string& which);

    bool empty() const { return text_[0] == '\0'; }
    bool operator==(const Secret& other) const;

    // For the library, which does not write there.
    char* text() { return text_; }
    const char* text() const { return text_; }

private:
    static constexpr std::size_t kLongest = 512;

    char text_[kLongest + 2] = ""; // with a CR that may be behind it
};

} // namespace qpx

#endif
