// Descriptors numbered high, as a process with many connections has them.
#ifndef SUPPORT_DESCRIPTORS_H
#define SUPPORT_DESCRIPTORS_H

#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
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

// How many descriptors the process has open. Asked of the kernel directly: callers count what the
// process allocates, opens and closes meanwhile.
inline int openDescriptors()
{
    auto folder = static_cast<int>(
        syscall(SYS_openat, AT_FDCWD, "/proc/self/fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (folder < 0) throw std::runtime_error("/proc/self/fd cannot be read");
    int open = -1; // without the folder's own
    alignas(dirent64) char entries[4096] = {};
    long size = 0;
    while ((size = syscall(SYS_getdents64, folder, entries, sizeof entries)) > 0) {
        for (long at = 0; at < size;) {
            const auto* entry = reinterpret_cast<const dirent64*>(entries + at);
            if (entry->d_name[0] != '.') open += 1;
            at += entry->d_reclen;
        }
    }
    syscall(SYS_close, folder);
    if (size < 0) throw std::runtime_error("/proc/self/fd cannot be read");
    return open;
}

} // namespace support

#endif
