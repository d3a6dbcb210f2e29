// Bytes as text that any database takes: UTF-8 as it is, and other bytes as characters that are
// nobody's, one for each. What a caller sends as the number of an account need be no text at all.
#ifndef LEDGER_DATABASE_PLAIN_TEXT_H
#define LEDGER_DATABASE_PLAIN_TEXT_H

#include <string>

namespace plain_text {

std::string fromBytes(const std::string& bytes);
std::string toBytes(const std::string& text);

} // namespace plain_text

#endif
