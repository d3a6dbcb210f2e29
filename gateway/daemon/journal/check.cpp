#include "journal/check.h"

#include <fstream>
#include <iostream>
#include <stdexcept>

#include "conf/value.h"
#include "journal/expectation.h"

namespace journal {

namespace {

const char* const kUsage =
    "Usage: qpxgatewayd check JOURNAL EXPECT.toml\n"
    "\n"
    "Holds the calls of a journal against a list of expectations, which docs/gateway.md\n"
    "describes, and names what is missing, unexpected or out of order.\n"
    "\n"
    "Exit codes:\n"
    "  0  all is as expected\n"
    "  1  something is otherwise\n"
    "  2  wrong arguments, or a file that cannot be used\n";

struct Call {
    std::size_t line;
    Entry entry;
};

std::vector<Call> readJournal(const std::string& file)
{
    std::ifstream stream(file);
    if (!stream.is_open()) throw std::runtime_error("it cannot be read");
    std::vector<Call> calls;
    std::string text;
    for (std::size_t line = 1; std::getline(stream, text); ++line) {
        try {
            calls.push_back({line, entryFrom(text)});
        } catch (const std::exception&) {
            throw std::runtime_error("line " + std::to_string(line) + " is no call");
        }
    }
    if (stream.bad()) throw std::runtime_error("it cannot be read");
    return calls;
}

std::string counted(std::int64_t count)
{
    return std::to_string(count) + (count == 1 ? " call" : " calls");
}

// Each call counts for the first expectation that it fits and that has not had enough yet.
class Comparison {
public:
    Comparison(const Expectations& expectations, std::ostream& out)
        : expectations_(expectations), out_(out), counts_(expectations.calls.size())
    {
    }

    void take(const Call& call)
    {
        if (call.entry.missing > 0) {
            report("missing", call,
                   counted(static_cast<std::int64_t>(call.entry.missing)) +
                       " could not be written here");
            return;
        }
        bool fitsAny = false;
        for (std::size_t i = 0; i < counts_.size(); ++i) {
            if (!expectations_.calls[i].fits(call.entry)) continue;
            fitsAny = true;
            if (counts_[i] == expectations_.calls[i].most()) continue;
            return count(i, call);
        }
        if (fitsAny) {
            report("unexpected", call, describe(call.entry) + "; there have been enough of these");
        } else if (!expectations_.othersToo) {
            report("unexpected", call, describe(call.entry));
        }
    }

    // The number of what is otherwise.
    int end()
    {
        for (std::size_t i = 0; i < counts_.size(); ++i) {
            const Expectation& expected = expectations_.calls[i];
            if (counts_[i] >= expected.least()) continue;
            out_ << "missing: the [[call]] of line " << expected.line() << " is expected "
                 << counted(expected.least()) << ", and there "
                 << (counts_[i] == 1 ? "is " : "are ") << counts_[i] << '\n';
            ++differences_;
        }
        return differences_;
    }

private:
    void count(std::size_t index, const Call& call)
    {
        ++counts_[index];
        if (!expectations_.inOrder) return;
        if (index >= last_) {
            last_ = index;
            lastLine_ = call.line;
            return;
        }
        report("out of order", call,
               describe(call.entry) + "; the [[call]] of line " +
                   std::to_string(expectations_.calls[index].line()) + " is expected before line " +
                   std::to_string(lastLine_) + ", which is that of line " +
                   std::to_string(expectations_.calls[last_].line()));
    }

    void report(const char* what, const Call& call, const std::string& text)
    {
        out_ << what << ": line " << call.line << ": " << text << '\n';
        ++differences_;
    }

    const Expectations& expectations_;
    std::ostream& out_;
    std::vector<std::int64_t> counts_; // of calls, by expectation
    std::size_t last_ = 0;             // the last expectation that has been come to
    std::size_t lastLine_ = 0;         // of the journal
    int differences_ = 0;
};

} // namespace

int check(const std::vector<std::string>& arguments, std::ostream& out, std::ostream& complaints)
{
    if (arguments.size() == 1 && (arguments[0] == "--help" || arguments[0] == "-h")) {
        out << kUsage;
        return kAsExpected;
    }
    if (arguments.size() != 2) {
        complaints << kUsage;
        return kNoCheck;
    }
    std::string file = arguments[0];
    try {
        const std::vector<Call> calls = readJournal(file);
        file = arguments[1];
        const Expectations expectations = readExpectations(conf::readFile(file));
        Comparison comparison(expectations, out);
        for (const Call& call : calls) comparison.take(call);
        if (comparison.end() > 0) return kOtherwise;
        out << counted(static_cast<std::int64_t>(calls.size())) << ", as expected\n";
        return kAsExpected;
    } catch (const std::runtime_error& problem) {
        complaints << "qpxgatewayd check: " << file << ": " << problem.what() << '\n';
        return kNoCheck;
    }
}

} // namespace journal
