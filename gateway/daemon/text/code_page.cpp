#include "text/code_page.h"

#include <iconv.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <system_error>

namespace code_page {

namespace {

struct CodePage {
    std::int32_t ccsid;
    const char* name; // as iconv knows it
};

constexpr CodePage kCodePages[] = {
    {37, "IBM037"},       {273, "IBM273"},     {367, "ASCII"},      {500, "IBM500"},
    {813, "ISO-8859-7"},  {819, "ISO-8859-1"}, {850, "IBM850"},     {912, "ISO-8859-2"},
    {915, "ISO-8859-5"},  {916, "ISO-8859-8"}, {920, "ISO-8859-9"}, {923, "ISO-8859-15"},
    {950, "BIG5"},        {964, "EUC-TW"},     {970, "EUC-KR"},     {1047, "IBM1047"},
    {1089, "ISO-8859-6"}, {1140, "IBM1140"},   {1148, "IBM1148"},   {1200, "UTF-16BE"},
    {1208, "UTF-8"},      {1252, "CP1252"},    {1383, "GB2312"},    {5050, "EUC-JP"},
};

const char* const kUtf8 = "UTF-8";

const char* nameOf(std::int32_t ccsid)
{
    const auto* const found = std::find_if(
        std::begin(kCodePages), std::end(kCodePages),
        [ccsid](const CodePage& codePage) { return codePage.ccsid == ccsid; });
    return found == std::end(kCodePages) ? nullptr : found->name;
}

bool isContinuation(char byte)
{
    return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U;
}

// One conversion, from the first byte of the input on.
class Converter {
public:
    Converter(const char* to, const char* from) : handle_(iconv_open(to, from)) {}

    ~Converter()
    {
        if (isOpen()) iconv_close(handle_);
    }

    Converter(const Converter&) = delete;
    Converter& operator=(const Converter&) = delete;

    bool isOpen() const { return handle_ != reinterpret_cast<iconv_t>(-1); }

    // Converts up to the end, or up to what cannot be converted, and appends it to the output.
    // Returns how many bytes of the input that were.
    std::size_t convert(std::string_view input, std::string& output)
    {
        char* at = const_cast<char*>(input.data()); // iconv does not write there
        std::size_t left = input.size();
        while (left > 0) {
            char room[1024];
            char* next = room;
            std::size_t free = sizeof room;
            const std::size_t result = iconv(handle_, &at, &left, &next, &free);
            const bool stopped = result == static_cast<std::size_t>(-1) && errno != E2BIG;
            output.append(room, sizeof room - free);
            if (stopped) break;
        }
        return input.size() - left;
    }

private:
    iconv_t handle_;
};

void requireOpen(const Converter& converter)
{
    if (!converter.isOpen()) throw std::system_error(errno, std::generic_category(), "iconv_open");
}

} // namespace

bool isKnownCcsid(std::int32_t ccsid)
{
    const char* const name = nameOf(ccsid);
    return name != nullptr && Converter(kUtf8, name).isOpen() && Converter(name, kUtf8).isOpen();
}

std::string toUtf8(const standin::Bytes& text, std::int32_t ccsid)
{
    Converter converter(kUtf8, nameOf(ccsid));
    requireOpen(converter);
    const std::string input(text.begin(), text.end());
    std::string output;
    const std::size_t done = converter.convert(input, output);
    if (done < input.size()) {
        throw ConversionError("byte " + std::to_string(done) + " is no character of CCSID " +
                              std::to_string(ccsid));
    }
    return output;
}

standin::Bytes fromUtf8(const std::string& text, std::int32_t ccsid)
{
    Converter converter(nameOf(ccsid), kUtf8);
    requireOpen(converter);
    std::string output;
    std::string_view rest = text;
    for (;;) {
        rest.remove_prefix(converter.convert(rest, output));
        if (rest.empty()) break;
        do {
            rest.remove_prefix(1);
        } while (!rest.empty() && isContinuation(rest.front()));
        converter.convert("?", output);
    }
    return standin::Bytes(output.begin(), output.end());
}

std::size_t characterCount(const std::string& text)
{
    return text.size() -
           static_cast<std::size_t>(std::count_if(text.begin(), text.end(), isContinuation));
}

} // namespace code_page
