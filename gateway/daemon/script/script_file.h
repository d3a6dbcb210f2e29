// The file that --script names: reads it, puts it in force, and does so again whenever it has
// changed. A file that is wrong changes nothing, and is complained about.
//
// Thread: any; reload() may be called from several.
#ifndef SCRIPT_FILE_H
#define SCRIPT_FILE_H

#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "script/answers.h"
#include "script/file_watch.h"
#include "standin/gateway.h"
#include "standin/log.h"

namespace script {

class ScriptFile {
public:
    // Reads the file. Throws conf::Wrong or conf::Unreadable.
    ScriptFile(std::string file, standin::LogSink log);

    // Ends what its programs are doing.
    ~ScriptFile();

    ScriptFile(const ScriptFile&) = delete;
    ScriptFile& operator=(const ScriptFile&) = delete;

    // Puts the script in front of the Gateway's programs, and watches the file from now on.
    void serve(standin::Gateway& gateway, Answers::Aside aside);

    // Reads the file again.
    void reload();

    // Nothing that its programs still do is waited for any more.
    void abandon() { *abandoned_ = true; }

private:
    std::shared_ptr<const Script> read() const;
    void dispose(std::shared_ptr<const Script> script);

    const std::string file_;
    const standin::LogSink log_;
    const std::shared_ptr<std::atomic<bool>> abandoned_;
    std::mutex lock_; // of a reload
    std::shared_ptr<Answers> answers_;
    standin::WayOntoThread way_;
    std::vector<std::future<void>> disposals_; // of scripts whose programs still answer calls
    std::unique_ptr<FileWatch> watch_;
};

} // namespace script

#endif
