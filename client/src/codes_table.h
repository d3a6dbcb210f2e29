// The return codes as docs/return-codes.md tells of them. The table is made from the page when the
// program is built.
#ifndef QPX_CODES_TABLE_H
#define QPX_CODES_TABLE_H

#include <vector>

namespace qpx {

struct CodeRow {
    int value;
    const char* names; // with a blank between them; "" if the row names none
    const char* when;  // the heading under which the row stands
    const char* meaning;
    const char* advice; // "" if there is nothing to do
};

extern const std::vector<CodeRow> kCodes; // in the order of the page

} // namespace qpx

#endif
