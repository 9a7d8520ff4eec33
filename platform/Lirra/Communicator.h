#pragma once

#include <memory>
#include <string>
#include <vector>

#include "Lirra/Bytes.h"
#include "Lirra/Event.h"

namespace Lirra {

namespace detail {
class Connection;
}

// One connection to a peer: events are sent to it (Sender) and read from it (Receiver). Made by
// a MultiServer or MultiClient once the peer has answered with a Kelo preamble. Reading happens
// on one thread, the one that gets the communicator from MultiCommunicator::receiveCommunicator;
// sending may happen on any thread.
class Communicator : public Sender, public Receiver {
public:
    explicit Communicator(std::shared_ptr<detail::Connection> connection);
    // Closes the connection.
    ~Communicator() override;
    Communicator(const Communicator&) = delete;
    Communicator& operator=(const Communicator&) = delete;

    // Queues a frame; false when the connection is lost (or its send queue overflowed).
    bool write(const uint8_t* bytes, size_t count) override;
    // Reads from the frames received so far; false once they are used up and the peer is gone.
    bool readExact(uint8_t* bytes, size_t count) override;
    // The next of the whole frames taken over, in place.
    const uint8_t* nextFrame(size_t& size) override;
    void frameDone() override { discardRead(); }
    void close();
    // Sends the peer a goodbye giving the reason, then closes; later writes fail.
    void refuse(const std::string& reason);

    // "address:port" of the peer.
    const std::string& peer() const;

private:
    friend class MultiCommunicator;
    // Unread received bytes already taken over by the reading thread.
    size_t buffered() const { return _buffer.size() - _read; }
    // Takes over what has arrived; the bytes taken. Hub lock held.
    size_t refill();
    // Everything taken over has been read: releases it from the receive budget. The bytes
    // stay until the next read, which may still be using the last frame handed out in place.
    void consumed();
    // Drops the bytes read, when all are.
    void discardRead();

    std::shared_ptr<detail::Connection> _connection;
    detail::Bytes _buffer;
    size_t _read = 0;
    size_t _held = 0;  // bytes of _buffer still counted in the hub's held bytes
};

}  // namespace Lirra
