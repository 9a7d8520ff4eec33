// The bare network floor on loopback TCP, the reference load_remote's figures are judged against:
//   - ping-pong: 16-byte messages echoed with TCP_NODELAY, one every 2 ms; half the round trip;
//   - one way: 12-byte messages, one every 2 ms, from send() to the receiver's recv() returning,
//     timed as load_remote times a play command (the sender asleep meanwhile);
//   - stream: 40-byte frames (a 4-byte length, then 36 bytes like a transform event) written in
//     batches for a fixed time, each carrying a sequence number the receiver checks;
//   - the ping-pong and the one-way message again over a local stream socket, the floor of a
//     server's local socket.
// Both ends run in this process on 127.0.0.1 (or a socket pair), bounded in count and time.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <CLI/CLI.hpp>

#include "CommandLine.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kFrameSize = 40;
constexpr uint32_t kFrameLength = kFrameSize - 4;
// Nothing here may take longer than this, whatever the peer does.
constexpr auto kGiveUp = std::chrono::seconds(30);

struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

[[noreturn]] void fail(const std::string& what) {
    throw Failure(what + ": " + std::strerror(errno));
}

class Socket {
public:
    explicit Socket(int fd = -1) : _fd(fd) {}
    Socket(Socket&& other) noexcept : _fd(other._fd) { other._fd = -1; }
    Socket& operator=(Socket&& other) noexcept {
        std::swap(_fd, other._fd);
        return *this;
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    ~Socket() {
        if (_fd >= 0)
            ::close(_fd);
    }
    int fd() const { return _fd; }

private:
    int _fd;
};

sockaddr_in loopback(uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

void noDelay(const Socket& s) {
    const int on = 1;
    if (::setsockopt(s.fd(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) != 0)
        fail("TCP_NODELAY");
}

// A connected pair over 127.0.0.1, first the client end, then the accepted one; or, local, a
// pair of connected local stream sockets.
std::pair<Socket, Socket> connectedPair(bool local = false) {
    if (local) {
        int ends[2];
        if (::socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0)
            fail("socketpair");
        return {Socket(ends[0]), Socket(ends[1])};
    }
    Socket listener(::socket(AF_INET, SOCK_STREAM, 0));
    if (listener.fd() < 0)
        fail("socket");
    sockaddr_in address = loopback(0);
    if (::bind(listener.fd(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(listener.fd(), 1) != 0)
        fail("listen on 127.0.0.1");
    socklen_t size = sizeof address;
    if (::getsockname(listener.fd(), reinterpret_cast<sockaddr*>(&address), &size) != 0)
        fail("getsockname");
    Socket client(::socket(AF_INET, SOCK_STREAM, 0));
    if (client.fd() < 0 ||
        ::connect(client.fd(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
        fail("connect to 127.0.0.1");
    pollfd ready{listener.fd(), POLLIN, 0};
    if (::poll(&ready, 1, 5000) != 1)
        throw Failure("the loopback connection was not accepted within 5 s");
    Socket server(::accept(listener.fd(), nullptr, nullptr));
    if (server.fd() < 0)
        fail("accept");
    return {std::move(client), std::move(server)};
}

// Waits until fd is readable (or writable) or the deadline passes.
bool await(int fd, short events, Clock::time_point deadline) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0)
        return false;
    pollfd p{fd, events, 0};
    const int n = ::poll(&p, 1, static_cast<int>(std::min<long long>(left.count(), 1000)));
    if (n < 0 && errno != EINTR)
        fail("poll");
    return true;
}

// Reads exactly size bytes, blocking; false on end of stream or past the deadline.
bool readAll(int fd, char* data, size_t size, Clock::time_point deadline) {
    while (size > 0) {
        const ssize_t n = ::recv(fd, data, size, 0);
        if (n > 0) {
            data += n;
            size -= static_cast<size_t>(n);
        } else if (n == 0) {
            return false;
        } else if (errno == EAGAIN || errno == EINTR) {
            if (!await(fd, POLLIN, deadline))
                return false;
        } else {
            fail("recv");
        }
    }
    return true;
}

bool writeAll(int fd, const char* data, size_t size, Clock::time_point deadline) {
    while (size > 0) {
        const ssize_t n = ::send(fd, data, size, MSG_NOSIGNAL);
        if (n > 0) {
            data += n;
            size -= static_cast<size_t>(n);
        } else if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
            if (!await(fd, POLLOUT, deadline))
                return false;
        } else {
            fail("send");
        }
    }
    return true;
}

void receiveTimeout(const Socket& s, int seconds) {
    timeval limit{seconds, 0};
    if (::setsockopt(s.fd(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) != 0 ||
        ::setsockopt(s.fd(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) != 0)
        fail("socket time-outs");
}

// Joins a helper thread on every way out, after shutting its socket so that it stops.
class Joined {
public:
    Joined(std::thread thread, int fd) : _thread(std::move(thread)), _fd(fd) {}
    Joined(const Joined&) = delete;
    Joined& operator=(const Joined&) = delete;
    ~Joined() { join(); }
    void join() {
        if (_thread.joinable()) {
            ::shutdown(_fd, SHUT_WR);
            _thread.join();
        }
    }

private:
    std::thread _thread;
    int _fd;
};

double percentile(const std::vector<double>& sorted, int p) {
    return sorted[sorted.size() * static_cast<size_t>(p) / 100];
}

// A second thread asleep in epoll_wait() on the echoing socket, as an event loop that also
// watches it would be: every ping then wakes two threads, not one.
class SecondWaiter {
public:
    explicit SecondWaiter(int fd) : _epoll(::epoll_create1(EPOLL_CLOEXEC)) {
        epoll_event event{};
        event.events = EPOLLIN | EPOLLET;
        event.data.fd = fd;
        if (_epoll < 0 || ::epoll_ctl(_epoll, EPOLL_CTL_ADD, fd, &event) != 0)
            fail("epoll for the second waiter");
        _thread = std::thread([this] {
            epoll_event events[4];
            while (!_stop.load())
                ::epoll_wait(_epoll, events, 4, 50);
        });
    }
    SecondWaiter(const SecondWaiter&) = delete;
    SecondWaiter& operator=(const SecondWaiter&) = delete;
    ~SecondWaiter() {
        _stop = true;
        _thread.join();
        ::close(_epoll);
    }

private:
    int _epoll;
    std::atomic<bool> _stop{false};
    std::thread _thread;
};

void pingPong(int rounds, double gapMs, bool secondWaiter, bool local = false) {
    auto [client, server] = connectedPair(local);
    std::optional<SecondWaiter> waiter;
    if (secondWaiter)
        waiter.emplace(server.fd());
    if (!local) {
        noDelay(client);
        noDelay(server);
    }
    // Blocking calls, as a plain program would make; the time-out only ends a stuck run.
    receiveTimeout(client, 5);
    receiveTimeout(server, 5);
    const auto deadline =
        Clock::now() + kGiveUp + std::chrono::milliseconds(static_cast<long>(rounds * gapMs));
    const auto echoing = [fd = server.fd(), deadline] {
        char message[16];
        try {
            while (readAll(fd, message, sizeof message, deadline) &&
                   writeAll(fd, message, sizeof message, deadline)) {
            }
        } catch (const Failure&) {
            // The pinging side sees the missing answer.
        }
    };
    Joined echo(std::thread(echoing), client.fd());
    std::vector<double> micros;
    micros.reserve(static_cast<size_t>(rounds));
    char message[16] = {};
    char answer[16];
    for (int i = 0; i < rounds && Clock::now() < deadline; ++i) {
        std::memcpy(message, &i, sizeof i);
        const auto start = Clock::now();
        if (!writeAll(client.fd(), message, sizeof message, deadline) ||
            !readAll(client.fd(), answer, sizeof answer, deadline))
            break;
        const auto end = Clock::now();
        if (std::memcmp(message, answer, sizeof message) != 0)
            throw Failure("the echo came back changed");
        micros.push_back(std::chrono::duration<double, std::micro>(end - start).count() / 2);
        std::this_thread::sleep_for(std::chrono::duration<double, std::milli>(gapMs));
    }
    echo.join();
    if (micros.size() != static_cast<size_t>(rounds))
        throw Failure("ping-pong: only " + std::to_string(micros.size()) + " of " +
                      std::to_string(rounds) + " rounds came back");
    std::sort(micros.begin(), micros.end());
    std::printf(
        "ping-pong, 16 bytes, %s, %d rounds %.1f ms apart%s: half the round trip "
        "p50 %.1f us, p99 %.1f us, max %.1f us\n",
        local ? "local socket" : "TCP_NODELAY", rounds, gapMs,
        secondWaiter ? ", a second thread in epoll_wait on the echoing socket" : "",
        percentile(micros, 50), percentile(micros, 99), micros.back());
}

// The ping-pong's answer finds its receiver still running and is never waited for, while a
// message sent one way always wakes a sleeping receiver: this is the bare cost of that.
void oneWay(int rounds, double gapMs, bool local = false) {
    auto [client, server] = connectedPair(local);
    if (!local)
        noDelay(client);
    receiveTimeout(client, 5);
    receiveTimeout(server, 5);
    const auto deadline =
        Clock::now() + kGiveUp + std::chrono::milliseconds(static_cast<long>(rounds * gapMs));
    std::atomic<Clock::time_point> arrived{};
    std::atomic<int> count{0};
    std::mutex mutex;
    std::condition_variable changed;
    const auto receiving = [&, fd = server.fd()] {
        char message[12];
        try {
            while (readAll(fd, message, sizeof message, deadline)) {
                arrived = Clock::now();
                ++count;
                std::lock_guard<std::mutex> lock(mutex);
                changed.notify_all();
            }
        } catch (const Failure&) {
            // The sending side sees the count fall short.
        }
    };
    Joined receiver(std::thread(receiving), client.fd());
    std::vector<double> micros;
    micros.reserve(static_cast<size_t>(rounds));
    const char message[12] = {};
    for (int i = 0; i < rounds && Clock::now() < deadline; ++i) {
        const auto start = Clock::now();
        if (!writeAll(client.fd(), message, sizeof message, deadline))
            break;
        std::unique_lock<std::mutex> lock(mutex);
        if (!changed.wait_for(lock, std::chrono::seconds(5), [&] { return count.load() > i; }))
            break;
        micros.push_back(std::chrono::duration<double, std::micro>(arrived.load() - start).count());
        lock.unlock();
        std::this_thread::sleep_for(std::chrono::duration<double, std::milli>(gapMs));
    }
    receiver.join();
    if (micros.size() != static_cast<size_t>(rounds))
        throw Failure("one way: only " + std::to_string(micros.size()) + " of " +
                      std::to_string(rounds) + " messages arrived");
    std::sort(micros.begin(), micros.end());
    std::printf(
        "one way, 12 bytes, %s, %d messages %.1f ms apart: send() to recv() "
        "p50 %.1f us, p99 %.1f us, max %.1f us\n",
        local ? "local socket" : "TCP_NODELAY", rounds, gapMs, percentile(micros, 50),
        percentile(micros, 99), micros.back());
}

void stream(double seconds, int batch) {
    auto [client, server] = connectedPair();
    noDelay(client);
    receiveTimeout(client, 5);
    receiveTimeout(server, 5);
    const auto deadline =
        Clock::now() + kGiveUp +
        std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    uint64_t received = 0;
    bool inOrder = true;
    Clock::time_point last;
    const auto reading = [fd = server.fd(), deadline, &received, &inOrder, &last] {
        std::vector<char> buffer(256 * 1024);
        size_t held = 0;
        for (;;) {
            const ssize_t n = ::recv(fd, buffer.data() + held, buffer.size() - held, 0);
            if (n == 0)
                break;
            if (n < 0) {
                try {
                    if ((errno == EAGAIN || errno == EINTR) && await(fd, POLLIN, deadline))
                        continue;
                } catch (const Failure&) {
                    // Counted short: the summary says what is missing.
                }
                break;
            }
            held += static_cast<size_t>(n);
            size_t at = 0;
            for (; held - at >= kFrameSize; at += kFrameSize) {
                uint32_t length;
                uint64_t sequence;
                std::memcpy(&length, buffer.data() + at, sizeof length);
                std::memcpy(&sequence, buffer.data() + at + 8, sizeof sequence);
                if (length != kFrameLength || sequence != received)
                    inOrder = false;
                ++received;
            }
            std::memmove(buffer.data(), buffer.data() + at, held - at);
            held -= at;
        }
        last = Clock::now();
    };
    Joined reader(std::thread(reading), client.fd());
    // One buffer of frames, the sequence numbers rewritten before each write.
    std::vector<char> frames(kFrameSize * static_cast<size_t>(batch), 0);
    for (size_t at = 0; at < frames.size(); at += kFrameSize)
        std::memcpy(frames.data() + at, &kFrameLength, sizeof kFrameLength);
    uint64_t sent = 0;
    const auto start = Clock::now();
    const auto stop =
        start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    while (Clock::now() < stop) {
        for (size_t at = 0; at < frames.size(); at += kFrameSize, ++sent)
            std::memcpy(frames.data() + at + 8, &sent, sizeof sent);
        if (!writeAll(client.fd(), frames.data(), frames.size(), deadline))
            break;
    }
    const auto written = Clock::now();
    reader.join();
    const double elapsed = std::chrono::duration<double>(last - start).count();
    std::printf(
        "stream, 40-byte frames, %d per write, %.1f s: %llu sent, %llu arrived in %.2f s = "
        "%.2f M frames/s (%.2f M/s written), %s, %s\n",
        batch, seconds, static_cast<unsigned long long>(sent),
        static_cast<unsigned long long>(received), elapsed, received / elapsed / 1e6,
        sent / std::chrono::duration<double>(written - start).count() / 1e6,
        inOrder ? "in order" : "OUT OF ORDER", received == sent ? "none lost" : "SOME LOST");
}

}  // namespace

int main(int argc, char** argv) {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    CLI::App app{
        "Bare loopback TCP, the floor for load_remote's figures: 16-byte ping-pong latency, "
        "12-byte one-way latency and the rate of 40-byte frames. Stays on 127.0.0.1 and stops "
        "by itself."};
    int rounds = 2000;
    double gap = 2;
    double seconds = 2;
    int batch = 1600;
    app.add_option("--rounds", rounds, "Ping-pong rounds timed, and one-way messages")
        ->check(CLI::Range(1, 100'000))
        ->capture_default_str();
    app.add_option("--gap", gap, "Milliseconds between two pings, or two messages")
        ->type_name("MS")
        ->check(CLI::Range(0.0, 100.0))
        ->capture_default_str();
    bool secondWaiter = false;
    app.add_flag("--second-waiter", secondWaiter,
                 "Time the ping-pong again with a second thread asleep in epoll_wait on the "
                 "echoing socket");
    bool noLocal = false;
    app.add_flag("--no-local", noLocal,
                 "Leave out the ping-pong and the one-way message over a local socket");
    app.add_option("--seconds", seconds, "How long the stream of frames lasts")
        ->check(CLI::Range(0.1, 60.0))
        ->capture_default_str();
    app.add_option("--batch", batch, "Frames per write in the stream (1 = a system call each)")
        ->check(CLI::Range(1, 100'000))
        ->capture_default_str();
    if (const auto exitCode = AppOptions::parseCommandLine(app, argc, argv, "tcp_floor", [] {}))
        return *exitCode;
    if (gap * rounds > 300'000) {
        std::fprintf(stderr, "tcp_floor: --rounds times --gap must stay within 300 s\n");
        return 2;
    }
    try {
        pingPong(rounds, gap, false);
        if (secondWaiter)
            pingPong(rounds, gap, true);
        oneWay(rounds, gap);
        stream(seconds, batch);
        if (!noLocal) {
            pingPong(rounds, gap, false, true);
            oneWay(rounds, gap, true);
        }
    } catch (const Failure& e) {
        std::fprintf(stderr, "tcp_floor: %s\n", e.what());
        return 1;
    }
    return 0;
}
