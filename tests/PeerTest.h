#pragma once

// Raw peers, bare servers and frame readers for the tests that talk over 127.0.0.1.
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <netinet/in.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include <Kelo/ClientBackend.h>
#include <Kelo/World.h>
#include <Lirra/Communicator.h>
#include <Lirra/Event.h>
#include <Lirra/MultiServer.h>

#if defined(__has_feature)
#define KELO_TEST_HAS_FEATURE(x) __has_feature(x)
#else
#define KELO_TEST_HAS_FEATURE(x) 0
#endif

namespace KeloTest {

// AddressSanitizer pads blocks and holds freed ones back; ThreadSanitizer's shadow memory grows
// with every byte touched: resident sizes mean less, or nothing, under them.
#if defined(__SANITIZE_ADDRESS__) || KELO_TEST_HAS_FEATURE(address_sanitizer)
constexpr bool kAsan = true;
#else
constexpr bool kAsan = false;
#endif
#if defined(__SANITIZE_THREAD__) || KELO_TEST_HAS_FEATURE(thread_sanitizer)
constexpr bool kTsan = true;
#else
constexpr bool kTsan = false;
#endif

const std::string kPreamble("KELO\1\0\0\0", 8);
const std::string kKeepAlive("\4\0\0\0\0\0\0\0", 8);

// An event's frame, its length field included.
inline std::string frameOf(Lirra::Event& event) {
    std::vector<uint8_t> out;
    event.encode(out);
    return {out.begin(), out.end()};
}

// The little-endian number of size bytes at at.
inline uint32_t le(const std::string& s, size_t at, size_t size = 4) {
    uint32_t v = 0;
    for (size_t i = size; i-- > 0;)
        v = v << 8 | static_cast<uint8_t>(s[at + i]);
    return v;
}

// The whole frames of a stream after its preamble, as type and fields.
inline std::vector<std::pair<uint16_t, std::string>> framesOf(const std::string& in) {
    std::vector<std::pair<uint16_t, std::string>> out;
    for (size_t at = 8; in.size() >= at + 8;) {
        const uint32_t length = le(in, at);
        if (length < 4 || in.size() - at - 4 < length)
            break;
        out.emplace_back(static_cast<uint16_t>(le(in, at + 4, 2)), in.substr(at + 8, length - 4));
        at += 4 + length;
    }
    return out;
}

// A peer written by hand: plain blocking sends, reads with a time limit. It sends first (the
// preamble, say) as soon as it is connected.
class RawPeer {
public:
    explicit RawPeer(unsigned short port, const std::string& first = "")
        : _fd(::socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in at{};
        at.sin_family = AF_INET;
        at.sin_port = htons(port);
        at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (_fd < 0 || ::connect(_fd, reinterpret_cast<sockaddr*>(&at), sizeof at) != 0 ||
            !send(first))
            throw std::runtime_error("cannot connect to the server");
    }
    ~RawPeer() { close(); }
    void close() {
        if (_fd >= 0)
            ::close(_fd);
        _fd = -1;
    }

    bool send(const std::string& bytes) {
        for (size_t at = 0; at < bytes.size();) {
            const ssize_t n = ::send(_fd, bytes.data() + at, bytes.size() - at, MSG_NOSIGNAL);
            if (n <= 0)
                return false;
            at += static_cast<size_t>(n);
        }
        return true;
    }

    // Reads what arrives within the time or until the end of the stream.
    void readFor(std::chrono::milliseconds limit) {
        char chunk[4096];
        for (const auto end = std::chrono::steady_clock::now() + limit;
             !_ended && std::chrono::steady_clock::now() < end;) {
            pollfd p{_fd, POLLIN, 0};
            if (::poll(&p, 1, 1) <= 0)
                continue;
            const ssize_t n = ::recv(_fd, chunk, sizeof chunk, 0);
            if (n <= 0)
                _ended = true;
            else
                _in.append(chunk, static_cast<size_t>(n));
        }
    }
    // Whether the server closed the connection (within the time).
    bool endsWithin(std::chrono::milliseconds limit) {
        readFor(limit);
        return _ended;
    }
    // The reason of the goodbye received after the preamble, or "(none)".
    std::string goodbye() const {
        if (_in.compare(0, 8, kPreamble) != 0)
            return "(no preamble)";
        for (const auto& [type, fields] : framesOf(_in))
            if (type == 1 && fields.size() >= 4 && le(fields, 0) <= fields.size() - 4)
                return fields.substr(4, le(fields, 0));
        return "(none)";
    }
    const std::string& received() const { return _in; }

private:
    int _fd;
    std::string _in;
    bool _ended = false;
};

// A Lirra server on 127.0.0.1 that leaves what arrives for the test to read.
struct BareServer : Lirra::MultiServer {
    BareServer() {
        setMulticastEnabled(false);
        EXPECT_TRUE(open("127.0.0.1", 0, false));
    }
    // No client is handed over while the object is half destroyed.
    ~BareServer() override { close(); }
    std::string named() const { return "servers=127.0.0.1:" + std::to_string(listeningPort()); }
};

// Reads whatever has arrived as a server's receiver does, handing each event to each and
// dropping lost connections (counted in lost); the number of events read.
inline int pump(Lirra::MultiCommunicator& m,
                const std::function<void(Lirra::Event&)>& each = nullptr, int* lost = nullptr) {
    int read = 0;
    int waiting = 0;
    for (m.communicatorsAvail(waiting); waiting > 0; m.communicatorsAvail(waiting)) {
        Lirra::Communicator* c = nullptr;
        if (!m.receiveCommunicator(c))
            break;
        Lirra::Event* event = nullptr;
        if (Lirra::Event::receive(c, event)) {
            if (each)
                each(*event);
            delete event;
            ++read;
        } else {
            m.removeCommunicator(c);
            delete c;
            if (lost)
                ++*lost;
        }
    }
    return read;
}

inline Kelo::ClientBackend* addClient(Kelo::World& world, const std::string& params) {
    return static_cast<Kelo::ClientBackend*>(world.addBackend("client", params.c_str()));
}

}  // namespace KeloTest
