// HTTP as a test speaks it: requests as they are written here, byte for byte, and answers taken
// apart. Independent of what the daemon serves HTTP with.
#ifndef STANDIN_TESTS_HTTP_CLIENT_H
#define STANDIN_TESTS_HTTP_CLIENT_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <string>

namespace standin_test {

struct HttpAnswer {
    int status = 0;                             // 0: the connection has ended without one
    std::map<std::string, std::string> headers; // names in small letters
    std::string body;
};

class HttpConnection {
public:
    explicit HttpConnection(std::uint16_t port)
    {
        socket_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (::connect(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) close();
    }

    ~HttpConnection() { close(); }

    HttpConnection(HttpConnection&& other) noexcept : socket_(other.socket_), text_(other.text_)
    {
        other.socket_ = -1;
    }
    HttpConnection(const HttpConnection&) = delete;
    HttpConnection& operator=(const HttpConnection&) = delete;

    void close()
    {
        if (socket_ != -1) ::close(socket_);
        socket_ = -1;
    }

    bool send(const std::string& text)
    {
        std::size_t done = 0;
        while (done < text.size()) {
            const ssize_t count = ::send(socket_, text.data() + done, text.size() - done,
                                         MSG_NOSIGNAL);
            if (count < 1) return false;
            done += static_cast<std::size_t>(count);
        }
        return true;
    }

    // Up to the mark, and the mark; or up to the end of the connection.
    std::string readUpTo(const std::string& mark)
    {
        while (text_.find(mark) == std::string::npos && more()) {}
        const std::size_t at = text_.find(mark);
        return take(at == std::string::npos ? text_.size() : at + mark.size());
    }

    // Until the connection ends.
    std::string readAll()
    {
        while (more()) {}
        return take(text_.size());
    }

    HttpAnswer readHead()
    {
        HttpAnswer answer;
        const std::string head = readUpTo("\r\n\r\n");
        if (head.compare(0, 9, "HTTP/1.1 ") != 0) return answer;
        answer.status = std::atoi(head.c_str() + 9);
        std::size_t at = head.find("\r\n") + 2;
        while (at + 2 < head.size()) {
            const std::size_t end = head.find("\r\n", at);
            const std::size_t colon = head.find(": ", at);
            std::string name = head.substr(at, colon - at);
            for (char& c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
            answer.headers[name] = head.substr(colon + 2, end - colon - 2);
            at = end + 2;
        }
        return answer;
    }

    HttpAnswer read()
    {
        HttpAnswer answer = readHead();
        const auto length = static_cast<std::size_t>(
            std::atol(answer.headers["content-length"].c_str()));
        while (text_.size() < length && more()) {}
        answer.body = take(std::min(length, text_.size()));
        return answer;
    }

private:
    bool more()
    {
        char buffer[16384];
        const ssize_t count = ::recv(socket_, buffer, sizeof buffer, 0);
        if (count < 1) return false;
        text_.append(buffer, static_cast<std::size_t>(count));
        return true;
    }

    std::string take(std::size_t count)
    {
        std::string taken = text_.substr(0, count);
        text_.erase(0, count);
        return taken;
    }

    int socket_ = -1;
    std::string text_;
};

// A request with the usual headers, and more of them, each with its end.
inline std::string httpRequest(const std::string& method, const std::string& target,
                               const std::string& body = "", const std::string& headers = "")
{
    std::string text = method + " " + target + " HTTP/1.1\r\n";
    if (headers.find("Host:") == std::string::npos) text += "Host: 127.0.0.1\r\n";
    text += "Connection: close\r\n" + headers;
    if (!body.empty()) {
        text += "Content-Length: " + std::to_string(body.size()) + "\r\n";
        if (headers.find("Content-Type:") == std::string::npos)
            text += "Content-Type: application/json\r\n";
    }
    return text + "\r\n" + body;
}

inline HttpAnswer ask(std::uint16_t port, const std::string& method, const std::string& target,
                      const std::string& body = "", const std::string& headers = "")
{
    HttpConnection connection(port);
    connection.send(httpRequest(method, target, body, headers));
    return connection.read();
}

} // namespace standin_test

#endif
