// Holds a journal against a list of expectations: "qpxgatewayd check JOURNAL EXPECT.toml".
// docs/gateway.md describes the list.
//
// Thread: one at a time.
#ifndef JOURNAL_CHECK_H
#define JOURNAL_CHECK_H

#include <iosfwd>
#include <string>
#include <vector>

namespace journal {

// How it ends.
enum CheckCode {
    kAsExpected = 0,
    kOtherwise = 1, // what is missing, unexpected or out of order has been named
    kNoCheck = 2,   // wrong arguments, or a file that cannot be used
};

// The arguments behind the word "check".
int check(const std::vector<std::string>& arguments, std::ostream& out, std::ostream& complaints);

} // namespace journal

#endif
