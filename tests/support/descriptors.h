// Descriptors numbered high, as a process with many connections has them.
#ifndef SUPPORT_DESCRIPTORS_H
#define SUPPORT_DESCRIPTORS_H

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

namespace support {

// While it lives, every new descriptor of the process has at least the given number.
class DescriptorsFrom {
public:
    explicit DescriptorsFrom(int number)
    {
        rlimit limit{};
        getrlimit(RLIMIT_NOFILE, &limit);
        auto wanted = static_cast<rlim_t>(number + 200);
        if (limit.rlim_cur < wanted) {
            limit.rlim_cur = wanted;
            if (limit.rlim_max < wanted) limit.rlim_max = wanted;
            if (setrlimit(RLIMIT_NOFILE, &limit) != 0)
                throw std::runtime_error("RLIMIT_NOFILE cannot be raised");
        }
        for (;;) {
            int descriptor = open("/dev/null", O_RDONLY | O_CLOEXEC);
            if (descriptor < 0) throw std::runtime_error("no more descriptors");
            if (descriptor >= number) {
                close(descriptor);
                return;
            }
            held_.push_back(descriptor);
        }
    }
    ~DescriptorsFrom()
    {
        for (int descriptor : held_) close(descriptor);
    }
    DescriptorsFrom(const DescriptorsFrom&) = delete;
    DescriptorsFrom& operator=(const DescriptorsFrom&) = delete;

private:
    std::vector<int> held_;
};

inline bool descriptorIsOpen(int descriptor)
{
    return fcntl(descriptor, F_GETFD) != -1;
}

// How many descriptors the process has open.
inline int openDescriptors()
{
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    int open = 0;
    for (int descriptor = 0; descriptor < static_cast<int>(limit.rlim_cur); ++descriptor)
        if (descriptorIsOpen(descriptor)) open += 1;
    return open;
}

} // namespace support

#endif
