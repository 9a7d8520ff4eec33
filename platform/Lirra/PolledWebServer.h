#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "Lirra/SocketAddress.h"
#include "Lirra/WebServer.h"

namespace Lirra {

class WebConnection;

// An HTTP/1.1 server without a thread of its own: it does its work in update(), which the
// owner calls regularly (once per frame). update() never blocks and stops after a bounded
// amount of work, so a flood of clients slows the answers, not the caller. Requests are limited
// in size and each step of a connection has a deadline: the wait for a request to begin, its
// header, the rest of it, and the reply. Connections are kept alive between requests. The
// number of connections is capped, in all and per client address; a new client is always
// taken, and the connection that is least use (idle the longest, or the slowest to send its
// request) makes room for it, so slow clients cannot shut others out.
class PolledWebServer : public WebServer {
public:
    // The port opened when none is asked for.
    static constexpr uint16_t DefaultPort = 8380;

    PolledWebServer();
    ~PolledWebServer() override;

    // Listens on host (a numeric address or a host name; empty means loopback only) and port
    // (0 means DefaultPort). When that port is taken, the system chooses one: socketAddress()
    // tells which. Throws IOException when the address cannot be resolved or bound. An open
    // server is closed first.
    void open(const std::string& host, int port);
    // Stops listening and drops every connection. Also done by the destructor.
    void close();
    bool isOpen() const;
    // Accepts, reads and answers what is waiting, within the poll budget, then returns.
    void update();

    // Where the server listens; an empty address and port 0 when it is closed.
    SocketAddress socketAddress() const;
    // Open connections.
    std::size_t connections() const;

    // Connections dropped to make room for new ones, and accepts that failed, since opening.
    std::size_t evictions() const { return _evictions; }
    std::size_t acceptFailures() const { return _acceptFailures; }

    // Limits; the deadlines apply to each step begun from then on.
    // Time a client has for a whole request, counted from its first byte (or from connecting),
    // and to take a whole reply.
    void setTimeout(std::chrono::milliseconds timeout) { _timeout = timeout; }
    std::chrono::milliseconds timeout() const { return _timeout; }
    // Time a client has for the header of a request, counted the same way; never more than
    // timeout().
    void setHeaderTimeout(std::chrono::milliseconds timeout) { _headerTimeout = timeout; }
    std::chrono::milliseconds headerTimeout() const { return _headerTimeout; }
    // The longest a kept-alive connection may wait for its next request to begin.
    void setIdleTimeout(std::chrono::milliseconds timeout) { _idleTimeout = timeout; }
    std::chrono::milliseconds idleTimeout() const { return _idleTimeout; }
    void setRequestLimits(std::size_t headerBytes, std::size_t bodyBytes);
    std::size_t headerLimit() const { return _headerLimit; }
    std::size_t bodyLimit() const { return _bodyLimit; }
    // At most this many connections (at least 1); one more makes room as described above.
    void setMaxConnections(std::size_t count) { _maxConnections = count < 1 ? 1 : count; }
    std::size_t maxConnections() const { return _maxConnections; }
    // At most this many connections from one address (at least 1); one more makes room among
    // that address's own.
    void setMaxConnectionsPerAddress(std::size_t count) {
        _maxConnectionsPerAddress = count < 1 ? 1 : count;
    }
    std::size_t maxConnectionsPerAddress() const { return _maxConnectionsPerAddress; }
    // One update() runs at most this many completions and stops once this time has passed.
    void setPollBudget(std::chrono::microseconds time, int completions);
    std::chrono::microseconds pollTime() const { return _pollTime; }
    int pollCompletions() const { return _pollCompletions; }

private:
    friend class WebConnection;
    struct Transport;

    void startAccept();
    // Waits before accepting again after a failure that concerns the server, not one client
    // (out of descriptors or memory): retrying at once would spin.
    void backOff(const std::string& reason);
    // Drops connections until the new one fits in both caps.
    void makeRoom(const WebConnection& added);
    void attach(WebConnection* connection);
    void detach(WebConnection* connection);

    std::unique_ptr<Transport> _transport;
    std::chrono::milliseconds _timeout{10000};
    std::chrono::milliseconds _headerTimeout{5000};
    std::chrono::milliseconds _idleTimeout{5000};
    std::size_t _headerLimit = 8 * 1024;
    std::size_t _bodyLimit = 64 * 1024;
    std::size_t _maxConnections = 256;
    std::size_t _maxConnectionsPerAddress = 32;
    std::chrono::microseconds _pollTime{1000};
    int _pollCompletions = 4096;
    std::size_t _evictions = 0;
    std::size_t _acceptFailures = 0;
    std::chrono::milliseconds _backOff{0};
};

}  // namespace Lirra
