#pragma once

// Internal to the networking library: one connection, over TCP or a local stream socket,
// driven by an Asio io_context. Not installed; the public classes hold it behind pointers.

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <pthread.h>

#include <boost/asio.hpp>

#include "Lirra/Bytes.h"
#include "Lirra/MultiCommunicator.h"

namespace Lirra {
namespace detail {

// A mutex that spins a little before it sleeps: the send queue's and the hub's locks are held
// for short steps, by the sending thread, the network thread and the reader in turn, and a
// sleep and a wake-up each time they meet cost far more than the wait.
class SpinningMutex {
public:
    SpinningMutex();
    ~SpinningMutex();
    SpinningMutex(const SpinningMutex&) = delete;
    SpinningMutex& operator=(const SpinningMutex&) = delete;
    void lock();
    void unlock();
    bool try_lock();

private:
    pthread_mutex_t _mutex;
};

// Bytes written once and then only read: a frame for several connections is copied into one
// chunk, and each connection's send queue refers to it. Only the writer that filled a chunk
// appends to it, beyond what it has handed out.
struct Chunk {
    explicit Chunk(size_t capacity) : bytes(new uint8_t[capacity]), capacity(capacity) {}
    std::unique_ptr<uint8_t[]> bytes;
    const size_t capacity;
    size_t used = 0;
};

// Chunks of the usual size come back here when the last send queue lets go of them, so that
// a stream reuses the same few chunks (and pages) instead of fresh memory.
class ChunkPool : public std::enable_shared_from_this<ChunkPool> {
public:
    static constexpr size_t kChunk = 64 * 1024;
    static constexpr size_t kKept = 32;  // chunks kept for reuse, at most

    // A chunk with room for count bytes, empty.
    std::shared_ptr<Chunk> get(size_t count);

private:
    void put(Chunk* chunk);

    std::mutex _mutex;
    std::vector<std::unique_ptr<Chunk>> _free;
};

// Appends frames to chunks, taking a new one from the pool when the present one is full.
// Used under its owner's lock.
class ChunkWriter {
public:
    explicit ChunkWriter(std::shared_ptr<ChunkPool> pool) : _pool(std::move(pool)) {}
    // Copies the bytes into the chunk being filled and returns it; *at is where they start.
    const std::shared_ptr<Chunk>& append(const uint8_t* bytes, size_t count, size_t& at);

private:
    std::shared_ptr<ChunkPool> _pool;
    std::shared_ptr<Chunk> _current;
};

// What the connections of one multi-connection object share: the lock and the condition that
// the receiving thread waits on, the settings that bound what a peer may cost, and the count
// of received bytes not yet read.
struct Hub {
    Hub();
    ~Hub();
    Hub(const Hub&) = delete;
    Hub& operator=(const Hub&) = delete;

    // Taken for every frame written, and by the network thread and the reader: under a stream
    // they meet on it all the time.
    SpinningMutex mutex;
    std::condition_variable_any ready;
    // The reader waits in poll() on its connections' sockets and on this eventfd, so that a
    // frame's arrival wakes it directly rather than through the network thread. -1 when it
    // could not be made: the reader then waits on the condition variable.
    const int wakeFd;
    std::atomic<bool> polling{false};  // the reader is in poll()
    // While the reader polls, the network thread lets go of the sockets it polls (a server's
    // set): an arrival then wakes the reader alone, not the network thread's epoll_wait() too.
    std::atomic<bool> lendSockets{false};
    const std::shared_ptr<ChunkPool> chunks = std::make_shared<ChunkPool>();

    // Frames written to every connection of the set and not yet in their queues: while all of
    // them are busy writing, frames gather here, and go into every queue at once when one of
    // them finishes a write (or is idle): one lock per frame instead of one per connection.
    // Hub lock.
    std::shared_ptr<Chunk> pending;
    size_t pendingBegin = 0;
    size_t pendingEnd = 0;
    std::vector<Connection*> senders;  // the set's connections
    // Puts the pending frames into every connection's queue (hub lock held).
    void publish();
    // Whether a connection of the set has nothing to write: then frames go out at once.
    bool anyIdle() const;
    // Tells the reader that something it may wait for has changed; after the lock is released.
    void wake();
    // Empties the eventfd, once the reader is back from poll().
    void clearWake();

    // Added on the network thread as frames are announced, taken off by the reader as it
    // consumes them (or as a connection goes).
    std::atomic<size_t> held{0};
    std::atomic<size_t> budget{256u << 20};
    std::atomic<double> idleLimit{0};
    std::atomic<double> frameGrace{5};
    std::atomic<double> frameMinRate{1 << 20};
    std::atomic<double> keepAlive{5};
    // How long a connection with a backlog waits for more frames after a write, when less
    // than kGatherBelow is waiting: see Connection::flush().
    std::atomic<unsigned> gatherMicros{MultiCommunicator::kDefaultGatherMicros};

