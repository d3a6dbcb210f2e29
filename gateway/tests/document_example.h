// The examples of docs/gateway.md, for tests that run them.
#ifndef STANDIN_TESTS_DOCUMENT_EXAMPLE_H
#define STANDIN_TESTS_DOCUMENT_EXAMPLE_H

#include <fstream>
#include <stdexcept>
#include <string>

namespace standin_test {

// The example of the document that has this line in it.
inline std::string documentExample(const std::string& line)
{
    std::ifstream document(GATEWAY_DOCUMENT);
    std::string text;
    std::string block;
    bool isInside = false;
    while (std::getline(document, text)) {
        if (text.rfind("```", 0) == 0) {
            if (isInside && block.find(line + "\n") != std::string::npos) return block;
            isInside = !isInside;
            block.clear();
        } else if (isInside) {
            block += text + "\n";
        }
    }
    throw std::runtime_error("docs/gateway.md has no example with " + line);
}

} // namespace standin_test

#endif
