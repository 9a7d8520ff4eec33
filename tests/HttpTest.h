// HTTP on loopback for the web tests: sockets bound to any 127.x address, and replies read back
// through Beast's strict parser, so a malformed reply fails the test that receives it.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <functional>
#include <future>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

#include <boost/asio/buffer.hpp>
#include <boost/beast/http.hpp>

namespace KeloTest {

using Reply = boost::beast::http::response<boost::beast::http::string_body>;

// The first whole reply in in, taken out of it; none while it is incomplete. Throws on a reply
// that breaks HTTP. head: a reply to HEAD, with no body whatever its Content-Length.
inline std::optional<Reply> takeReply(std::string& in, bool head = false) {
    namespace http = boost::beast::http;
    http::response_parser<http::string_body> parser;
    parser.eager(true);
    parser.skip(head);
    std::size_t used = 0;
    while (!parser.is_done()) {
        boost::beast::error_code error;
        used += parser.put(boost::asio::buffer(in.data() + used, in.size() - used), error);
        if (error == http::error::need_more)
            return std::nullopt;
        if (error)
            throw std::runtime_error("bad HTTP reply: " + error.message());
    }
    in.erase(0, used);
    return parser.release();
}

// A TCP socket bound to the loopback address from and, unless port is 0, connected to
// 127.0.0.1:port; it closes itself.
class Socket {
public:
    explicit Socket(uint16_t port = 0, const char* from = "127.0.0.1")
        : _fd(::socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in local{};
        local.sin_family = AF_INET;
        ::inet_pton(AF_INET, from, &local.sin_addr);
        if (_fd < 0 || ::bind(_fd, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0 ||
            (port && !connect(port))) {
            ::close(_fd);
            throw std::runtime_error("cannot connect to port " + std::to_string(port));
        }
    }
    Socket(Socket&& other) noexcept : _fd(std::exchange(other._fd, -1)) {}
    Socket& operator=(Socket&& other) noexcept {
        std::swap(_fd, other._fd);
        return *this;
    }
    ~Socket() {
        if (_fd >= 0)
            ::close(_fd);
    }

    bool connect(uint16_t port) const {
        sockaddr_in to{};
        to.sin_family = AF_INET;
        to.sin_port = htons(port);
        to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        return ::connect(_fd, reinterpret_cast<sockaddr*>(&to), sizeof to) == 0;
    }
    bool send(const std::string& text) const {
        return ::send(_fd, text.data(), text.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(text.size());
    }
    // Appends what has arrived, without waiting; false once the peer has closed or reset.
    bool drain(std::string& in) const {
        char chunk[4096];
        ssize_t n;
        while ((n = ::recv(_fd, chunk, sizeof chunk, MSG_DONTWAIT)) > 0)
            in.append(chunk, static_cast<std::size_t>(n));
        return n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
    }
    // Reads into in until done(in) (never, without one), the peer closes or limit passes,
    // calling step() (a frame of a server on this thread) between short waits. Whether it is
    // still open.
    bool read(std::string& in, const std::function<bool(const std::string&)>& done = {},
              const std::function<void()>& step = {},
              std::chrono::milliseconds limit = std::chrono::seconds(5)) const {
        const auto end = std::chrono::steady_clock::now() + limit;
        while (drain(in)) {
            if ((done && done(in)) || std::chrono::steady_clock::now() >= end)
                return true;
            if (step)
                step();
            pollfd p{_fd, POLLIN, 0};
            ::poll(&p, 1, step ? 1 : 20);
        }
        return false;
    }

private:
    int _fd;
};

// Sends request on s and reads, calling step() between waits, to the whole reply.
inline std::string ask(const Socket& s, const std::string& request,
                       const std::function<void()>& step = {}, bool head = false) {
    std::string in;
    if (s.send(request))
        s.read(
            in,
            [&](const std::string& in) {
                std::string copy = in;
                return takeReply(copy, head).has_value();
            },
            step);
    return in;
}

// Runs f on another thread while this one calls step(), as a frame loop would: the servers
// answer only from there.
template <typename F>
auto whileStepping(F f, const std::function<void()>& step) {
    auto result = std::async(std::launch::async, std::move(f));
    while (result.wait_for(std::chrono::milliseconds(1)) != std::future_status::ready)
        step();
    return result.get();
}

// An HTTP/1.1 client on 127.0.0.1 that keeps its connection, for a thread of its own while
// another updates the server; it gives up after 5 s rather than hang.
struct Client {
    explicit Client(uint16_t port) : socket(port) {}
    Reply get(const std::string& target) {
        std::string in = ask(socket, "GET " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
        if (auto reply = takeReply(in))
            return std::move(*reply);
        throw std::runtime_error("no whole reply to GET " + target);
    }
    // Sends bytes as they are; returns all the server sends until it closes.
    std::string raw(const std::string& bytes) {
        std::string in;
        if (socket.send(bytes))
            socket.read(in);
        return in;
    }

    Socket socket;
};

}  // namespace KeloTest
