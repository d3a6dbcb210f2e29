// Containers that are read by name, all of a channel in an order that jumps about, and the like in
// a map of the C++ library under a mutex.

#include "../common/measure.h"
#include "library.h"
#include "rows.h"

#include <cstring>
#include <map>
#include <mutex>

namespace bench {

namespace {

constexpr int readsInASample = 64;

// The names of all containers, each once, not in their order.
std::vector<std::string> namesThatJump(int containers)
{
    constexpr std::size_t stride = 7919; // a prime that no number of containers has as a factor
    const std::size_t count = static_cast<std::size_t>(containers);
    std::vector<std::string> names;
    for (std::size_t turn = 0; turn < count; ++turn)
        names.push_back("C" + std::to_string(turn * stride % count));
    return names;
}

// Measures reads of one name after the other.
template <typename Read>
Figures measureReads(const Options& options, const Read& read)
{
    const std::vector<std::string> names = namesThatJump(options.containers);
    return measureCalls(
        options,
        [&](int) {
            return [&, data = std::vector<char>(options.size), at = std::size_t(0)]() mutable {
                read(names[at], &data);
                if (++at == names.size()) at = 0;
            };
        },
        readsInASample);
}

} // namespace

Figures containerRow(const Options& options)
{
    const Channel channel(options.containers, options.size);
    return measureReads(options, [&](const std::string& name, std::vector<char>* data) {
        channel.read(name, data);
    });
}

Figures mapRow(const Options& options)
{
    std::mutex mutex;
    std::map<std::string, std::string> map;
    for (const std::string& name : namesThatJump(options.containers))
        map.emplace(name, std::string(options.size, 'd'));
    return measureReads(options, [&](const std::string& name, std::vector<char>* data) {
        const std::lock_guard<std::mutex> lock(mutex);
        const std::string& found = map.at(name);
        std::memcpy(data->data(), found.data(), found.size());
    });
}

} // namespace bench
