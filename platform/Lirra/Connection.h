#pragma once

// Internal to the networking library: one TCP connection driven by an Asio io_context. Not
// installed; the public classes hold it behind pointers.

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <boost/asio.hpp>

namespace Lirra {
namespace detail {

// What the connections of one multi-connection object share: the lock and the condition that
// the receiving thread waits on.
struct Hub {
    std::mutex mutex;
    std::condition_variable ready;
};

// A peer speaks first: "KELO" and the protocol version, little-endian.
constexpr uint8_t kPreamble[8] = {'K', 'E', 'L', 'O', 1, 0, 0, 0};

class Connection : public std::enable_shared_from_this<Connection> {
public:
    using Handshaken = std::function<void(const std::shared_ptr<Connection>&)>;

    Connection(boost::asio::ip::tcp::socket socket, std::shared_ptr<Hub> hub, size_t sendLimit);

    // Sends the preamble and waits for the peer's; then calls handshaken (on the network
    // thread). A peer that does not answer in time, or not with a Kelo preamble, is dropped.
    void start(Handshaken handshaken);

    // Queues bytes for sending; the network thread writes whatever has gathered in one go.
    // False when the connection is lost, or becomes lost because the queue passed its bound.
    bool write(const uint8_t* bytes, size_t count);
    // Ends the connection from any thread.
    void close();
    // Nothing left to send (or nothing can be sent any more).
    bool drained();

    // Receiving side, under the hub's lock: moves the complete frames received so far to the
    // end of out. Returns the number of bytes moved.
    size_t takeFrames(std::vector<uint8_t>& out);
    bool hasFrames() const { return _complete > 0; }  // hub lock held
    bool lost() const { return _lost; }               // hub lock held
    const std::string& peer() const { return _peer; }
    Hub& hub() const { return *_hub; }

private:
    void readPreamble();
    void read();
    void received(size_t count);  // hub lock held
    void flush();
    void fail(const char* why);
    void shutdown();

    boost::asio::ip::tcp::socket _socket;
    boost::asio::steady_timer _handshakeTimer;
    std::shared_ptr<Hub> _hub;
    std::string _peer;
    Handshaken _handshaken;

    // Receiving, guarded by the hub's lock: [0, _complete) of _rx are whole frames.
    std::vector<uint8_t> _rx;
    size_t _complete = 0;
    bool _lost = false;
    bool _readPaused = false;
    std::vector<uint8_t> _readChunk;
    uint8_t _peerPreamble[8] = {};

    // Sending, guarded by _txMutex.
    std::mutex _txMutex;
    std::vector<uint8_t> _tx;
    std::vector<uint8_t> _inFlight;
    bool _writing = false;
    bool _closed = false;
    const size_t _sendLimit;
    std::chrono::steady_clock::time_point _lastWrite{};
    // The socket's descriptor, for sending straight from the caller's thread when nothing is
    // queued; only used under _txMutex while the connection is not closed.
    const int _fd;
};

// An io_context with its own thread, stopped and joined on destruction.
class NetworkThread {
public:
    NetworkThread();
    // Stops and joins the thread; the io_context lives on until destruction, so that the
    // objects using it can be destroyed first.
    ~NetworkThread();
    void stop();
    NetworkThread(const NetworkThread&) = delete;
    NetworkThread& operator=(const NetworkThread&) = delete;

    boost::asio::io_context& io() { return _io; }
    // Runs f on the network thread and waits for its result. Not from the network thread
    // itself, and only while the thread runs.
    template <typename F>
    auto call(F f) -> decltype(f()) {
        std::packaged_task<decltype(f())()> task(std::move(f));
        auto result = task.get_future();
        boost::asio::post(_io, [&task] { task(); });
        return result.get();
    }

private:
    boost::asio::io_context _io;
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> _work;
    std::thread _thread;
};

}  // namespace detail
}  // namespace Lirra
