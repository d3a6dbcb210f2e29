#include "bytes.h"

#include <fcntl.h>
#include <iconv.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include <nlohmann/json.hpp>

#include "descriptor.h"

namespace qpx {

namespace {

int digitOf(char c)
{
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// ---- Code pages ---------------------------------------------------------------------------------

// The names under which iconv may have the code page: those of the CCSIDs that it calls otherwise,
// else by their number.
std::vector<std::string> codePageNames(int ccsid)
{
    switch (ccsid) {
    case 367: return {"ASCII"};
    case 813: return {"ISO-8859-7"};
    case 819: return {"ISO-8859-1"};
    case 912: return {"ISO-8859-2"};
    case 915: return {"ISO-8859-5"};
    case 916: return {"ISO-8859-8"};
    case 920: return {"ISO-8859-9"};
    case 923: return {"ISO-8859-15"};
    case 1089: return {"ISO-8859-6"};
    case 1200: return {"UTF-16BE"};
    case 1208: return {"UTF-8"};
    default: break;
    }
    std::string number = std::to_string(ccsid);
    number.insert(0, number.size() < 3 ? 3 - number.size() : 0, '0');
    return {"IBM" + number, "CP" + number};
}

class Converter {
public:
    Converter(const std::string& to, const std::string& from)
        : handle_(iconv_open(to.c_str(), from.c_str()))
    {
    }

    ~Converter()
    {
        if (isOpen()) iconv_close(handle_);
    }

    Converter(const Converter&) = delete;
    Converter& operator=(const Converter&) = delete;

    bool isOpen() const { return handle_ != reinterpret_cast<iconv_t>(-1); }

    // False if there is something in the input that cannot be converted.
    bool convert(std::string input, std::string& output)
    {
        char* at = input.data();
        std::size_t left = input.size();
        while (left > 0) {
            char room[4096];
            char* next = room;
            std::size_t free = sizeof room;
            const std::size_t result = iconv(handle_, &at, &left, &next, &free);
            output.append(room, sizeof room - free);
            if (result == static_cast<std::size_t>(-1) && errno != E2BIG) return false;
        }
        finish(output);
        return true;
    }

private:
    // A code page with shifts ends in the state in which it begins.
    void finish(std::string& output)
    {
        char room[16];
        char* next = room;
        std::size_t free = sizeof room;
        iconv(handle_, nullptr, nullptr, &next, &free);
        output.append(room, sizeof room - free);
    }

    iconv_t handle_;
};

bool convert(const std::string& input, int ccsid, bool toUtf8, std::string& output)
{
    for (const std::string& name : codePageNames(ccsid)) {
        Converter converter(toUtf8 ? "UTF-8" : name, toUtf8 ? name : "UTF-8");
        if (converter.isOpen()) return converter.convert(input, output);
    }
    throw Failure(kUsage, "this system cannot convert code page " + std::to_string(ccsid));
}

// ---- Files --------------------------------------------------------------------------------------

class Input {
public:
    explicit Input(const std::string& name)
        : name_(name == "-" ? "standard input" : name), owned_(name != "-"),
          descriptor_(owned_ ? open(name.c_str(), O_RDONLY | O_CLOEXEC) : STDIN_FILENO)
    {
        if (descriptor_ < 0) fail();
    }

    ~Input()
    {
        if (owned_) close(descriptor_);
    }

    Input(const Input&) = delete;
    Input& operator=(const Input&) = delete;

    // The next bytes; 0 are the end.
    std::size_t read(char* room, std::size_t size)
    {
        const ssize_t length = readSome(descriptor_, room, size);
        if (length < 0) fail();
        return static_cast<std::size_t>(length);
    }

private:
    [[noreturn]] void fail() const
    {
        throw Failure(kFailed, "cannot read " + name_ + ": " + std::strerror(errno));
    }

    std::string name_;
    bool owned_;
    int descriptor_;
};

// ---- What can be shown --------------------------------------------------------------------------

// How many bytes the character of UTF-8 has that begins here; 0 if none does.
std::size_t characterAt(const std::string& text, std::size_t at)
{
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned first = byte(at);
    const std::size_t length = first < 0x80                     ? 1
                               : first >= 0xC2 && first <= 0xDF ? 2
                               : first >= 0xE0 && first <= 0xEF ? 3
                               : first >= 0xF0 && first <= 0xF4 ? 4
                                                                : 0;
    if (length == 0 || at + length > text.size()) return 0;
    for (std::size_t i = at + 1; i < at + length; ++i)
        if ((byte(i) & 0xC0U) != 0x80U) return 0;
    if (length == 2 && first == 0xC2 && byte(at + 1) < 0xA0) return 0; // controls
    if (length == 3 && first == 0xE0 && byte(at + 1) < 0xA0) return 0;
    if (length == 3 && first == 0xED && byte(at + 1) > 0x9F) return 0;
    if (length == 4 && first == 0xF0 && byte(at + 1) < 0x90) return 0;
    if (length == 4 && first == 0xF4 && byte(at + 1) > 0x8F) return 0;
    return length;
}

bool canBeShown(const std::string& text)
{
    for (std::size_t at = 0; at < text.size();) {
        const std::size_t length = characterAt(text, at);
        const auto c = static_cast<unsigned char>(text[at]);
        if (length == 0) return false;
        if ((c < ' ' && c != '\n' && c != '\t' && c != '\r') || c == 0x7F) return false;
        at += length;
    }
    return true;
}

const std::string kNuls(1, '\0');
const std::string kNulsAndBlanks("\0 ", 2);

std::string withoutEnd(std::string text, const std::string& end)
{
    const std::size_t last = text.find_last_not_of(end);
    text.resize(last == std::string::npos ? 0 : last + 1);
    return text;
}

} // namespace

std::string fromHex(const std::string& digits, const std::string& what)
{
    std::string bytes;
    int high = -1;
    for (const char c : digits) {
        if (c == ' ' && high < 0) continue;
        const int digit = digitOf(c);
        if (digit < 0)
            throw Failure(kUsage, what + ": \"" + std::string(1, c) + "\" is no hexadecimal digit");
        if (high < 0) {
            high = digit;
        } else {
            bytes += static_cast<char>(high * 16 + digit);
            high = -1;
        }
    }
    if (high >= 0) throw Failure(kUsage, what + ": a hexadecimal digit is missing");
    return bytes;
}

std::string toHex(const std::string& bytes)
{
    std::string digits;
    for (const char c : bytes) {
        digits += "0123456789abcdef"[static_cast<unsigned char>(c) >> 4U];
        digits += "0123456789abcdef"[static_cast<unsigned char>(c) & 15U];
    }
    return digits;
}

std::string toDump(const std::string& bytes)
{
    std::string dump;
    for (std::size_t at = 0; at < bytes.size(); at += 16) {
        char offset[24];
        std::string digits;
        std::string characters;
        for (const char c : bytes.substr(at, 16)) {
            digits += toHex(std::string(1, c)) + ' ';
            characters += c >= ' ' && c <= '~' ? c : '.';
        }
        digits.resize(48, ' ');
        std::snprintf(offset, sizeof offset, "%06zx  ", at);
        dump += offset + digits + " |" + characters + "|\n";
    }
    return dump;
}

std::string readFile(const std::string& name, std::size_t most, const std::string& whose)
{
    Input input(name);
    std::string content;
    char piece[16384];
    while (const std::size_t length = input.read(piece, sizeof piece)) {
        if (length > most - content.size())
            throw Failure(kUsage, whose + " has at most " + std::to_string(most) + " bytes, and " +
                                      name + " has more");
        content.append(piece, length);
    }
    return content;
}

std::string toCodePage(const std::string& text, int ccsid)
{
    std::string bytes;
    if (ccsid == 0) return text;
    if (!convert(text, ccsid, false, bytes))
        throw Failure(kUsage, "the text has characters that code page " + std::to_string(ccsid) +
                                  " does not have");
    return bytes;
}

std::string fromCodePage(const std::string& bytes, int ccsid)
{
    std::string text;
    if (ccsid == 0) return bytes;
    if (!convert(bytes, ccsid, true, text))
        throw Failure(kFailed, "the data are no characters of code page " + std::to_string(ccsid));
    return text;
}

bool printable(const std::string& bytes, int ccsid, std::string& text)
{
    std::string converted = withoutEnd(bytes, kNuls);
    if (ccsid != 0) {
        std::string characters;
        if (!convert(converted, ccsid, true, characters)) return false;
        converted = characters;
    }
    text = withoutEnd(converted, kNulsAndBlanks);
    return canBeShown(text);
}

Form formFrom(const std::string& name)
{
    if (name == "auto") return Form::Auto;
    if (name == "text") return Form::Text;
    if (name == "hex") return Form::Hex;
    if (name == "dump") return Form::Dump;
    if (name == "raw") return Form::Raw;
    throw Failure(kUsage, "--as takes auto, text, hex, dump or raw, not " + name);
}

std::string shown(const std::string& bytes, int ccsid, Form form)
{
    std::string text;
    switch (form) {
    case Form::Auto:
        if (!printable(bytes, ccsid, text)) return toDump(bytes);
        return text.empty() || text.back() == '\n' ? text : text + '\n';
    case Form::Text: return fromCodePage(withoutEnd(bytes, kNuls), ccsid) + '\n';
    case Form::Hex: return toHex(bytes) + '\n';
    case Form::Dump: return toDump(bytes);
    case Form::Raw: break;
    }
    return bytes;
}

Json bytesAsJson(const std::string& bytes, int ccsid)
{
    Json json = {{"length", bytes.size()}};
    std::string text;
    if (printable(bytes, ccsid, text)) json["text"] = text;
    json["hex"] = toHex(bytes);
    return json;
}

} // namespace qpx
