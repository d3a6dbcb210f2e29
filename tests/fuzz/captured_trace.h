// The trace, written to a file that has no name any more and is read here.
#ifndef FUZZ_CAPTURED_TRACE_H
#define FUZZ_CAPTURED_TRACE_H

#include <fcntl.h>
#include <unistd.h>

#include <string>

#include "qpxclient.h"
#include "world.h"

class CapturedTrace {
public:
    CapturedTrace()
    {
        std::string name = "/tmp/qpx-fuzz-trace." + std::to_string(getpid());
        FUZZ_CHECK(QPX_setAPITraceFile(&name[0]) == QPX_OK, "no trace file %s", name.c_str());
        descriptor_ = ::open(name.c_str(), O_RDWR);
        unlink(name.c_str());
        take();
    }

    // What it has said since the last time.
    std::string take() const
    {
        std::string all;
        char part[4096];
        for (ssize_t count;
             (count = pread(descriptor_, part, sizeof part, static_cast<off_t>(all.size()))) > 0;)
            all.append(part, static_cast<std::size_t>(count));
        FUZZ_CHECK(ftruncate(descriptor_, 0) == 0, "the trace cannot be cut");
        return all;
    }

private:
    int descriptor_;
};

// The one of this process.
inline CapturedTrace& capturedTrace()
{
    static auto* trace = new CapturedTrace;
    return *trace;
}

#endif
