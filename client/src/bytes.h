// Data as people and scripts give and read it: text, hexadecimal digits, files.
#ifndef QPX_BYTES_H
#define QPX_BYTES_H

#include <string>

#include "failure.h"

namespace qpx {

// "00 1f" or "001F". Throws a Failure that names what it is.
std::string fromHex(const std::string& digits, const std::string& what);
std::string toHex(const std::string& bytes);

// Lines of sixteen bytes: offset, digits, characters.
std::string toDump(const std::string& bytes);

// The whole content of a file, "-" is standard input. Throws a Failure that names what cannot be
// read to its end, or has more bytes than "a COMMAREA", whose content it is, can have.
std::string readFile(const std::string& name, std::size_t most, const std::string& whose);

// From UTF-8 to the code page of a CCSID, and back. A CCSID of 0 leaves the bytes as they are.
// Throws a Failure for a CCSID that the system's iconv does not have, and for characters that the
// code page does not have.
std::string toCodePage(const std::string& text, int ccsid);
std::string fromCodePage(const std::string& bytes, int ccsid);

// The text without the NULs and blanks behind it, if it is UTF-8 and can be shown as it is; false
// otherwise.
bool printable(const std::string& bytes, int ccsid, std::string& text);

enum class Form { Auto, Text, Hex, Dump, Raw };

// Throws a Failure.
Form formFrom(const std::string& name);

// Data for standard output, with a line feed behind it but for Raw. Auto is Text where that can be
// shown, and Dump where it cannot.
std::string shown(const std::string& bytes, int ccsid, Form form);

// {"length":5,"text":"Hello","hex":"48656c6c6f"}; there is no text that cannot be shown.
Json bytesAsJson(const std::string& bytes, int ccsid);

} // namespace qpx

#endif
