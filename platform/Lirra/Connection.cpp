#include "Lirra/Connection.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>

#include <netinet/in.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>
#ifdef __GLIBC__
#include <malloc.h>
#endif

#include "Lirra/Log.h"

#include "Lirra/Event.h"

namespace asio = boost::asio;

namespace Lirra {
namespace detail {

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kHandshakeTimeout = std::chrono::seconds(5);
// How long a goodbye may take to leave and the peer to close after it.
constexpr auto kLinger = std::chrono::seconds(1);
// How long a connection must have had nothing queued for the next event to skip the queue.
constexpr auto kQuietSpell = std::chrono::microseconds(500);
// The keep-alive frame: length 4, type 0, stamp 0.
constexpr uint8_t kKeepAliveFrame[8] = {4, 0, 0, 0, kKeepAliveType, 0, 0, 0};

uint32_t frameLength(const uint8_t* p) {
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

uint16_t frameType(const uint8_t* p) {
    return static_cast<uint16_t>(p[4] | p[5] << 8);
}

void putU32(std::vector<uint8_t>& out, uint32_t v) {
    for (int i = 0; i < 4; ++i)
        out.push_back(static_cast<uint8_t>(v >> (8 * i)));
}

Clock::duration toDuration(double seconds) {
    return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

double secondsSince(Clock::time_point then, Clock::time_point now) {
    return std::chrono::duration<double>(now - then).count();
}

// A peer's text as it may go into a log line: no control characters, no line breaks.
std::string printable(const uint8_t* bytes, size_t count) {
    std::string out;
    out.reserve(count);
    for (size_t i = 0; i < count; ++i)
        out.push_back(bytes[i] >= 0x20 && bytes[i] < 0x7f ? static_cast<char>(bytes[i]) : '?');
    return out;
}

std::string describe(Connection::Socket& socket) {
    boost::system::error_code ec;
    const auto endpoint = socket.remote_endpoint(ec);
    if (ec)
        return "an unknown peer";
    if (endpoint.protocol().family() == AF_UNIX) {
        ucred peer{};
        socklen_t size = sizeof peer;
        return getsockopt(socket.native_handle(), SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0
                   ? "local process " + std::to_string(peer.pid)
                   : std::string("a local process");
    }
    asio::ip::tcp::endpoint address;
    if (endpoint.size() > address.capacity())
        return "an unknown peer";
    std::memcpy(address.data(), endpoint.data(), endpoint.size());
    address.resize(endpoint.size());
    return address.address().to_string() + ":" + std::to_string(address.port());
}

}  // namespace

void shrink(Bytes& buffer, size_t above) {
    if (buffer.capacity() <= above || buffer.size() > buffer.capacity() / 4)
        return;
    const bool large = buffer.capacity() > kLargeCapacity;
    Bytes(buffer.begin(), buffer.end()).swap(buffer);
#ifdef __GLIBC__
    // The allocator keeps freed memory of the sizes it has seen lately for reuse; after a
    // frame of tens of MiB that is far more than a connection will need again soon.
    if (large)
        malloc_trim(0);
#else
    (void)large;
#endif
}

SpinningMutex::SpinningMutex() {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
#ifdef PTHREAD_ADAPTIVE_MUTEX_INITIALIZER_NP
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ADAPTIVE_NP);
#endif
    pthread_mutex_init(&_mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
}

SpinningMutex::~SpinningMutex() {
    pthread_mutex_destroy(&_mutex);
}

void SpinningMutex::lock() {
    pthread_mutex_lock(&_mutex);
}

void SpinningMutex::unlock() {
    pthread_mutex_unlock(&_mutex);
}

bool SpinningMutex::try_lock() {
    return pthread_mutex_trylock(&_mutex) == 0;
}

std::shared_ptr<Chunk> ChunkPool::get(size_t count) {
    std::unique_ptr<Chunk> chunk;
    if (count <= kChunk) {
        {
            std::lock_guard<std::mutex> lock(_mutex);
            if (!_free.empty()) {
                chunk = std::move(_free.back());
                _free.pop_back();
            }
        }
        if (!chunk)
            chunk = std::make_unique<Chunk>(kChunk);
    } else {
        chunk = std::make_unique<Chunk>(count);  // a large frame's own, freed after it
    }
    chunk->used = 0;
    return std::shared_ptr<Chunk>(chunk.release(),
                                  [pool = shared_from_this()](Chunk* c) { pool->put(c); });
}

void ChunkPool::put(Chunk* chunk) {
    std::unique_ptr<Chunk> owned(chunk);
    if (chunk->capacity != kChunk)
        return;
    std::lock_guard<std::mutex> lock(_mutex);
    if (_free.size() < kKept)
        _free.push_back(std::move(owned));
}

const std::shared_ptr<Chunk>& ChunkWriter::append(const uint8_t* bytes, size_t count, size_t& at) {
    if (!_current || _current->capacity - _current->used < count)
        _current = _pool->get(count);
    at = _current->used;
    if (count)
        std::memcpy(_current->bytes.get() + at, bytes, count);
    _current->used += count;
    return _current;
}

Hub::Hub() : wakeFd(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}

Hub::~Hub() {
    if (wakeFd >= 0)
        ::close(wakeFd);
}

void Hub::publish() {
    if (pendingEnd == pendingBegin)
        return;
    for (Connection* c : senders)
        c->write(pending, pendingBegin, pendingEnd - pendingBegin);
    pendingBegin = pendingEnd;
}

bool Hub::anyIdle() const {
    return std::any_of(senders.begin(), senders.end(),
                       [](const Connection* c) { return c->idle(); });
}

void Hub::wake() {
    ready.notify_all();
    if (polling.load(std::memory_order_relaxed)) {
        const uint64_t one = 1;
        [[maybe_unused]] const ssize_t n = ::write(wakeFd, &one, sizeof one);
    }
}

void Hub::clearWake() {
    uint64_t count = 0;
    [[maybe_unused]] const ssize_t n = ::read(wakeFd, &count, sizeof count);
}

std::string localSocketName(bool v6, unsigned short port) {
    return (v6 ? "@kelo6-" : "@kelo-") + std::to_string(port);
}

asio::local::stream_protocol::endpoint localSocketEndpoint(const std::string& name) {
    return asio::local::stream_protocol::endpoint(std::string(1, '\0') + name.substr(1));
}

bool standsForLocalSocket(const asio::ip::address& address) {
    return address == asio::ip::address_v4::loopback() ||
           address == asio::ip::address_v6::loopback();
}

std::vector<uint8_t> goodbyeFrame(const std::string& reason) {
    const size_t count = std::min(reason.size(), kMaxGoodbyeReason);
    std::vector<uint8_t> frame;
    frame.reserve(12 + count);
    putU32(frame, static_cast<uint32_t>(8 + count));
    frame.insert(frame.end(), {kGoodbyeType, 0, 0, 0});
    putU32(frame, static_cast<uint32_t>(count));
    frame.insert(frame.end(), reason.begin(), reason.begin() + static_cast<long>(count));
    return frame;
}

namespace {

asio::generic::stream_protocol protocolOf(const Connection::Socket& socket) {
    boost::system::error_code ec;
    const auto local = socket.local_endpoint(ec);
    const int family = ec ? AF_INET : local.protocol().family();
    return {family, family == AF_UNIX ? 0 : IPPROTO_TCP};
}

}  // namespace

Connection::Connection(Socket socket, std::shared_ptr<Hub> hub, size_t sendLimit,
                       const std::string& peer)
    : _socket(std::move(socket)),
      _deadline(_socket.get_executor()),
      _watch(_socket.get_executor()),
      _gather(_socket.get_executor()),
      _hub(std::move(hub)),
      _peer(peer.empty() ? describe(_socket) : peer),
      _protocol(protocolOf(_socket)),
      _own(_hub->chunks),
      _sendLimit(sendLimit),
      _fd(_socket.native_handle()) {
    boost::system::error_code ignored;
    if (_protocol.family() != AF_UNIX)
        _socket.set_option(asio::ip::tcp::no_delay(true), ignored);
}

Connection::~Connection() {
    release(_complete + _pendingReserve);
    if (_detached)
        ::close(_fd);
}

void Connection::release(size_t bytes) {
    if (bytes)
        _hub->held.fetch_sub(bytes, std::memory_order_relaxed);
}

void Connection::start(Handshaken handshaken) {
    _handshaken = std::move(handshaken);
    write(kPreamble, sizeof kPreamble);
    _deadline.expires_after(kHandshakeTimeout);
    _deadline.async_wait([self = shared_from_this()](boost::system::error_code ec) {
        if (!ec && !self->_handshakeDone && !self->_lingering) {
            self->_hub->count(Refusal::HandshakeTimeout);
            self->fail("no preamble in time");
        }
    });
    readPreamble();
}

void Connection::readPreamble() {
    _readOutstanding = true;
    asio::async_read(_socket, asio::buffer(_peerPreamble),
                     [self = shared_from_this()](boost::system::error_code ec, size_t) {
                         self->preambleRead(ec);
                     });
}

void Connection::preambleRead(const boost::system::error_code& ec) {
    _readOutstanding = false;
    if (ec)
        return fail(nullptr);
    if (_lingering)
        return drain();
    _deadline.cancel();
    if (std::memcmp(_peerPreamble, kPreamble, 8) != 0) {
        _hub->count(Refusal::BadPreamble);
        return fail(std::memcmp(_peerPreamble, kPreamble, 4) != 0 ? "not a Kelo peer"
                                                                  : "another protocol version");
    }
    _handshakeDone = true;
    {
        std::lock_guard<SpinningMutex> lock(_hub->mutex);
        _lastReceived = Clock::now();
    }
    try {
        if (_handshaken)
            _handshaken(shared_from_this());
    } catch (const std::exception& e) {
        LIRRA_LOG(osg::LOG_FATAL, "Cannot take on the connection to %s: %s\n", _peer.c_str(),
                  e.what());
        return fail(nullptr);
    }
    _handshaken = nullptr;
    startWatch();
    drain();  // what came with the preamble is in the socket already
}

void Connection::read() {
    if (_readOutstanding || _shut)
        return;
    if (!attach())
        return fail(nullptr);
    _readOutstanding = true;
    const uint64_t seq = ++_readSeq;
    // A peek tells that bytes are there without taking them: the reading itself is done by
    // pull(), under the hub's lock, by this thread or the reader. (Asio tries the peek at
    // once, and waits without re-arming the descriptor when there is nothing yet.)
    _socket.async_receive(asio::buffer(&_peeked, 1), asio::socket_base::message_peek,
                          [self = shared_from_this(), seq](boost::system::error_code ec, size_t) {
                              if (seq != self->_readSeq)
                                  return;  // ended by detach(); the reader watches the socket
                              self->_readOutstanding = false;
                              if (ec)
                                  return self->fail(nullptr);
                              self->drain();
                          });
}

void Connection::drain() {
    if (_shut)
        return;
    if (_lingering) {
        // What a refused peer still sends is dropped unread, until it closes.
        uint8_t scratch[4096];
        for (;;) {
            const ssize_t n = ::recv(_fd, scratch, sizeof scratch, MSG_DONTWAIT);
            if (n > 0)
                continue;
            if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR))
                return read();
            return fail(nullptr);
        }
    }
    // Reads until the socket is empty: the readiness it signals comes once per arrival.
    bool more = true;
    bool paused = false;
    while (more) {
        {
            std::lock_guard<SpinningMutex> lock(_hub->mutex);
            more = pollable() && pull() == kReadChunk;
            paused = _readPaused;
        }
        _hub->wake();
    }
    if (settle())
        return;
    if (!paused)
        read();
}

bool Connection::pollable() const {
    // After a fault nothing more is read: the network thread drops the connection.
    return !_lost && !_readPaused && !_peerClosed && _fault.why.empty() && !_fault.peerLeft;
}

size_t Connection::pull() {
    const size_t before = _rx.size();
    size_t count = 0;
    try {
        if (_rx.capacity() < kKeptCapacity)
            _rx.reserve(kKeptCapacity);
        // Straight into the buffer, behind what it holds: what arrives is not copied again.
        _rx.resize(before + kReadChunk);
        const ssize_t n = ::recv(_fd, _rx.data() + before, kReadChunk, MSG_DONTWAIT);
        const int error = errno;
        count = n > 0 ? static_cast<size_t>(n) : 0;
        _rx.resize(before + count);
        if (n <= 0) {
            if (n == 0 || (error != EAGAIN && error != EWOULDBLOCK && error != EINTR))
                _peerClosed = true;
            return 0;
        }
        _lastReceived = Clock::now();
        received();
    } catch (const std::exception& e) {
        // Out of memory, most likely: this connection goes, the others stay.
        _fault.why = std::string("cannot take in what it sent: ") + e.what();
        _fault.reason = "the receiver is short of memory";
        _hub->count(Refusal::NoMemory);
    }
    _readPaused = !_lost && _complete > 0 && _rx.size() > kReceiveBacklog;
    return count;
}

void Connection::pullForReader() {
    while (pollable() && pull() == kReadChunk) {
    }
    if (_peerClosed || _fault.peerLeft || !_fault.why.empty())
        asio::post(_socket.get_executor(), [self = shared_from_this()] { self->settle(); });
}

void Connection::lend() {
    if (_lent)
        return;
    _lent = true;
    asio::post(_socket.get_executor(), [self = shared_from_this()] { self->detach(); });
}

void Connection::takeBack() {
    if (!_lent)
        return;
    _lent = false;
    // Reads what came meanwhile, then watches the socket again.
    asio::post(_socket.get_executor(), [self = shared_from_this()] { self->drain(); });
}

void Connection::detach() {
    if (_shut || _lingering || !_handshakeDone || _detached)
        return;
    {
        std::lock_guard<SpinningMutex> lock(_hub->mutex);
        if (!_lent || !pollable())
            return;  // taken back meanwhile, or the reader no longer reads it
    }
    {
        // A write under way would be ended with the socket's release; the next flush()
        // attaches it again anyway.
        std::lock_guard<SpinningMutex> lock(_txMutex);
        if (_writing)
            return;
    }
    boost::system::error_code ec;
    _socket.release(ec);
    if (ec)
        return;
    _detached = true;
    ++_readSeq;  // the peek under way ends as aborted: not a failure
    _readOutstanding = false;
}

bool Connection::attach() {
    if (!_detached)
        return true;
    _detached = false;
    boost::system::error_code ec;
    _socket.assign(_protocol, _fd, ec);
    if (!ec)
        return true;
    LIRRA_LOG_LIMITED(osg::LOG_WARNING, "Cannot watch the connection to %s again: %s\n",
                      _peer.c_str(), ec.message().c_str());
    ::close(_fd);
    return false;
}

bool Connection::settle() {
    Fault fault;
    bool closed = false;
    {
        std::lock_guard<SpinningMutex> lock(_hub->mutex);
        fault = std::move(_fault);
        _fault = Fault();
        closed = _peerClosed;
    }
    if (!fault.why.empty()) {
        drop(fault.why, fault.reason);
        return true;
    }
    if (fault.peerLeft || closed) {
        fail(nullptr);
        return true;
    }
    return false;
}

void Connection::received() {
    // Walk the frames that are now whole. Connection-level frames are taken out (the event
    // frames behind them move up), and each frame's announced length is counted against the
    // budget as soon as it is known, before its bytes are held.
    size_t at = _complete;    // next frame to look at
    size_t kept = _complete;  // end of the event frames kept
    // Counted here and settled once at the end: only this thread adds to the held bytes, so
    // the count read now can only be too high, never too low.
    const size_t budget = _hub->budget.load(std::memory_order_relaxed);
    const size_t maxFrame = Event::maxFrameSize();
    const size_t held = _hub->held.load(std::memory_order_relaxed);
    size_t added = 0;
    size_t freed = 0;
    // Kept in locals until the end, so that a failure on the way leaves the counts as they were.
    size_t pending = _pendingReserve;
    bool stop = false;
    while (!stop && _rx.size() - at >= 4) {
        const uint32_t length = frameLength(&_rx[at]);
        if (!pending) {
            const size_t need = 4 + size_t(length);
            if (length > maxFrame) {
                _fault.why = "frame of " + std::to_string(length) + " bytes, more than the " +
                             std::to_string(maxFrame) + " allowed";
                _fault.reason = _fault.why;
                _hub->count(Refusal::TooLarge);
                break;
            }
            if (held + added + need > budget) {
                _fault.why = "frame of " + std::to_string(length) +
                             " bytes would pass the receive budget of " + std::to_string(budget) +
                             " bytes (" + std::to_string(held + added) + " held)";
                _fault.reason = "frame of " + std::to_string(length) +
                                " bytes refused: over the receive budget of " +
                                std::to_string(budget) + " bytes";
                _hub->count(Refusal::Budget);
                break;
            }
            // Room for a large frame in one go: growing step by step would copy it again
            // and again and leave the allocator holding every size on the way.
            if (need > kKeptCapacity)
                _rx.reserve(at + need);
            added += need;
            pending = need;
        }
        if (_rx.size() - at - 4 < length)
            break;
        const size_t size = 4 + size_t(length);
        pending = 0;
        _frameUnderWay = false;
        if (length >= 2 && frameType(&_rx[at]) < kFirstEventType) {
            if (frameType(&_rx[at]) == kGoodbyeType) {
                std::string reason = "no reason given";
                const size_t bodySize = length >= 4 ? length - 4 : 0;
                if (bodySize >= 4) {
                    const uint8_t* body = &_rx[at + 8];
                    const uint32_t n = frameLength(body);
                    if (n <= kMaxGoodbyeReason && n <= bodySize - 4)
                        reason = printable(body + 4, n);
                }
                LIRRA_LOG_LIMITED(osg::LOG_WARNING, "Connection to %s closed by the peer: %s\n",
                                  _peer.c_str(), reason.c_str());
                _fault.peerLeft = true;
                stop = true;
            }
            // A keep-alive has done its work by arriving; other ids are for later versions.
            freed += size;
            at += size;
            continue;
        }
        if (kept != at)
            std::memmove(&_rx[kept], &_rx[at], size);
        kept += size;
        at += size;
    }
    _pendingReserve = pending;
    if (added)
        _hub->held.fetch_add(added, std::memory_order_relaxed);
    release(freed);
    if (stop || !_fault.why.empty()) {
        // Nothing after the fault or the goodbye counts; the frames before it still do.
        _rx.resize(at);
        // A fault is made known to the reader by refuse(), once the goodbye is queued: a
        // reader that saw the loss first would close the connection before it went out.
        _lost = stop;
    }
    if (kept != at) {
        std::memmove(&_rx[kept], &_rx[at], _rx.size() - at);
        _rx.resize(kept + (_rx.size() - at));
    }
    _complete = kept;
    if (_lost) {
        release(_pendingReserve);
        _pendingReserve = 0;
        _rx.resize(_complete);
        shrink(_rx, kKeptCapacity);
    }
    if (_rx.size() > _complete && !_frameUnderWay) {
        _frameUnderWay = true;
        _frameStarted = _lastReceived;
    }
    _frameLength = _pendingReserve ? _pendingReserve - 4 : 0;
}

size_t Connection::takeFrames(Bytes& out) {
    const size_t count = _complete;
    if (count && out.empty()) {
        // The usual case: the buffers change places, and only a frame under way is copied.
        out.swap(_rx);
        _rx.assign(out.begin() + static_cast<long>(count), out.end());
        out.resize(count);
        _complete = 0;
        shrink(_rx, kLargeCapacity);
    } else if (count) {
        out.insert(out.end(), _rx.begin(), _rx.begin() + static_cast<long>(count));
        _rx.erase(_rx.begin(), _rx.begin() + static_cast<long>(count));
        _complete = 0;
        shrink(_rx, kLargeCapacity);
    }
    if (_readPaused && !_lost) {
        _readPaused = false;
        asio::post(_socket.get_executor(), [self = shared_from_this()] { self->drain(); });
    }
    return count;
}

void Connection::startWatch() {
    {
        std::lock_guard<SpinningMutex> lock(_txMutex);
        _writesSeen = _writes;
    }
    _lastSent = Clock::now();
    watch();
}

void Connection::watch() {
    // Often enough to keep each limit to within a quarter of itself, at most once a second.
    double period = 1.0;
    const double idle = _hub->idleLimit.load(std::memory_order_relaxed);
    if (idle > 0)
        period = std::min(period, idle / 4);
    period = std::min(period, _hub->frameGrace.load(std::memory_order_relaxed) / 4);
    const double keepAlive = _hub->keepAlive.load(std::memory_order_relaxed);
    if (keepAlive > 0)
        period = std::min(period, keepAlive / 4);
    _watch.expires_after(toDuration(std::max(period, 0.01)));
    _watch.async_wait([self = shared_from_this()](boost::system::error_code ec) {
        if (ec || self->_shut || self->_lingering)
            return;
        if (self->check())
            self->watch();
    });
}

bool Connection::check() {
    // A socket lent to a reader that no longer waits is watched here again, so that what
    // arrives is read and counted for the limits below.
    if (_detached && !_hub->polling.load(std::memory_order_relaxed)) {
        drain();
        if (_shut)
            return false;
    }
    const auto now = Clock::now();
    uint64_t writes = 0;
    {
        std::lock_guard<SpinningMutex> lock(_txMutex);
        writes = _writes;
    }
    if (writes != _writesSeen) {
        _writesSeen = writes;
        _lastSent = now;
    }
    const double keepAlive = _hub->keepAlive.load(std::memory_order_relaxed);
    if (keepAlive > 0 && secondsSince(_lastSent, now) >= keepAlive)
        write(kKeepAliveFrame, sizeof kKeepAliveFrame);

    bool underWay = false;
    Clock::time_point started;
    uint32_t length = 0;
    Clock::time_point lastReceived;
    {
        std::lock_guard<SpinningMutex> lock(_hub->mutex);
        shrink(_rx, kKeptCapacity);
        if (_readPaused) {
            // The reader is behind, not the peer: the clocks start again when reading resumes.
            _lastReceived = now;
            _frameStarted = now;
            return true;
        }
        underWay = _frameUnderWay;
        started = _frameStarted;
        length = _frameLength;
        lastReceived = _lastReceived;
    }
    const double idle = _hub->idleLimit.load(std::memory_order_relaxed);
    if (idle > 0 && secondsSince(lastReceived, now) > idle) {
        char text[96];
        std::snprintf(text, sizeof text, "nothing received for %g s", idle);
        _hub->count(Refusal::Idle);
        drop(text, text);
        return false;
    }
    if (underWay) {
        const double rate = _hub->frameMinRate.load(std::memory_order_relaxed);
        const double allowed =
            _hub->frameGrace.load(std::memory_order_relaxed) + (rate > 0 ? length / rate : 0);
        if (secondsSince(started, now) > allowed) {
            char text[128];
            std::snprintf(text, sizeof text, "frame of %u bytes not completed within %.1f s",
                          length, allowed);
            _hub->count(Refusal::FrameTimeout);
            drop(text, text);
            return false;
        }
    }
    return true;
}

bool Connection::write(const uint8_t* bytes, size_t count) {
    std::lock_guard<SpinningMutex> lock(_txMutex);
    return send(bytes, count, nullptr, 0);
}

bool Connection::write(const std::shared_ptr<Chunk>& chunk, size_t at, size_t count) {
    std::lock_guard<SpinningMutex> lock(_txMutex);
    return send(chunk->bytes.get() + at, count, &chunk, at);
}

bool Connection::send(const uint8_t* bytes, size_t count, const std::shared_ptr<Chunk>* chunk,
                      size_t at) {
    if (_closed || _closing)
        return false;
    if (_txBytes + count > _sendLimit) {
        _closed = true;
        _hub->sendLimitDrops.fetch_add(1, std::memory_order_relaxed);
        LIRRA_LOG_LIMITED(osg::LOG_WARNING,
                          "Dropped connection to %s: more than %zu bytes waiting to be sent\n",
                          _peer.c_str(), _sendLimit);
        asio::post(_socket.get_executor(), [self = shared_from_this()] { self->fail(nullptr); });
        return false;
    }
    ++_writes;
    // A lone event after a quiet spell goes straight to the socket: that spares the network
    // thread a wake-up, most of a single event's latency. Within a burst, events queue up and
    // the network thread writes them together, one system call for many.
    if (!_writing && _tx.empty()) {
        const auto now = Clock::now();
        const bool quiet = now - _lastWrite > kQuietSpell;
        _lastWrite = now;
        if (quiet) {
            const ssize_t sent = ::send(_fd, bytes, count, MSG_DONTWAIT | MSG_NOSIGNAL);
            if (sent == static_cast<ssize_t>(count))
                return true;
            if (sent > 0) {
                bytes += sent;
                at += static_cast<size_t>(sent);
                count -= static_cast<size_t>(sent);
            }
        }
    }
    enqueue(bytes, count, chunk, at);
    return true;
}

void Connection::enqueue(const uint8_t* bytes, size_t count, const std::shared_ptr<Chunk>* chunk,
                         size_t at) {
    const std::shared_ptr<Chunk>& in = chunk ? *chunk : _own.append(bytes, count, at);
    // The frames of a stream lie one after the other in a chunk: one slice covers them all.
    if (!_tx.empty() && _tx.back().chunk == in && _tx.back().end == at)
        _tx.back().end += count;
    else
        _tx.push_back({in, at, at + count});
    _txBytes += count;
    if (!_writing) {
        _writing = true;
        _idle.store(false, std::memory_order_release);
        asio::post(_socket.get_executor(), [self = shared_from_this()] { self->flush(); });
    }
}

void Connection::publishShared() {
    std::lock_guard<SpinningMutex> lock(_hub->mutex);
    _hub->publish();
}

void Connection::flush(bool afterWrite) {
    if (_detached) {
        drain();  // back in the event loop, reading again
        if (_shut)
            return;
    }
    // What the set's writer gathered while every connection was busy goes into the queues.
    publishShared();
    bool finished = false;
    {
        std::lock_guard<SpinningMutex> lock(_txMutex);
        if (_closed) {
            _writing = false;
            _idle.store(true, std::memory_order_release);
            return;
        }
        if (_tx.empty()) {
            _writing = false;
            _idle.store(true, std::memory_order_release);
            finished = _closing;
        } else {
            // Frames keep coming while a write is under way, but only a few have: waiting a
            // little sends them in one larger piece. Over loopback each piece costs both ends
            // a system call and the receiver a wake-up, so a stream sent in many small pieces
            // costs about twice the processor time of one sent in large ones.
            const unsigned micros = afterWrite && !_closing && _txBytes < kGatherBelow
                                        ? _hub->gatherMicros.load(std::memory_order_relaxed)
                                        : 0;
            if (micros > 0) {
                _gather.expires_after(std::chrono::microseconds(micros));
                _gather.async_wait([self = shared_from_this()](boost::system::error_code ec) {
                    if (!ec)
                        self->flush();
                });
                return;
            }
            _inFlight.swap(_tx);
            _txBytes = 0;
        }
    }
    if (_inFlight.empty()) {
        // A frame written while this queue still looked busy waits in the set's pending
        // frames: now that it is idle, they go out.
        if (!finished)
            publishShared();
        if (finished) {
            // The goodbye is out: the peer sees the end of the stream after it.
            boost::system::error_code ignored;
            _socket.shutdown(Socket::shutdown_send, ignored);
        }
        return;
    }
    // One gathering write for every slice: the chunks are sent from where they are.
    _buffers.clear();
    for (const Slice& slice : _inFlight)
        _buffers.emplace_back(slice.chunk->bytes.get() + slice.begin, slice.end - slice.begin);
    asio::async_write(_socket, _buffers,
                      [self = shared_from_this()](boost::system::error_code ec, size_t) {
                          // The chunks go back to the pool once no queue refers to them.
                          self->_inFlight.clear();
                          if (ec)
                              return self->fail(nullptr);
                          self->flush(true);
                      });
}

bool Connection::drained() {
    std::lock_guard<SpinningMutex> lock(_txMutex);
    return _closed || (_tx.empty() && !_writing);
}

size_t Connection::queued() {
    std::lock_guard<SpinningMutex> lock(_txMutex);
    return _txBytes;
}

void Connection::close() {
    {
        std::lock_guard<SpinningMutex> lock(_txMutex);
        if (_closing)
            return;  // the goodbye under way closes it
        _closed = true;
    }
    asio::post(_socket.get_executor(), [self = shared_from_this()] { self->fail(nullptr); });
}

void Connection::refuse(const std::string& reason) {
    const std::vector<uint8_t> frame = goodbyeFrame(reason);
    {
        std::lock_guard<SpinningMutex> lock(_txMutex);
        if (_closed || _closing)
            return;
        _closing = true;
        // Past the send limit if need be: it is small, and the last thing sent.
        enqueue(frame.data(), frame.size(), nullptr, 0);
    }
    {
        std::lock_guard<SpinningMutex> lock(_hub->mutex);
        lose();
    }
    _hub->wake();
    asio::post(_socket.get_executor(), [self = shared_from_this()] { self->linger(); });
}

void Connection::drop(const std::string& why, const std::string& reason) {
    LIRRA_LOG_LIMITED(osg::LOG_WARNING, "Dropped connection to %s: %s\n", _peer.c_str(),
                      why.c_str());
    refuse(reason);
}

void Connection::linger() {
    if (_shut || _lingering)
        return;
    _lingering = true;
    _watch.cancel();
    _deadline.expires_after(kLinger);
    _deadline.async_wait([self = shared_from_this()](boost::system::error_code ec) {
        if (!ec)
            self->fail(nullptr);
    });
    // Reads on until the peer closes, so that closing does not reset the connection before
    // the peer has read the goodbye.
    drain();
}

void Connection::lose() {
    _lost = true;
    // The frame under way will never be whole: its bytes and its share of the budget go.
    release(_pendingReserve);
    _pendingReserve = 0;
    _frameUnderWay = false;
    _rx.resize(_complete);
    shrink(_rx, kKeptCapacity);
}

void Connection::fail(const char* why) {
    if (why)
        LIRRA_LOG_LIMITED(osg::LOG_WARNING, "Dropped connection to %s: %s\n", _peer.c_str(), why);
    {
        std::lock_guard<SpinningMutex> lock(_hub->mutex);
        lose();
    }
    {
        std::lock_guard<SpinningMutex> lock(_txMutex);
        _closed = true;
    }
    _hub->wake();
    shutdown();
}

void Connection::shutdown() {
    if (_shut)
        return;
    _shut = true;
    boost::system::error_code ignored;
    _deadline.cancel();
    _watch.cancel();
    _gather.cancel();
    attach();  // closed below with the socket (or already, when it cannot be)
    _socket.shutdown(Socket::shutdown_both, ignored);
    _socket.close(ignored);
    if (_ended) {
        auto ended = std::move(_ended);
        _ended = nullptr;
        ended();
    }
}

NetworkThread::NetworkThread() : _work(asio::make_work_guard(_io)), _thread([this] { run(); }) {}

NetworkThread::~NetworkThread() {
    stop();
}

void NetworkThread::run() {
    // A handler that throws must not take the process down with it: the error is logged and
    // the other connections go on.
    for (;;) {
        try {
            _io.run();
            return;
        } catch (const std::exception& e) {
            LIRRA_LOG(osg::LOG_FATAL, "Network thread: unexpected error: %s\n", e.what());
        } catch (...) {
            LIRRA_LOG(osg::LOG_FATAL, "Network thread: unexpected error\n");
        }
    }
}

void NetworkThread::stop() {
    _work.reset();
    _io.stop();
    if (_thread.joinable())
        _thread.join();
}

}  // namespace detail
}  // namespace Lirra
