#include "record/recording.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <system_error>
#include <utility>

#include "log/log_text.h"

namespace record {

using call_json::Json;
using standin::SplitFlow;

namespace {

std::string fileName(int number)
{
    char name[64];
    std::snprintf(name, sizeof name, "connection-%06d.jsonl", number);
    return name;
}

// 0 for a file that is no recording.
int numberOf(const std::string& name)
{
    int number = 0;
    if (std::sscanf(name.c_str(), "connection-%9d.jsonl", &number) != 1) return 0;
    return number > 0 && fileName(number) == name ? number : 0;
}

} // namespace

Folder::Folder(std::string name, standin::LogSink log)
    : name_(std::move(name)), log_(std::move(log))
{
    std::error_code error;
    std::filesystem::create_directories(name_, error);
    if (error) throw std::system_error(error);
    if (::access(name_.c_str(), W_OK | X_OK) != 0)
        throw std::system_error(errno, std::generic_category());
    std::filesystem::directory_iterator files(name_, error);
    for (; !error && files != std::filesystem::directory_iterator(); files.increment(error))
        last_ = std::max(last_, numberOf(files->path().filename().string()));
    if (error) throw std::system_error(error);
}

int Folder::openNext(int& number, std::string& name)
{
    int descriptor = -1;
    do {
        number = ++last_;
        name = (std::filesystem::path(name_) / fileName(number)).string();
        descriptor = ::open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_APPEND | O_CLOEXEC, 0600);
    } while (descriptor == -1 && errno == EEXIST); // another daemon's
    if (descriptor == -1) tell(name, errno);
    return descriptor;
}

void Folder::tell(const std::string& file, int error)
{
    if (failing_ == (error != 0)) return;
    failing_ = error != 0;
    if (!log_) return;
    if (error == 0) return log_(standin::LogLevel::Info, "the recording goes on with " + file);
    log_(standin::LogLevel::Error, "cannot write the recording " + file + ": " +
                                       std::generic_category().message(error) +
                                       "; traffic goes on, and is missing there until it can be "
                                       "written to");
}

Recording::Recording(Folder& folder) : folder_(folder), file_(folder.openNext(number_, name_)) {}

Json Recording::begin(Side from)
{
    const auto since = std::chrono::duration_cast<std::chrono::microseconds>(
        std::chrono::steady_clock::now() - start_);
    Json json;
    json["connection"] = number_;
    json["time"] = log_text::timeText(std::chrono::system_clock::now());
    json["microseconds"] = since.count();
    json["from"] = nameOf(from);
    return json;
}

void Recording::write(const Json& json)
{
    const int error = file_.write(call_json::lineOf(json) + "\n");
    if (error != EBADF) folder_.tell(name_, error);
}

void Recording::opened(const std::string& application, const std::string& gateway)
{
    Json json = begin(Side::Application);
    json["event"] = "opened";
    json["application"] = call_json::validText(application);
    json["to"] = call_json::validText(gateway);
    write(json);
}

void Recording::happened(Side from, const char* event)
{
    FlowStream& stream = streamOf(from);
    if (!stream.unread().empty()) {
        withhold(from, "cut short", stream.unread().size());
        stream.clear();
    }
    Json json = begin(from);
    json["event"] = event;
    write(json);
}

void Recording::withhold(Side from, const char* what, std::size_t count)
{
    Json json = begin(from);
    json["flow"] = what;
    json["withheld"] = count;
    write(json);
}

void Recording::passed(Side from, const std::uint8_t* bytes, std::size_t count)
{
    FlowStream& stream = streamOf(from);
    if (!stream.isReadable()) return withhold(from, "unreadable", count);
    stream.add(bytes, count);
    takeFlows(stream, from);
}

void Recording::takeFlows(FlowStream& stream, Side from)
{
    try {
        while (std::optional<SplitFlow> split = stream.next()) {
            Json json = begin(from);
            fields_.put(json, *split, from);
            wipe(split->flow.body);
            write(json);
        }
    } catch (const standin::MalformedFlow&) {
        withhold(from, "unreadable", stream.unread().size());
        stream.giveUp();
    }
}

} // namespace record
