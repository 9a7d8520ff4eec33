#include "Lirra/Communicator.h"

#include <cstring>
#include <mutex>

#include "Lirra/Connection.h"

namespace Lirra {

Communicator::Communicator(std::shared_ptr<detail::Connection> connection)
    : _connection(std::move(connection)) {}

Communicator::~Communicator() {
    _connection->hub().held.fetch_sub(_buffer.size(), std::memory_order_relaxed);
    close();
}

bool Communicator::write(const uint8_t* bytes, size_t count) {
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

bool Communicator::refill() {
    if (_read == _buffer.size())
        consumed();
    return _connection->takeFrames(_buffer) > 0;
}

void Communicator::consumed() {
    _connection->hub().held.fetch_sub(_buffer.size(), std::memory_order_relaxed);
    _buffer.clear();
    detail::shrink(_buffer);
    _read = 0;
}

bool Communicator::readExact(uint8_t* bytes, size_t count) {
    if (buffered() < count) {
        // Only whole frames are handed over, so a frame read in pieces is all here already;
        // this takes what arrived since and fails if the peer has gone without sending it.
        std::lock_guard<std::mutex> lock(_connection->hub().mutex);
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

}  // namespace Lirra
