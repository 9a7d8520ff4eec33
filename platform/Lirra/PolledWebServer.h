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
// amount of work, so a flood of clients slows the answers, not the caller. Each connection has
// a deadline for every request it reads and every reply it writes, requests are limited in
// size, and connections are kept alive between requests.
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

    // Limits, applied to connections accepted from then on.
    // Time a client has to send a whole request (and the longest a kept-alive connection may
    // sit idle), and to take a whole reply.
    void setTimeout(std::chrono::milliseconds timeout) { _timeout = timeout; }
    std::chrono::milliseconds timeout() const { return _timeout; }
    void setRequestLimits(std::size_t headerBytes, std::size_t bodyBytes);
    std::size_t headerLimit() const { return _headerLimit; }
    std::size_t bodyLimit() const { return _bodyLimit; }
    // Beyond this many connections, new clients wait in the listen queue.
    void setMaxConnections(std::size_t count) { _maxConnections = count; }
    std::size_t maxConnections() const { return _maxConnections; }
    // One update() runs at most this many completions and stops once this time has passed.
    void setPollBudget(std::chrono::microseconds time, int completions);
    std::chrono::microseconds pollTime() const { return _pollTime; }
    int pollCompletions() const { return _pollCompletions; }

private:
    friend class WebConnection;
    struct Transport;

    void startAccept();
    void attach(WebConnection* connection);
    void detach(WebConnection* connection);

    std::unique_ptr<Transport> _transport;
    std::chrono::milliseconds _timeout{10000};
    std::size_t _headerLimit = 8 * 1024;
    std::size_t _bodyLimit = 64 * 1024;
    std::size_t _maxConnections = 256;
    std::chrono::microseconds _pollTime{1000};
    int _pollCompletions = 4096;
};

}  // namespace Lirra
