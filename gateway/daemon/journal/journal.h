// The journal: every call of a Gateway as one line of a file, which is there before the answer
// goes out. A file that cannot be written to is complained about, and keeps nobody from anything.
//
// Thread: any.
#ifndef JOURNAL_H
#define JOURNAL_H

#include <memory>
#include <string>

#include "log/line_writer.h"
#include "standin/call_record.h"
#include "standin/log.h"

namespace journal {

class Journal {
public:
    // Opens the file, and goes on behind what is there; "-" is standard output. Throws
    // std::system_error.
    Journal(const std::string& file, standin::LogSink log);
    ~Journal();

    Journal(const Journal&) = delete;
    Journal& operator=(const Journal&) = delete;

    void add(const standin::CallRecord& call);

private:
    void tell(int error) const;

    const std::string name_;
    const standin::LogSink log_;
    int descriptor_ = -1;
    std::unique_ptr<log_text::LineWriter> writer_;
};

} // namespace journal

#endif
