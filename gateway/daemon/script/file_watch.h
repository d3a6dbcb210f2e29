// Tells when a file has been written, or when another one has taken its place.
//
// Thread: any.
#ifndef SCRIPT_FILE_WATCH_H
#define SCRIPT_FILE_WATCH_H

#include <functional>
#include <string>
#include <thread>

namespace script {

class FileWatch {
public:
    // Calls `changed` on a thread of its own. Throws std::system_error when the system cannot tell.
    FileWatch(const std::string& file, std::function<void()> changed);

    // Waits until `changed` has returned.
    ~FileWatch();

    FileWatch(const FileWatch&) = delete;
    FileWatch& operator=(const FileWatch&) = delete;

private:
    void work();
    bool isOurs();

    const std::string name_; // in its folder
    const std::function<void()> changed_;
    int events_ = -1;
    int end_ = -1;
    std::thread thread_;
};

} // namespace script

#endif