    // For monitoring. The sent counts are added to under the lock by MultiCommunicator::write.
    std::atomic<uint64_t> sentFrames{0};
    std::atomic<uint64_t> sentBytes{0};
    std::atomic<uint64_t> sendLimitDrops{0};
    std::array<std::atomic<uint64_t>, kRefusalKinds> refused{};
    void count(Refusal refusal) {
        refused[static_cast<size_t>(refusal)].fetch_add(1, std::memory_order_relaxed);
    }
};

// Room a buffer keeps once a large frame has gone through it.
constexpr size_t kKeptCapacity = 1u << 20;
// What one read of the socket takes at most.
constexpr size_t kReadChunk = 256 * 1024;
// Whole frames waiting for the reader beyond this stop the reading, so that a reader that
// falls behind pushes back on the peer instead of filling memory. With one more read they fit
// the room a receive buffer keeps: a stream of small frames goes through the same memory again
// and again, instead of growing buffers that touch fresh pages.
constexpr size_t kReceiveBacklog = kKeptCapacity - kReadChunk;
// Room that a backlog of small frames never needs: only a large frame leaves so much behind.
// The receive buffers keep up to this between batches.
constexpr size_t kLargeCapacity = 2 * kReceiveBacklog;
// Gives back a buffer's room beyond what it holds, when that room is more than above and
// mostly unused. After a large frame the freed memory goes back to the system at once.
void shrink(Bytes& buffer, size_t above = kKeptCapacity);

// A backlog this large goes out at once after a write; a smaller one waits a little for more.
constexpr size_t kGatherBelow = 16 * 1024;

// A peer speaks first: "KELO" and the protocol version, little-endian.
constexpr uint8_t kPreamble[8] = {'K', 'E', 'L', 'O', 1, 0, 0, 0};

// Connection-level frames: type ids below this never reach the event layer.
constexpr uint16_t kFirstEventType = 200;
constexpr uint16_t kKeepAliveType = 0;
constexpr uint16_t kGoodbyeType = 1;
constexpr size_t kMaxGoodbyeReason = 1024;

// The local stream socket of the server at 127.0.0.1 (v6: ::1) and this TCP port, as logs
// show it: "@kelo-PORT" ("@kelo6-PORT"). One name per address, as the two may be different
// servers on the same port.
std::string localSocketName(bool v6, unsigned short port);
// Where that name is bound: in the abstract namespace ("\0kelo-PORT"), which needs no file
// and is gone with the last socket bound to it.
boost::asio::local::stream_protocol::endpoint localSocketEndpoint(const std::string& name);
// Whether a client's server at this address may be reached through a local socket: only
// 127.0.0.1 and ::1, not the rest of 127.0.0.0/8, where other servers may hold the same port.
bool standsForLocalSocket(const boost::asio::ip::address& address);

// A goodbye frame: the reason as a string field, cut to kMaxGoodbyeReason bytes.
std::vector<uint8_t> goodbyeFrame(const std::string& reason);

class Connection : public std::enable_shared_from_this<Connection> {
public:
    using Handshaken = std::function<void(const std::shared_ptr<Connection>&)>;

    using Socket = boost::asio::generic::stream_protocol::socket;

    // peer names the other end in log lines; empty: its address, or for a local socket the
    // process it belongs to.
    Connection(Socket socket, std::shared_ptr<Hub> hub, size_t sendLimit,
               const std::string& peer = {});
    ~Connection();

    // Sends the preamble and waits for the peer's; then calls handshaken (on the network
    // thread). A peer that does not answer in time, or not with a Kelo preamble, is dropped.
    void start(Handshaken handshaken);
    // Called once on the network thread when the socket closes, whatever the cause.
    void onEnded(std::function<void()> ended) { _ended = std::move(ended); }

    // Queues bytes for sending; the network thread writes whatever has gathered in one go.
    // False when the connection is lost, or becomes lost because the queue passed its bound.
    bool write(const uint8_t* bytes, size_t count);
    // The same for bytes in a chunk that other connections send too: the queue refers to
    // them instead of copying them.
    bool write(const std::shared_ptr<Chunk>& chunk, size_t at, size_t count);
    // Ends the connection from any thread.
    void close();
    // Sends a goodbye with the reason after what is queued, then closes; from any thread.
    // Nothing received from now on reaches the reader.
    void refuse(const std::string& reason);
    // Nothing left to send (or nothing can be sent any more).
    bool drained();
    // Bytes waiting in the send queue, which the send limit bounds.
    size_t queued();
    // Nothing queued or being written (any thread).
    bool idle() const { return _idle.load(std::memory_order_acquire); }

