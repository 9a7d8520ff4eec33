#include "Lirra/Connection.h"

#include <algorithm>
#include <cstring>

#include <sys/socket.h>

#include "Lirra/Log.h"

#include "Lirra/Event.h"

namespace asio = boost::asio;

namespace Lirra {
namespace detail {

namespace {

constexpr auto kHandshakeTimeout = std::chrono::seconds(5);
constexpr size_t kReadChunk = 256 * 1024;
// Whole frames waiting for the reader beyond this stop the reading, so that a reader that
// falls behind pushes back on the peer instead of filling memory.
constexpr size_t kReceiveBacklog = 8u << 20;
// How long a connection must have had nothing queued for the next event to skip the queue.
constexpr auto kQuietSpell = std::chrono::microseconds(500);

uint32_t frameLength(const uint8_t* p) {
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

std::string describe(const asio::ip::tcp::socket& socket) {
    boost::system::error_code ec;
    const auto endpoint = socket.remote_endpoint(ec);
    return ec ? std::string("an unknown peer")
              : endpoint.address().to_string() + ":" + std::to_string(endpoint.port());
}

}  // namespace

Connection::Connection(asio::ip::tcp::socket socket, std::shared_ptr<Hub> hub, size_t sendLimit)
    : _socket(std::move(socket)),
      _handshakeTimer(_socket.get_executor()),
      _hub(std::move(hub)),
      _peer(describe(_socket)),
      _readChunk(kReadChunk),
      _sendLimit(sendLimit),
      _fd(_socket.native_handle()) {
    boost::system::error_code ignored;
    _socket.set_option(asio::ip::tcp::no_delay(true), ignored);
}

void Connection::start(Handshaken handshaken) {
    _handshaken = std::move(handshaken);
    write(kPreamble, sizeof kPreamble);
    _handshakeTimer.expires_after(kHandshakeTimeout);
    _handshakeTimer.async_wait([self = shared_from_this()](boost::system::error_code ec) {
        if (!ec)
            self->fail("no preamble in time");
    });
    readPreamble();
}

void Connection::readPreamble() {
    asio::async_read(_socket, asio::buffer(_peerPreamble),
                     [self = shared_from_this()](boost::system::error_code ec, size_t) {
                         self->_handshakeTimer.cancel();
                         if (ec)
                             return self->fail(nullptr);
                         if (std::memcmp(self->_peerPreamble, kPreamble, 4) != 0)
                             return self->fail("not a Kelo peer");
                         if (std::memcmp(self->_peerPreamble, kPreamble, 8) != 0)
                             return self->fail("another protocol version");
                         if (self->_handshaken)
                             self->_handshaken(self);
                         self->_handshaken = nullptr;
                         self->read();
                     });
}

void Connection::read() {
    _socket.async_read_some(asio::buffer(_readChunk), [self = shared_from_this()](
                                                          boost::system::error_code ec, size_t n) {
        if (ec)
            return self->fail(nullptr);
        bool pause = false;
        {
            std::lock_guard<std::mutex> lock(self->_hub->mutex);
            self->received(n);
            pause = self->_lost || (self->_complete > 0 && self->_rx.size() > kReceiveBacklog);
            self->_readPaused = pause && !self->_lost;
        }
        self->_hub->ready.notify_all();
        if (!pause)
            self->read();
    });
}

void Connection::received(size_t count) {
    _rx.insert(_rx.end(), _readChunk.begin(), _readChunk.begin() + static_cast<long>(count));
    // Advance over every frame that is now whole; refuse one that announces too much.
    size_t at = _complete;
    while (_rx.size() - at >= 4) {
        const uint32_t length = frameLength(&_rx[at]);
        if (length > Event::maxFrameSize()) {
            LIRRA_LOG(osg::LOG_WARNING,
                      "Dropped connection to %s: frame of %u bytes, more than the %zu allowed\n",
                      _peer.c_str(), length, Event::maxFrameSize());
            _lost = true;
            _rx.resize(at);  // the frames before it still count
            asio::post(_socket.get_executor(),
                       [self = shared_from_this()] { self->fail(nullptr); });
            break;
        }
        if (_rx.size() - at - 4 < length)
            break;
        at += 4 + length;
    }
    _complete = at;
}

size_t Connection::takeFrames(std::vector<uint8_t>& out) {
    const size_t count = _complete;
    if (count) {
        out.insert(out.end(), _rx.begin(), _rx.begin() + static_cast<long>(count));
        _rx.erase(_rx.begin(), _rx.begin() + static_cast<long>(count));
        _complete = 0;
    }
    if (_readPaused && !_lost) {
        _readPaused = false;
        asio::post(_socket.get_executor(), [self = shared_from_this()] { self->read(); });
    }
    return count;
}

bool Connection::write(const uint8_t* bytes, size_t count) {
    std::lock_guard<std::mutex> lock(_txMutex);
    if (_closed)
        return false;
    if (_tx.size() + count > _sendLimit) {
        _closed = true;
        LIRRA_LOG(osg::LOG_WARNING,
                  "Dropped connection to %s: more than %zu bytes waiting to be sent\n",
                  _peer.c_str(), _sendLimit);
        asio::post(_socket.get_executor(), [self = shared_from_this()] { self->fail(nullptr); });
        return false;
    }
    // A lone event after a quiet spell goes straight to the socket: that spares the network
    // thread a wake-up, most of a single event's latency. Within a burst, events queue up and
    // the network thread writes them together, one system call for many.
    if (!_writing && _tx.empty()) {
        const auto now = std::chrono::steady_clock::now();
        const bool quiet = now - _lastWrite > kQuietSpell;
        _lastWrite = now;
        if (quiet) {
            const ssize_t sent = ::send(_fd, bytes, count, MSG_DONTWAIT | MSG_NOSIGNAL);
            if (sent == static_cast<ssize_t>(count))
                return true;
            if (sent > 0) {
                bytes += sent;
                count -= static_cast<size_t>(sent);
            }
        }
    }
    _tx.insert(_tx.end(), bytes, bytes + count);
    if (!_writing) {
        _writing = true;
        asio::post(_socket.get_executor(), [self = shared_from_this()] { self->flush(); });
    }
    return true;
}

void Connection::flush() {
    {
        std::lock_guard<std::mutex> lock(_txMutex);
        if (_tx.empty() || _closed) {
            _writing = false;
            return;
        }
        _inFlight.swap(_tx);
        _tx.clear();
    }
    asio::async_write(_socket, asio::buffer(_inFlight),
                      [self = shared_from_this()](boost::system::error_code ec, size_t) {
                          self->_inFlight.clear();
                          if (ec)
                              return self->fail(nullptr);
                          self->flush();
                      });
}

bool Connection::drained() {
    std::lock_guard<std::mutex> lock(_txMutex);
    return _closed || (_tx.empty() && !_writing);
}

void Connection::close() {
    {
        std::lock_guard<std::mutex> lock(_txMutex);
        _closed = true;
    }
    asio::post(_socket.get_executor(), [self = shared_from_this()] { self->fail(nullptr); });
}

void Connection::fail(const char* why) {
    if (why)
        LIRRA_LOG(osg::LOG_WARNING, "Dropped connection to %s: %s\n", _peer.c_str(), why);
    {
        std::lock_guard<std::mutex> lock(_hub->mutex);
        _lost = true;
    }
    {
        std::lock_guard<std::mutex> lock(_txMutex);
        _closed = true;
    }
    _hub->ready.notify_all();
    shutdown();
}

void Connection::shutdown() {
    boost::system::error_code ignored;
    _handshakeTimer.cancel();
    _socket.shutdown(asio::ip::tcp::socket::shutdown_both, ignored);
    _socket.close(ignored);
}

NetworkThread::NetworkThread()
    : _work(asio::make_work_guard(_io)), _thread([this] { _io.run(); }) {}

NetworkThread::~NetworkThread() {
    stop();
}

void NetworkThread::stop() {
    _work.reset();
    _io.stop();
    if (_thread.joinable())
        _thread.join();
}

}  // namespace detail
}  // namespace Lirra
