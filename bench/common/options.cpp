#include "options.h"

#include "sockets.h"

#include <cstdio>
#include <cstdlib>

namespace bench {

namespace {

constexpr long largestNumber = 1000000000;

long numberOf(const std::string& option, const std::string& text)
{
    char* end = nullptr;
    const long number = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || number < 0 || number > largestNumber)
        fail(option + ": " + text + " is no number");
    return number;
}

bool setText(Options* options, const std::string& name, const std::string& value)
{
    if (name == "--row")
        options->row = value;
    else if (name == "--program")
        options->program = value;
    else if (name == "--trace-file")
        options->traceFile = value;
    else
        return false;
    return true;
}

int* placeOf(Options* options, const std::string& name)
{
    const struct {
        const char* name;
        int* place;
    } places[] = {
        {"--threads", &options->threads},
        {"--connections", &options->connections},
        {"--window", &options->window},
        {"--containers", &options->containers},
        {"--outstanding", &options->outstanding},
        {"--megabytes", &options->megabytes},
        {"--calls", &options->calls},
        {"--warm-up", &options->warmUp},
        {"--trace", &options->trace},
    };
    for (const auto& place : places)
        if (name == place.name) return place.place;
    return nullptr;
}

void setNumber(Options* options, const std::string& name, const std::string& value)
{
    if (name == "--port")
        options->port = static_cast<std::uint16_t>(numberOf(name, value));
    else if (name == "--size")
        options->size = static_cast<std::size_t>(numberOf(name, value));
    else if (int* const place = placeOf(options, name))
        *place = static_cast<int>(numberOf(name, value));
    else
        fail("unknown option " + name + "; --help shows what there is");
}

} // namespace

Options readOptions(int argc, char** argv, const std::string& usage)
{
    Options options;
    for (int at = 1; at < argc; ++at) {
        const std::string name = argv[at];
        if (name == "--help" || name == "-h") {
            std::fputs(usage.c_str(), stdout);
            std::exit(0);
        }
        if (name == "--serve") {
            options.serve = true;
            continue;
        }
        if (++at == argc) fail(name + " needs a value; --help shows the options");
        if (!setText(&options, name, argv[at])) setNumber(&options, name, argv[at]);
    }
    if (options.threads < 1 || options.connections < 1 || options.window < 1 || options.calls < 1)
        fail("threads, connections, window and calls are at least 1");
    return options;
}

} // namespace bench
