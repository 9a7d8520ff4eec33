#include "Lirra/MultiCommunicator.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <mutex>
#include <thread>

#include <poll.h>

#include "Lirra/Connection.h"
#include "Lirra/Log.h"
#include "Tovan/Thread.h"

namespace Lirra {

MultiCommunicator::MultiCommunicator()
    : _hub(std::make_shared<detail::Hub>()),
      _chunks(std::make_unique<detail::ChunkWriter>(_hub->chunks)) {}

MultiCommunicator::~MultiCommunicator() {
    MultiCommunicator::close();
}

void MultiCommunicator::close() {
    std::vector<Communicator*> members;
    {
        std::lock_guard<detail::SpinningMutex> lock(_hub->mutex);
        _hub->publish();
        members.swap(_members);
        _hub->senders.clear();
        _count.store(0, std::memory_order_relaxed);
        _current = nullptr;
        _broken = true;
    }
    _hub->wake();
    // Let what is queued go out first (a last reset, say), but not wait on a stalled peer.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    for (Communicator* c : members)
        while (!c->_connection->drained() && std::chrono::steady_clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    for (Communicator* c : members)
        delete c;
}

const char* refusalName(Refusal refusal) {
    static const char* const names[kRefusalKinds] = {
        "too_large",        "budget",       "frame_timeout",     "idle",
        "too_many_clients", "bad_preamble", "handshake_timeout", "no_memory"};
    const auto at = static_cast<size_t>(refusal);
    return at < kRefusalKinds ? names[at] : "unknown";
}

bool MultiCommunicator::write(const uint8_t* bytes, size_t count) {
    std::lock_guard<detail::SpinningMutex> lock(_hub->mutex);
    if (_members.empty())
        return false;
    // Copied once; every connection's queue refers to the same bytes. While every connection
    // is busy writing, the frames gather and go into the queues when one finishes a write.
    detail::Hub& hub = *_hub;
    size_t at = 0;
    const std::shared_ptr<detail::Chunk>& chunk = _chunks->append(bytes, count, at);
    if (chunk != hub.pending || at != hub.pendingEnd) {
        hub.publish();
        hub.pending = chunk;
        hub.pendingBegin = hub.pendingEnd = at;
    }
    hub.pendingEnd += count;
    if (hub.anyIdle())
        hub.publish();
    const uint64_t delivered = _members.size();
    // Writers hold the lock, so a plain load and store add up: cheaper than an atomic add on
    // the path every event takes.
    const auto add = [](std::atomic<uint64_t>& counter, uint64_t n) {
        counter.store(counter.load(std::memory_order_relaxed) + n, std::memory_order_relaxed);
    };
    add(_hub->sentFrames, delivered);
    add(_hub->sentBytes, delivered * count);
    return delivered > 0;
}

bool MultiCommunicator::addCommunicator(Communicator* communicator) {
    if (!communicator)
        return false;
    {
        std::lock_guard<detail::SpinningMutex> lock(_hub->mutex);
        if (std::find(_members.begin(), _members.end(), communicator) != _members.end())
            return false;
        _hub->publish();  // what was written before it joined is not for it
        _members.push_back(communicator);
        _hub->senders.push_back(communicator->_connection.get());
        _count.store(_members.size(), std::memory_order_relaxed);
    }
    _hub->wake();
    return true;
}

void MultiCommunicator::removeCommunicator(Communicator* communicator) {
    std::lock_guard<detail::SpinningMutex> lock(_hub->mutex);
    _hub->publish();
    _members.erase(std::remove(_members.begin(), _members.end(), communicator), _members.end());
    communicator->_connection->takeBack();  // read by its own reader, if any, from now on
    auto& senders = _hub->senders;
    senders.erase(std::remove(senders.begin(), senders.end(), communicator->_connection.get()),
                  senders.end());
    _count.store(_members.size(), std::memory_order_relaxed);
    if (_current == communicator)
        _current = nullptr;
}

bool MultiCommunicator::hasInput(const Communicator* c) const {
    return c->buffered() > 0 || c->_connection->hasFrames() || c->_connection->lost();
}

bool MultiCommunicator::receiveCommunicator(Communicator*& communicator) {
    communicator = nullptr;
    // While the last connection handed out still holds frames taken over earlier, keep
    // reading it without touching the lock: the common case under load.
    if (_current && _current->buffered() > 0) {
        communicator = _current;
        return true;
    }
    std::unique_lock<detail::SpinningMutex> lock(_hub->mutex);
    for (;;) {
        if (_broken)
            return false;
        const size_t n = _members.size();
        for (size_t i = 0; i < n; ++i) {
            const size_t at = (_next + i) % n;
            Communicator* c = _members[at];
            if (hasInput(c)) {
                if (c->refill() > 0)
                    _lastInput = std::chrono::steady_clock::now();
                _next = (at + 1) % n;
                _current = communicator = c;
                return true;
            }
        }
        waitForSockets(lock, nullptr);
    }
}

void MultiCommunicator::waitForSockets(std::unique_lock<detail::SpinningMutex>& lock,
                                       const std::chrono::steady_clock::time_point* deadline) {
    using Clock = std::chrono::steady_clock;
    askForSlice();
    // Under a stream of events the network thread reads ahead, in large pieces, while this
    // thread applies what it has: until the stream has paused for a moment this thread waits
    // for it. After that it polls the sockets itself, so that a lone event wakes it directly.
    const auto now = Clock::now();
    if (_hub->wakeFd < 0 || now - _lastInput < kStreamPause) {
        takeBack();
        if (_hub->wakeFd < 0 && !deadline)
            return _hub->ready.wait(lock);
        auto until = _hub->wakeFd < 0 ? *deadline : _lastInput + kStreamPause;
        if (deadline)
            until = std::min(until, *deadline);
        _hub->ready.wait_until(lock, until);
        return;
    }
    _pollFds.clear();
    _polled.clear();
    _pollFds.push_back({_hub->wakeFd, POLLIN, 0});
    const bool lend = _hub->lendSockets.load(std::memory_order_relaxed);
    for (Communicator* c : _members)
        if (c->_connection->pollable()) {
            _pollFds.push_back({c->_connection->fd(), POLLIN, 0});
            _polled.push_back(c->_connection);
            if (lend)
                c->_connection->lend();
        }
    _lent = _lent || (lend && !_polled.empty());
    _hub->polling.store(true, std::memory_order_relaxed);
    lock.unlock();
    // A connection's socket may be closed meanwhile: its descriptor is only read once it is
    // known, under the lock, to be open still.
    int ready = 0;
    if (const unsigned busy = _busyPoll.load(std::memory_order_relaxed)) {
        // A frame that comes while this thread spins is taken without a wake-up and without
        // waiting for the sender's processor to be free.
        auto until = _lastInput + std::chrono::microseconds(busy);
        if (deadline)
            until = std::min(until, *deadline);
        const timespec none{};
        while ((ready = ::ppoll(_pollFds.data(), _pollFds.size(), &none, nullptr)) == 0 &&
               Clock::now() < until) {
        }
    }
    if (ready == 0) {
        timespec timeout{};
        if (deadline) {
            const auto left = std::max(*deadline - Clock::now(), Clock::duration::zero());
            const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(left).count();
            timeout.tv_sec = static_cast<time_t>(ns / 1000000000);
            timeout.tv_nsec = static_cast<long>(ns % 1000000000);
        }
        ::ppoll(_pollFds.data(), _pollFds.size(), deadline ? &timeout : nullptr, nullptr);
    }
    lock.lock();
    _hub->polling.store(false, std::memory_order_relaxed);
    if (_pollFds[0].revents)
        _hub->clearWake();
    // The network thread is woken by the same arrival (unless the socket is lent); whichever
    // of the two takes the lock first reads.
    for (size_t i = 1; i < _pollFds.size(); ++i)
        if (_pollFds[i].revents) {
            _polled[i - 1]->pullForReader();
            _arrived = true;
        }
    _polled.clear();
}

void MultiCommunicator::takeBack() {
    _arrived = false;
    if (!_lent)
        return;
    _lent = false;
    for (Communicator* c : _members)
        c->_connection->takeBack();
}

void MultiCommunicator::askForSlice() const {
    thread_local unsigned asked = 0;
    const unsigned slice = _slice.load(std::memory_order_relaxed);
    if (slice == asked)
        return;
    asked = slice;
    std::string why;
    if (!Tovan::Thread::requestSlice(slice, why))
        LIRRA_LOG(osg::LOG_WARNING, "Could not set a scheduler slice of %u us: %s\n", slice,
                  why.c_str());
}

bool MultiCommunicator::anyInput() const {
    return std::any_of(_members.begin(), _members.end(), [this](auto* c) { return hasInput(c); });
}

bool MultiCommunicator::waitForCommunicators() {
    std::unique_lock<detail::SpinningMutex> lock(_hub->mutex);
    _hub->ready.wait(lock, [this] { return _broken || !_members.empty(); });
    return !_broken;
}

void MultiCommunicator::breakWait() {
    {
        std::lock_guard<detail::SpinningMutex> lock(_hub->mutex);
        _broken = true;
    }
    _hub->wake();
}

bool MultiCommunicator::communicatorsAvail(int& count) {
    if (_current && _current->buffered() > 0) {
        count = 1;  // at least this one; enough to keep reading without the lock
        return true;
    }
    std::lock_guard<detail::SpinningMutex> lock(_hub->mutex);
    count = static_cast<int>(
        std::count_if(_members.begin(), _members.end(), [this](auto* c) { return hasInput(c); }));
    // What arrived while this thread polled is applied: the network thread reads ahead again,
    // for whatever follows while this thread is not waiting. (A server that only timed out
    // keeps its sockets lent from one wait to the next.)
    if (count == 0 && _arrived)
        takeBack();
    return true;
}

bool MultiCommunicator::waitForInput(double seconds) {
    if (_current && _current->buffered() > 0)
        return true;
    std::unique_lock<detail::SpinningMutex> lock(_hub->mutex);
    auto ready = [this] { return _broken || anyInput(); };
    const auto deadline =
        std::chrono::steady_clock::now() +
        std::chrono::duration_cast<std::chrono::steady_clock::duration>(
            std::chrono::duration<double>(
                std::isfinite(seconds) && seconds > 0 ? std::min(seconds, kMaxSeconds) : 0));
    while (!ready() && std::chrono::steady_clock::now() < deadline)
        waitForSockets(lock, &deadline);
    return !_broken && ready();
}

size_t MultiCommunicator::receiveBudget() const {
    return _hub->budget.load(std::memory_order_relaxed);
}

void MultiCommunicator::setReceiveBudget(size_t bytes) {
    _hub->budget.store(bytes, std::memory_order_relaxed);
}

size_t MultiCommunicator::receiveHeld() const {
    return _hub->held.load(std::memory_order_relaxed);
}

double MultiCommunicator::idleLimit() const {
    return _hub->idleLimit.load(std::memory_order_relaxed);
}

void MultiCommunicator::setIdleLimit(double seconds) {
    if (!(seconds >= 0) || seconds > kMaxSeconds) {
        LIRRA_LOG(osg::LOG_WARNING, "Ignored an idle limit of %g s: from 0 to %g s\n", seconds,
                  kMaxSeconds);
        return;
    }
    _hub->idleLimit.store(seconds, std::memory_order_relaxed);
}

void MultiCommunicator::setFrameDeadline(double graceSeconds, double minBytesPerSecond) {
    if (!(graceSeconds >= 0.01) || graceSeconds > kMaxSeconds || !(minBytesPerSecond >= 1) ||
        !std::isfinite(minBytesPerSecond)) {
        LIRRA_LOG(osg::LOG_WARNING,
                  "Ignored a frame deadline of %g s and %g bytes/s: from 0.01 to %g s, at "
                  "least 1 byte/s\n",
                  graceSeconds, minBytesPerSecond, kMaxSeconds);
        return;
    }
    _hub->frameGrace.store(graceSeconds, std::memory_order_relaxed);
    _hub->frameMinRate.store(minBytesPerSecond, std::memory_order_relaxed);
}

double MultiCommunicator::frameGrace() const {
    return _hub->frameGrace.load(std::memory_order_relaxed);
}

double MultiCommunicator::frameMinRate() const {
    return _hub->frameMinRate.load(std::memory_order_relaxed);
}

double MultiCommunicator::keepAliveInterval() const {
    return _hub->keepAlive.load(std::memory_order_relaxed);
}

void MultiCommunicator::setKeepAliveInterval(double seconds) {
    if (!(seconds >= 0.01) || seconds > kMaxSeconds) {
        LIRRA_LOG(osg::LOG_WARNING, "Ignored a keep-alive interval of %g s: from 0.01 to %g s\n",
                  seconds, kMaxSeconds);
        return;
    }
    _hub->keepAlive.store(seconds, std::memory_order_relaxed);
}

unsigned MultiCommunicator::gatherTime() const {
    return _hub->gatherMicros.load(std::memory_order_relaxed);
}

void MultiCommunicator::setGatherTime(unsigned microseconds) {
    if (microseconds > kMaxGatherMicros) {
        LIRRA_LOG(osg::LOG_WARNING, "Ignored a gather time of %u us: from 0 to %u us\n",
                  microseconds, kMaxGatherMicros);
        return;
    }
    _hub->gatherMicros.store(microseconds, std::memory_order_relaxed);
}

unsigned MultiCommunicator::busyPoll() const {
    return _busyPoll.load(std::memory_order_relaxed);
}

void MultiCommunicator::setBusyPoll(unsigned microseconds) {
    if (microseconds > kMaxBusyPollMicros) {
        LIRRA_LOG(osg::LOG_WARNING, "Ignored a busy poll of %u us: from 0 to %u us\n", microseconds,
                  kMaxBusyPollMicros);
        return;
    }
    _busyPoll.store(microseconds, std::memory_order_relaxed);
}

unsigned MultiCommunicator::schedulerSlice() const {
    return _slice.load(std::memory_order_relaxed);
}

void MultiCommunicator::setSchedulerSlice(unsigned microseconds) {
    if (!Tovan::Thread::validSlice(microseconds)) {
        LIRRA_LOG(osg::LOG_WARNING, "Ignored a scheduler slice of %u us: 0 or from %u to %u us\n",
                  microseconds, Tovan::Thread::kMinSliceMicros, Tovan::Thread::kMaxSliceMicros);
        return;
    }
    _slice.store(microseconds, std::memory_order_relaxed);
}

uint64_t MultiCommunicator::sentFrames() const {
    return _hub->sentFrames.load(std::memory_order_relaxed);
}

uint64_t MultiCommunicator::sentBytes() const {
    return _hub->sentBytes.load(std::memory_order_relaxed);
}

size_t MultiCommunicator::queuedBytes() const {
    std::lock_guard<detail::SpinningMutex> lock(_hub->mutex);
    size_t bytes = 0;
    for (const Communicator* c : _members)
        bytes += c->_connection->queued();
    return bytes;
}

uint64_t MultiCommunicator::sendLimitDrops() const {
    return _hub->sendLimitDrops.load(std::memory_order_relaxed);
}

uint64_t MultiCommunicator::refusals(Refusal refusal) const {
    const auto at = static_cast<size_t>(refusal);
    return at < kRefusalKinds ? _hub->refused[at].load(std::memory_order_relaxed) : 0;
}

}  // namespace Lirra
