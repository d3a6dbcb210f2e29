/* The page of mutant.h: the file that QPX_MUTANT_PAGE names, so that it is one for a process and
 * for all that come of it; without it the mutant is the one of QPX_MUTANT, if any. */
#include "mutant.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>

#ifdef SYS_mmap2
constexpr long MAP_CALL = SYS_mmap2;
#else
constexpr long MAP_CALL = SYS_mmap;
#endif

static struct {
    QpxMutantPage page;
    unsigned char rest[65536];
} own;

extern "C" {
QpxMutantPage* qpxMutantPage = &own.page;
}

__attribute__((constructor(101))) static void takePage()
{
    const char* chosen = getenv("QPX_MUTANT");
    if (chosen != nullptr) own.page.chosen = atoi(chosen);
    const char* name = getenv("QPX_MUTANT_PAGE");
    if (name == nullptr) return;
    int file = open(name, O_RDWR | O_CLOEXEC);
    if (file < 0) abort();
    struct stat status;
    fstat(file, &status);
    // Tests stand between the library and some of these.
    long page = syscall(MAP_CALL, nullptr, static_cast<size_t>(status.st_size),
                        PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    syscall(SYS_close, file);
    if (page == -1) abort();
    qpxMutantPage = reinterpret_cast<QpxMutantPage*>(page);
}
