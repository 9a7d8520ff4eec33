#include "Lirra/Communicator.h"

#include <cstring>
#include <mutex>

#include "Lirra/Connection.h"

namespace Lirra {

Communicator::Communicator(std::shared_ptr<detail::Connection> connection)
    : _connection(std::move(connection)) {}

Communicator::~Communicator() {
    _connection->hub().held.fetch_sub(_held, std::memory_order_relaxed);
    close();
}

bool Communicator::write(const uint8_t* bytes, size_t count) {
    // Frames written to the whole set before this one go first.
    {
        std::lock_guard<detail::SpinningMutex> lock(_connection->hub().mutex);
        _connection->hub().publish();
    }
    return _connection->write(bytes, count);
}

void Communicator::close() {
    _connection->close();
}

void Communicator::refuse(const std::string& reason) {
    _connection->refuse(reason);
}

const std::string& Communicator::peer() const {
    return _connection->peer();
}

size_t Communicator::refill() {
    discardRead();
    const size_t taken = _connection->takeFrames(_buffer);
    _held += taken;
    return taken;
}

void Communicator::consumed() {
    _connection->hub().held.fetch_sub(_held, std::memory_order_relaxed);
    _held = 0;
}

void Communicator::discardRead() {
    if (_read < _buffer.size() || _buffer.empty())
        return;
    _buffer.clear();
    detail::shrink(_buffer, detail::kLargeCapacity);
    _read = 0;
}

bool Communicator::readExact(uint8_t* bytes, size_t count) {
    if (buffered() < count) {
        // Only whole frames are handed over, so a frame read in pieces is all here already;
        // this takes what arrived since and fails if the peer has gone without sending it.
        std::lock_guard<detail::SpinningMutex> lock(_connection->hub().mutex);
        refill();
        if (buffered() < count)
            return false;
    }
    if (count)
        std::memcpy(bytes, _buffer.data() + _read, count);
    _read += count;
    // Once per batch of frames: what is read no longer counts against the receive budget.
    if (_read == _buffer.size())
        consumed();
    return true;
}

const uint8_t* Communicator::nextFrame(size_t& size) {
    discardRead();
    if (buffered() < 4)
        return nullptr;
    const uint8_t* at = _buffer.data() + _read;
    const size_t length =
        size_t(at[0]) | size_t(at[1]) << 8 | size_t(at[2]) << 16 | size_t(at[3]) << 24;
    if (buffered() - 4 < length)
        return nullptr;
    _read += 4 + length;
    if (_read == _buffer.size())
        consumed();
    size = length;
    return at + 4;
}

}  // namespace Lirra
