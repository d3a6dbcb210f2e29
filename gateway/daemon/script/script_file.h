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

    // Reads the file again. Empty, or what is wrong with it: the script before stays in force then.
    std::string reload();

    // Puts another file in force, which is read and watched from now on in the place of this one.
    // Throws conf::Wrong or conf::Unreadable, and nothing has changed.
    void load(const std::string& file);

    // The file in force, what is wrong with what stands there now, and the script's parts.
    struct State {
        std::string file;
        std::string problem; // empty: nothing
        std::vector<Answers::RuleState> rules;
    };
    State state();

    // Nothing that its programs still do is waited for any more.
    void abandon() { *abandoned_ = true; }

private:
    std::shared_ptr<const Script> read(const std::string& file) const;
    bool putInForce(std::shared_ptr<const Script> script);
    void watch(const std::string& file);
    void dispose(std::shared_ptr<const Script> script);

    const standin::LogSink log_;
    const std::shared_ptr<std::atomic<bool>> abandoned_;
    std::mutex loading_; // one other file at a time; taken before lock_, and never by the watch
    std::mutex lock_;    // of a reload, and of what follows
    std::string file_;
    std::string problem_;
    std::shared_ptr<Answers> answers_;
    standin::WayOntoThread way_;
    std::vector<std::future<void>> disposals_; // of scripts whose programs still answer calls
    std::unique_ptr<FileWatch> watch_;
};

} // namespace script

#endif
