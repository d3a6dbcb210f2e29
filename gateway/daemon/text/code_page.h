// The characters of containers: from the code page that a CCSID names to UTF-8, and back.
//
// Known are the CCSIDs that a client takes from its locale (813, 819, 912, 915, 916, 920, 950, 964,
// 970, 1089, 1383, 5050), 1208 (UTF-8), 1200 (UTF-16, big-endian), 367 (ASCII), 850, 923, 1252, and
// the EBCDIC ones 37, 273, 500, 1047, 1140 and 1148; as far as the system's iconv has them.
#ifndef GATEWAY_CODE_PAGE_H
#define GATEWAY_CODE_PAGE_H

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>

#include "standin/messages.h"

namespace code_page {

bool isKnownCcsid(std::int32_t ccsid);

// Bytes that are no characters; what() reads "byte 7 is no character of CCSID 1208", counted from
// 0.
class ConversionError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Both want a known CCSID. Characters that the code page does not have become '?'.
std::string toUtf8(const standin::Bytes& text, std::int32_t ccsid);
standin::Bytes fromUtf8(const std::string& text, std::int32_t ccsid);

// How many characters a text in UTF-8 has.
std::size_t characterCount(const std::string& text);

} // namespace code_page

#endif
