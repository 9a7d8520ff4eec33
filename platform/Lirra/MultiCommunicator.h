#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "Lirra/Communicator.h"
#include "Lirra/Event.h"

struct pollfd;

namespace Lirra {

namespace detail {
struct Hub;
class ChunkWriter;
class SpinningMutex;
}  // namespace detail

// Why the connection layer refused a frame or dropped a connection, for monitoring.
enum class Refusal {
    TooLarge,          // a frame beyond the largest allowed
    Budget,            // a frame that would take the receive budget past its limit
    FrameTimeout,      // a frame not completed in time
    Idle,              // nothing received for the idle limit
    TooManyClients,    // one connection more than a server holds
    BadPreamble,       // a peer that is not a Kelo peer of this protocol version
    HandshakeTimeout,  // no preamble in time
    NoMemory,          // what a peer sent could not be taken in
};
constexpr size_t kRefusalKinds = 8;
// The reason as a label: "too_large", "budget", "frame_timeout", "idle", "too_many_clients",
// "bad_preamble", "handshake_timeout", "no_memory".
const char* refusalName(Refusal refusal);

// A set of connections. As a Sender it gives every frame to all of them (encoded once). One
// thread receives: it waits for a connection with input and reads an event from it; a
// connection that is lost is handed out too, so that reading from it fails and the receiver
// removes it.
class MultiCommunicator : public Sender {
public:
    MultiCommunicator();
    // Deletes the communicators still in the set.
    ~MultiCommunicator() override;
    MultiCommunicator(const MultiCommunicator&) = delete;
    MultiCommunicator& operator=(const MultiCommunicator&) = delete;

    // Closes and deletes every connection and releases waiting threads.
    virtual void close();
    // Every connection of the set gets the frame.
    bool write(const uint8_t* bytes, size_t count) override;

    // Takes a connection into the set (and ownership of it). False if it is there already.
    virtual bool addCommunicator(Communicator* communicator);
    // Takes a connection out of the set; the caller owns it again.
    virtual void removeCommunicator(Communicator* communicator);
    // Waits for the next connection with input (or lost); false once breakWait() or close()
    // was called.
    virtual bool receiveCommunicator(Communicator*& communicator);
    // Waits until the set holds a connection; false once breakWait() or close() was called.
    virtual bool waitForCommunicators();
    // Makes every present and future wait return false.
    virtual void breakWait();
    // How many connections have input waiting (or are lost).
    virtual bool communicatorsAvail(int& count);
    // Waits up to the given time for input; true when some is waiting.
    bool waitForInput(double seconds);

    // Without taking the lock: a sender may skip encoding for an empty set.
    size_t size() const { return _count.load(std::memory_order_relaxed); }
    bool empty() const { return size() == 0; }
    // Bytes a connection's send queue may hold before its peer is taken for lost; for
    // connections made from now on.
    size_t sendLimit() const { return _sendLimit; }
    void setSendLimit(size_t bytes) { _sendLimit = bytes; }

    // Received bytes not yet read, over all connections of the set: a frame whose announced
    // length would take them past this is refused and its connection dropped.
    size_t receiveBudget() const;
    void setReceiveBudget(size_t bytes);
    // What counts against the budget now: frames received and not yet read, and the announced
    // length of the frames under way.
    size_t receiveHeld() const;
    // A handshaken connection from which nothing arrives for this long is dropped; 0 for no
    // limit. Values outside 0 to a day are ignored with a log line, like those below.
    double idleLimit() const;
    void setIdleLimit(double seconds);
    // A frame must complete within graceSeconds plus its length at minBytesPerSecond from its
    // first byte, or its connection is dropped.
    void setFrameDeadline(double graceSeconds, double minBytesPerSecond);
    double frameGrace() const;
    double frameMinRate() const;
    // Every connection that has sent nothing for this long sends a keep-alive (0.01 s and
    // more).
    double keepAliveInterval() const;
    void setKeepAliveInterval(double seconds);
    // How long, in microseconds, a connection whose frames come faster than it writes them
    // waits for more when a write leaves only a few behind, so that a stream goes out in
    // large pieces; 0 writes them at once. Up to kMaxGatherMicros.
    unsigned gatherTime() const;
    void setGatherTime(unsigned microseconds);
    static constexpr unsigned kDefaultGatherMicros = 50, kMaxGatherMicros = 1000;
    // For how long, in microseconds after input was last taken over, the receiving thread
    // polls its sockets without sleeping, keeping a processor busy to take the next frame
    // the moment it arrives; 0 (the default) sleeps at once. Up to kMaxBusyPollMicros.
    unsigned busyPoll() const;
    void setBusyPoll(unsigned microseconds);
    static constexpr unsigned kMaxBusyPollMicros = 1000000;
    // The scheduler slice, in microseconds, that a thread asks for when it waits here (see
    // Tovan::Thread::requestSlice): with a short one, a thread woken by input is not kept
    // waiting behind a busy thread of the same processor, such as a client's on the same
    // machine. 0 (the default): the kernel's own. A thread keeps the slice it was given.
    unsigned schedulerSlice() const;
    void setSchedulerSlice(unsigned microseconds);

    // Counts since construction, readable from any thread. Frames and bytes that write() gave
    // to the connections of the set, once for each connection that took them.
    uint64_t sentFrames() const;
    uint64_t sentBytes() const;
    // Bytes waiting in the send queues of the connections of the set now.
    size_t queuedBytes() const;
    // Connections dropped because their send queue passed the send limit: peers that fell
    // behind.
    uint64_t sendLimitDrops() const;
    // Frames refused and connections dropped by the connection layer, by reason.
    uint64_t refusals(Refusal refusal) const;

    // The longest time any of the settings above takes.
    static constexpr double kMaxSeconds = 86400;

protected:
    std::shared_ptr<detail::Hub> hub() const { return _hub; }

private:
    bool hasInput(const Communicator* c) const;  // hub lock held
    bool anyInput() const;                       // hub lock held
    // Waits, with the lock released, for input, a change of the set, or the deadline (null:
    // none). After a quiet spell it polls the sockets and reads them itself, so that an
    // arrival wakes this thread directly, not through the network thread.
    void waitForSockets(std::unique_lock<detail::SpinningMutex>& lock,
                        const std::chrono::steady_clock::time_point* deadline);
    // The network thread watches the sockets lent for a poll again (hub lock held).
    void takeBack();
    // The calling thread asks for the scheduler slice set, if it has not yet.
    void askForSlice() const;

    std::shared_ptr<detail::Hub> _hub;
    // Where write() copies a frame once for every connection of the set (hub lock).
    std::unique_ptr<detail::ChunkWriter> _chunks;
    std::vector<Communicator*> _members;
    std::atomic<size_t> _count{0};  // _members.size()
    size_t _next = 0;               // round-robin position
    Communicator* _current = nullptr;
    bool _broken = false;
    size_t _sendLimit = 64u << 20;
    // When input was last taken over; until kStreamPause after it, waits are for the network
    // thread's reading.
    std::chrono::steady_clock::time_point _lastInput{};
    static constexpr std::chrono::microseconds kStreamPause{1000};
    std::atomic<unsigned> _busyPoll{0};
    std::atomic<unsigned> _slice{0};
    // waitForSockets()'s lists, kept to spare an allocation per wait.
    std::vector<pollfd> _pollFds;
    std::vector<std::shared_ptr<detail::Connection>> _polled;
    bool _lent = false;     // some sockets may be lent to this thread's poll()
    bool _arrived = false;  // a lent socket had input since the last takeBack()
};

}  // namespace Lirra
