// Makes the table of return codes that qpx is compiled with out of docs/return-codes.md: a row for
// each row of its tables that begins with one value or several, under the heading that it has
// there.
//
//     codes_table PAGE SOURCE
//
// Rows without a value ("other") name no code and are left out. A row that has neither three nor
// four cells, or a value that is none, fails the build.

#include <fstream>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

std::string trimmed(const std::string& text)
{
    const std::size_t first = text.find_first_not_of(' ');
    if (first == std::string::npos) return "";
    return text.substr(first, text.find_last_not_of(' ') - first + 1);
}

// The cells of a row, which begins and ends with a bar.
std::vector<std::string> cellsOf(const std::string& line)
{
    std::vector<std::string> cells;
    std::size_t begin = 1;
    for (std::size_t bar = line.find('|', begin); bar != std::string::npos;
         bar = line.find('|', begin)) {
        cells.push_back(trimmed(line.substr(begin, bar - begin)));
        begin = bar + 1;
    }
    return cells;
}

// What a reader of the page sees: no backticks, and of a link its text.
std::string plain(const std::string& markdown)
{
    std::string text;
    for (std::size_t at = 0; at < markdown.size(); ++at) {
        const char c = markdown[at];
        if (c == '`' || c == '[') continue;
        if (c == ']' && at + 1 < markdown.size() && markdown[at + 1] == '(') {
            at = markdown.find(')', at);
            if (at == std::string::npos) throw std::runtime_error("a link has no end");
            continue;
        }
        text += c;
    }
    return text;
}

std::string quoted(const std::string& text)
{
    std::string literal = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') literal += '\\';
        literal += c;
    }
    return literal + '"';
}

bool beginsWithValue(const std::string& cell)
{
    return !cell.empty() && (cell[0] == '-' || (cell[0] >= '0' && cell[0] <= '9')) &&
           cell.find_first_not_of("-0123456789, ") == std::string::npos &&
           cell.find_first_of("0123456789") != std::string::npos;
}

// The names in a cell: what stands in backticks and has a prefix of the families.
std::string namesIn(const std::string& cell)
{
    std::string names;
    std::size_t begin = 0;
    while ((begin = cell.find('`', begin)) != std::string::npos) {
        const std::size_t end = cell.find('`', begin + 1);
        if (end == std::string::npos) throw std::runtime_error("a name has no end");
        const std::string name = cell.substr(begin + 1, end - begin - 1);
        if (name.compare(0, 4, "QPX_") == 0 || name.compare(0, 4, "ECI_") == 0 ||
            name.compare(0, 4, "ESI_") == 0)
            names += (names.empty() ? "" : " ") + name;
        begin = end + 1;
    }
    return names;
}

void writeRow(std::ostream& source, const std::string& section,
              const std::vector<std::string>& cells)
{
    if (cells.size() < 3 || cells.size() > 4)
        throw std::runtime_error("a row has neither three nor four cells");
    std::istringstream values(cells[0]);
    std::string value;
    while (std::getline(values, value, ',')) {
        source << "    {" << std::stoi(value) << ", " << quoted(namesIn(cells[1])) << ", "
               << quoted(section) << ",\n     " << quoted(plain(cells[2])) << ",\n     "
               << quoted(cells.size() > 3 ? plain(cells[3]) : "") << "},\n";
    }
}

void writeTable(std::istream& page, std::ostream& source)
{
    std::string line;
    std::string section;
    int number = 0;

    source << "// Made from docs/return-codes.md.\n#include \"codes_table.h\"\n\n"
              "const std::vector<qpx::CodeRow> qpx::kCodes = {\n";
    while (std::getline(page, line)) {
        ++number;
        try {
            if (line.compare(0, 3, "## ") == 0) section = plain(line.substr(3));
            if (line.empty() || line[0] != '|') continue;
            const std::vector<std::string> cells = cellsOf(line);
            if (!cells.empty() && beginsWithValue(cells[0])) writeRow(source, section, cells);
        } catch (const std::exception& problem) {
            throw std::runtime_error("line " + std::to_string(number) + ": " + problem.what());
        }
    }
    source << "};\n";
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3) {
        std::cerr << "Usage: codes_table PAGE SOURCE\n";
        return 2;
    }
    try {
        std::ifstream page(argv[1]);
        if (!page) throw std::runtime_error("cannot be read");
        std::ofstream source(argv[2]);
        writeTable(page, source);
        source.close();
        if (!source) throw std::runtime_error(std::string("cannot write ") + argv[2]);
    } catch (const std::exception& problem) {
        std::cerr << argv[1] << ": " << problem.what() << '\n';
        return 1;
    }
    return 0;
}
