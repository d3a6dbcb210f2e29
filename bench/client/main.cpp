// qpxbench: measures one row and prints its figures as a line of JSON. bench/run calls it.

#include "../common/sockets.h"
#include "rows.h"

namespace {

constexpr const char* usage = "Measures one row and prints its figures as a line of JSON.\n"
                              "\n"
                              "Usage: qpxbench --row NAME --port N [options]\n"
                              "\n"
                              "Options:\n";

constexpr const char* usageOfRows =
    "\n"
    "Rows, against qpxbench-server where nothing else is said:\n"
    "  floor                one send and one recv a call, on a blocking socket of each thread\n"
    "  handoff              the least program of the library's design: one send under a mutex,\n"
    "                       a thread that receives, a mutex and a condition as gate\n"
    "  handoff-window       the same with requests that are collected later\n"
    "  handoff-best         the best form of it that was found: a futex as gate, a recv that "
    "takes\n"
    "                       all that is there\n"
    "  handoff-best-window  the same with requests that are collected later\n"
    "  sync                 synchronous calls through the library\n"
    "  async                asynchronous calls, --window of them on their way at once\n"
    "  channel              calls with a channel of --containers containers\n"
    "  password             verifications of a password\n"
    "  connections          calls on the last of --connections connections\n"
    "  outstanding          calls beside --outstanding asynchronous ones that get no answer\n"
    "  bulk                 calls with a container of --megabytes that comes back\n"
    "  container            reading a container by name, one of --containers (no server)\n"
    "  map                  looking it up in a std::map under a mutex (no server)\n"
    "  trace-line           a line of the trace to --trace-file (no server)\n"
    "  print-line           the same text, printed and flushed (no server)\n"
    "\n"
    "Thousands of connections need threads of smaller stacks: ulimit -s.\n"
    "\n"
    "Examples:\n"
    "  qpxbench --row sync --port 40123 --size 100 --threads 4 --calls 20000\n"
    "  qpxbench --row async --port 40123 --window 256\n"
    "  (ulimit -s 64 && qpxbench --row connections --port 40123 --connections 13000)\n"
    "  qpxbench --row container --containers 10000 --calls 100000\n";

struct Row {
    const char* name;
    bench::Figures (*measure)(const bench::Options& options);
};

constexpr Row rows[] = {
    {"floor", bench::floorRow},
    {"handoff", bench::handOffRow},
    {"handoff-window", bench::handOffWindowRow},
    {"handoff-best", bench::bestHandOffRow},
    {"handoff-best-window", bench::bestHandOffWindowRow},
    {"sync", bench::syncRow},
    {"async", bench::asyncRow},
    {"channel", bench::channelRow},
    {"password", bench::passwordRow},
    {"connections", bench::connectionsRow},
    {"outstanding", bench::outstandingRow},
    {"bulk", bench::bulkRow},
    {"container", bench::containerRow},
    {"map", bench::mapRow},
    {"trace-line", bench::traceLineRow},
    {"print-line", bench::printLineRow},
};

} // namespace

int main(int argc, char** argv)
{
    const bench::Options options = bench::readOptions(
        argc, argv, std::string(usage) + bench::usageOfOptions + usageOfRows);
    for (const Row& row : rows) {
        if (options.row != row.name) continue;
        bench::allowManyDescriptors();
        bench::print(options, row.measure(options));
        return 0;
    }
    bench::fail("no row \"" + options.row + "\"; --help names them");
}