    // Receiving side, under the hub's lock: moves the complete frames received so far to the
    // end of out. Returns the number of bytes moved. They stay counted in the hub's held
    // bytes until the reader releases them.
    size_t takeFrames(Bytes& out);
    bool hasFrames() const { return _complete > 0; }  // hub lock held
    bool lost() const { return _lost; }               // hub lock held
    // The reader may read the socket itself: the connection is open and not paused.
    bool pollable() const;  // hub lock held
    // The reader's read of the socket, once poll() has found it readable; what it finds
    // wrong goes to the network thread. Hub lock held.
    void pullForReader();
    // Lets the reader alone watch the socket: the network thread stops watching it, until
    // takeBack(). Both hub lock held; the work is done on the network thread.
    void lend();
    void takeBack();
    int fd() const { return _fd; }
    const std::string& peer() const { return _peer; }
    Hub& hub() const { return *_hub; }

private:
    void readPreamble();
    void preambleRead(const boost::system::error_code& ec);
    // Waits for bytes to read (network thread).
    void read();
    // Reads what the socket holds, then waits for more unless reading is paused or the
    // connection ended (network thread).
    void drain();
    // Acts on what reading found wrong (network thread); true when the connection ended.
    bool settle();
    // One non-blocking read and the walk of the frames it completes; the bytes read. Hub lock
    // held, from the network thread or the reader.
    size_t pull();
    void received();  // the bytes just read are in _rx; hub lock held
    // Drops the connection for a fault of the peer's, telling it why (network thread).
    void drop(const std::string& why, const std::string& reason);
    void goodbye(const std::string& reason);  // hub lock held
    void lose();                              // hub lock held
    void startWatch();
    void watch();
    // The idle limit, the frame deadline and the keep-alive; false once the connection is
    // dropped.
    bool check();
    // Writes what is queued. Right after a write (afterWrite), a backlog under kGatherBelow
    // first waits for more, up to the hub's gather time.
    void flush(bool afterWrite = false);
    // Hub::publish() for this connection's set, from the network thread.
    void publishShared();
    // write() of either kind: chunk null for bytes that are copied. _txMutex held.
    bool send(const uint8_t* bytes, size_t count, const std::shared_ptr<Chunk>* chunk, size_t at);
    void enqueue(const uint8_t* bytes, size_t count, const std::shared_ptr<Chunk>* chunk,
                 size_t at);
    void linger();
    void fail(const char* why);
    void shutdown();
    void release(size_t bytes);
    // The socket out of and back into the event loop, for lend() and takeBack() (network
    // thread). attach() is false, with the descriptor closed, when it cannot be taken back.
    void detach();
    bool attach();

    Socket _socket;
    boost::asio::steady_timer _deadline;  // the handshake, then the goodbye's linger
    boost::asio::steady_timer _watch;     // idle, frame deadline, keep-alive
    boost::asio::steady_timer _gather;    // a small backlog's wait for more
    std::shared_ptr<Hub> _hub;
    std::string _peer;
    Handshaken _handshaken;
    std::function<void()> _ended;
    bool _shut = false;

    // Receiving, guarded by the hub's lock: [0, _complete) of _rx are whole frames.
    Bytes _rx;
    size_t _complete = 0;
    bool _lost = false;
    bool _readPaused = false;
    bool _lent = false;  // lend() was asked and takeBack() not yet
    // Bytes counted in the hub for this connection and not yet handed to the reader are
    // the whole frames in _rx and the announced length of the one under way.
    size_t _pendingReserve = 0;
    // What received() found wrong, acted on once the lock is released.
    struct Fault {
        std::string why;     // for the log; empty when nothing is wrong
        std::string reason;  // for the peer's goodbye
        bool peerLeft = false;
    };
    Fault _fault;
    uint8_t _peerPreamble[8] = {};

    // The frame under way, for its deadline; guarded by the hub's lock.
    std::chrono::steady_clock::time_point _frameStarted{};
    bool _frameUnderWay = false;
    uint32_t _frameLength = 0;

    bool _peerClosed = false;  // the socket reported its end or an error; hub lock
    std::chrono::steady_clock::time_point _lastReceived{};  // hub lock

    // Network thread only.
    bool _handshakeDone = false;
    bool _lingering = false;
    bool _readOutstanding = false;
    bool _detached = false;  // the event loop does not hold the socket: see lend()
    uint64_t _readSeq = 0;   // the read started last; a read that detach() ended is older
    boost::asio::generic::stream_protocol _protocol;
    uint8_t _peeked = 0;
    uint64_t _writesSeen = 0;
    std::chrono::steady_clock::time_point _lastSent{};

    // Sending, guarded by _txMutex.
    SpinningMutex _txMutex;
    // Parts of chunks, in order; the writer's for bytes that are copied.
    struct Slice {
        std::shared_ptr<Chunk> chunk;
        size_t begin, end;
    };
    std::vector<Slice> _tx;
    size_t _txBytes = 0;
    ChunkWriter _own;
    // Network thread: what is being written, and its buffers for one gathering write.
    std::vector<Slice> _inFlight;
    std::vector<boost::asio::const_buffer> _buffers;
    bool _writing = false;
    std::atomic<bool> _idle{true};  // !_writing, for Hub::anyIdle()
    bool _closed = false;
    bool _closing = false;  // a goodbye is queued: nothing more goes out after it
    uint64_t _writes = 0;
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
    void run();

    boost::asio::io_context _io;
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> _work;
    std::thread _thread;
};

}  // namespace detail
}  // namespace Lirra
