#include "books.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace soak {

Books::Books(const char* file) : file_(file)
{
    int descriptor = open(file, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    void* mapped = MAP_FAILED;
    if (descriptor >= 0 && ftruncate(descriptor, mostNumbers) == 0)
        mapped = mmap(nullptr, mostNumbers, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
    if (mapped == MAP_FAILED) {
        std::perror(file);
        std::exit(2);
    }
    close(descriptor);
    entries_ = static_cast<char*>(mapped);
}

Books::~Books()
{
    munmap(entries_, mostNumbers);
}

int Books::next(Entry first)
{
    int number = __atomic_add_fetch(&last_, 1, __ATOMIC_RELAXED);
    if (static_cast<std::size_t>(number) >= mostNumbers) {
        std::fprintf(stderr, "soak: all %zu numbers have been used\n", mostNumbers);
        std::_Exit(2);
    }
    __atomic_store_n(&entries_[number], static_cast<char>(first), __ATOMIC_SEQ_CST);
    return number;
}

bool Books::change(int number, Entry from, Entry to)
{
    if (number < 1 || number > used()) return false;
    char expected = static_cast<char>(from);
    return __atomic_compare_exchange_n(&entries_[number], &expected, static_cast<char>(to), false,
                                       __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
}

void Books::shorten()
{
    if (truncate(file_, used() + 1) != 0) std::perror(file_);
}

int Books::used() const
{
    return __atomic_load_n(&last_, __ATOMIC_RELAXED);
}

} // namespace soak
