// The recording of a connection: each flow as a line of JSON in a file of its own, and a folder of
// such files. docs/gateway.md describes the lines. No password is ever written.
//
// A file that cannot be written to is complained about, and keeps nobody from anything.
//
// Thread: one at a time.
#ifndef GATEWAY_RECORDING_H
#define GATEWAY_RECORDING_H

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

#include "record/flow_stream.h"
#include "record/line_file.h"
#include "record/written_flow.h"
#include "standin/log.h"
#include "standin/wire.h"
#include "json/call_json.h"

namespace record {

// Where the recordings are.
class Folder {
public:
    // Makes the folder when it is not there, and goes on behind the numbers of the recordings that
    // it has. Throws std::system_error when it cannot be used.
    Folder(std::string name, standin::LogSink log);

    // Makes the file of the next connection, which has this number. -1: there is none, which has
    // been told.
    int openNext(int& number, std::string& name);

    // What writing to a file has come to: an error is told, once until there is none.
    void tell(const std::string& file, int error);

private:
    const std::string name_;
    const standin::LogSink log_;
    int last_ = 0;
    bool failing_ = false;
};

class Recording {
public:
    // Begins the file of the next connection.
    explicit Recording(Folder& folder);

    Recording(const Recording&) = delete;
    Recording& operator=(const Recording&) = delete;

    int number() const { return number_; }
    const std::string& file() const { return name_; }

    void opened(const std::string& application, const std::string& gateway);

    // Bytes that one of the two has sent.
    void passed(Side from, const std::uint8_t* bytes, std::size_t count);

    // Something that is no flow: "closed" or "reset" by a side, for example.
    void happened(Side from, const char* event);

private:
    call_json::Json begin(Side from);
    void write(const call_json::Json& json);
    void takeFlows(FlowStream& stream, Side from);
    void withhold(Side from, const char* what, std::size_t count);
    FlowStream& streamOf(Side side) { return streams_[side == Side::Application ? 0 : 1]; }

    Folder& folder_;
    int number_ = 0;
    std::string name_;
    LineFile file_;
    const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
    Fields fields_;
    std::array<FlowStream, 2> streams_;
};

} // namespace record

#endif
