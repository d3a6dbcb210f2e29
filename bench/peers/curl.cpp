// The peer libcurl with nginx: GET of a page of the size, over connections that are kept open. A
// handle and its connection serve one thread at a time; threads share them under a mutex.

#include "../common/measure.h"
#include "../common/sockets.h"

#include <curl/curl.h>

#include <deque>
#include <mutex>

namespace {

using bench::Figures;
using bench::Options;

constexpr const char* usage =
    "Measures libcurl against a web server, and prints the figures as a line of JSON. The server\n"
    "has pages named for their sizes, such as /100.\n"
    "\n"
    "Usage: qpxbench-curl --port N [options]\n"
    "\n"
    "Examples:\n"
    "  qpxbench-curl --port 8080 --size 32000\n"
    "  qpxbench-curl --port 8080 --threads 4 --connections 4\n"
    "\n"
    "Options:\n";

class Connection {
public:
    explicit Connection(const Options& options) : handle_(curl_easy_init()), size_(options.size)
    {
        const std::string url = "http://127.0.0.1:" + std::to_string(options.port) + "/" +
                                std::to_string(options.size);
        curl_easy_setopt(handle_, CURLOPT_URL, url.c_str());
        curl_easy_setopt(handle_, CURLOPT_FAILONERROR, 1L);
        curl_easy_setopt(handle_, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(handle_, CURLOPT_WRITEFUNCTION, &Connection::take);
        curl_easy_setopt(handle_, CURLOPT_WRITEDATA, &page_);
        page_.reserve(size_);
    }
    ~Connection() { curl_easy_cleanup(handle_); }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    void get()
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        page_.clear();
        if (curl_easy_perform(handle_) != CURLE_OK || page_.size() != size_)
            bench::fail("no page of " + std::to_string(size_) + " bytes");
    }

private:
    static std::size_t take(char* data, std::size_t size, std::size_t count, void* page)
    {
        static_cast<std::string*>(page)->append(data, size * count);
        return size * count;
    }

    CURL* handle_;
    std::size_t size_;
    std::string page_;
    std::mutex mutex_;
};

Figures measure(const Options& options)
{
    std::deque<Connection> connections;
    for (int number = 0; number < options.connections; ++number) connections.emplace_back(options);
    return bench::measureCalls(options, [&](int thread) {
        return [&connection = connections[static_cast<std::size_t>(thread) % connections.size()]] {
            connection.get();
        };
    });
}

} // namespace

int main(int argc, char** argv)
{
    const Options options = bench::readOptions(argc, argv,
                                               std::string(usage) + bench::usageOfOptions);
    curl_global_init(CURL_GLOBAL_DEFAULT);
    bench::print(options, measure(options));
    return 0;
}
