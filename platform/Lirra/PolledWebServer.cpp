#include "Lirra/PolledWebServer.h"

#include <algorithm>
#include <exception>
#include <set>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>

#include "Lirra/IOException.h"
#include "Lirra/Log.h"
#include "Lirra/WebConnection.h"

namespace Lirra {

namespace asio = boost::asio;
using asio::ip::tcp;

// Everything that lives on the I/O context. Declared so that the acceptor and the timer go
// before the context and the connection set after it: destroying the context destroys the
// handlers that keep the last connections, which then leave the set.
struct PolledWebServer::Transport {
    std::set<WebConnection*> connections;
    asio::io_context io{1};  // one thread: no locking inside asio
    tcp::acceptor acceptor{io};
    asio::steady_timer retry{io};
    bool accepting = false;
    // Dropping connections to make room is a peer's doing: each server limits its own messages.
    osg::LogLimiter fullLog, addressLog, failureLog;
};

namespace {

// The first pause after an accept failed for want of resources, and the longest.
constexpr std::chrono::milliseconds firstBackOff{50};
constexpr std::chrono::milliseconds longestBackOff{1000};

// Accept errors that concern one client, which may have gone before it was taken; any other
// (out of descriptors, buffers or memory) concerns the server and lasts a while.
bool clientError(const boost::system::error_code& error) {
    return error == asio::error::connection_aborted || error == asio::error::connection_reset ||
           error == asio::error::interrupted || error == asio::error::try_again ||
           error == asio::error::would_block || error == boost::system::errc::protocol_error;
}

// Which of two connections gives way first: a kept-alive one before one that reads a request
// before one that writes a reply, and within each the one that has waited the longest.
bool givesWayBefore(const WebConnection& a, const WebConnection& b) {
    if (a.phase() != b.phase())
        return a.phase() < b.phase();
    return a.since() < b.since();
}

tcp::endpoint resolve(asio::io_context& io, const std::string& host, uint16_t port) {
    if (host.empty())
        return {asio::ip::address_v4::loopback(), port};
    boost::system::error_code error;
    const asio::ip::address address = asio::ip::make_address(host, error);
    if (!error)
        return {address, port};
    tcp::resolver resolver(io);
    const auto results = resolver.resolve(host, "", error);
    if (error || results.empty())
        throw IOException("Cannot resolve " + host + ": " + error.message());
    return {results.begin()->endpoint().address(), port};
}

// False when the port is taken; throws for every other failure.
bool bind(tcp::acceptor& acceptor, const tcp::endpoint& endpoint) {
    boost::system::error_code error;
    acceptor.open(endpoint.protocol(), error);
    if (!error)
        acceptor.set_option(tcp::acceptor::reuse_address(true), error);
    if (!error)
        acceptor.bind(endpoint, error);
    // With reuse_address two sockets may both bind the port while neither listens yet: the
    // one that listens second is told that the address is in use only now.
    if (!error)
        acceptor.listen(asio::socket_base::max_listen_connections, error);
    if (error == asio::error::address_in_use) {
        acceptor.close(error);
        return false;
    }
    if (error) {
        boost::system::error_code ignored;
        acceptor.close(ignored);
        throw IOException("Cannot listen on " + endpoint.address().to_string() + ":" +
                          std::to_string(endpoint.port()) + ": " + error.message());
    }
    return true;
}

}  // namespace

PolledWebServer::PolledWebServer() = default;

PolledWebServer::~PolledWebServer() {
    close();
}

void PolledWebServer::setRequestLimits(std::size_t headerBytes, std::size_t bodyBytes) {
    _headerLimit = headerBytes;
    _bodyLimit = bodyBytes;
}

void PolledWebServer::setPollBudget(std::chrono::microseconds time, int completions) {
    _pollTime = time;
    _pollCompletions = completions < 1 ? 1 : completions;
}

void PolledWebServer::open(const std::string& host, int port) {
    close();
    if (port < 0 || port > 65535)
        throw IOException("Invalid port " + std::to_string(port));
    auto transport = std::make_unique<Transport>();
    tcp::endpoint endpoint =
        resolve(transport->io, host, static_cast<uint16_t>(port == 0 ? DefaultPort : port));
    if (!bind(transport->acceptor, endpoint)) {
        endpoint.port(0);
        if (!bind(transport->acceptor, endpoint))
            throw IOException("No free port on " + endpoint.address().to_string());
    }
    _transport = std::move(transport);
    _evictions = 0;
    _acceptFailures = 0;
    _backOff = std::chrono::milliseconds(0);
    startAccept();
}

void PolledWebServer::close() {
    if (!_transport)
        return;
    boost::system::error_code ignored;
    _transport->acceptor.close(ignored);
    _transport->retry.cancel();
    for (WebConnection* connection : _transport->connections)
        connection->stop();
    _transport->fullLog.flush(true);
    _transport->addressLog.flush(true);
    _transport->failureLog.flush(true);
    // The aborted operations end now and release their connections.
    _transport->io.restart();
    _transport->io.poll();
    _transport.reset();
}

bool PolledWebServer::isOpen() const {
    return _transport && _transport->acceptor.is_open();
}

SocketAddress PolledWebServer::socketAddress() const {
    if (!isOpen())
        return {};
    boost::system::error_code error;
    const tcp::endpoint local = _transport->acceptor.local_endpoint(error);
    if (error)
        return {};
    return {local.address().to_string(), local.port()};
}

std::size_t PolledWebServer::connections() const {
    if (!_transport)
        return 0;
    return static_cast<std::size_t>(
        std::count_if(_transport->connections.begin(), _transport->connections.end(),
                      [](const WebConnection* c) { return !c->stopped(); }));
}

void PolledWebServer::update() {
    if (!_transport)
        return;
    asio::io_context& io = _transport->io;
    if (io.stopped())
        io.restart();
    const auto deadline = std::chrono::steady_clock::now() + _pollTime;
    for (int done = 0; done < _pollCompletions; ++done) {
        std::size_t ran = 0;
        try {
            ran = io.poll_one();
        } catch (const std::exception& error) {
            // Out of memory for one client, most likely: the handler that threw took its
            // connection with it, and the others go on.
            _transport->failureLog.write(osg::LOG_WARNING, "Lirra", __FILE__, __LINE__, __func__,
                                         "Web server dropped a connection: %s\n", error.what());
            ran = 1;
            startAccept();  // in case it was the accept's handler
        }
        if (ran == 0 || std::chrono::steady_clock::now() >= deadline)
            break;
    }
}

void PolledWebServer::startAccept() {
    Transport& t = *_transport;
    if (t.accepting || !t.acceptor.is_open())
        return;
    t.accepting = true;
    t.acceptor.async_accept([this](boost::system::error_code error, tcp::socket socket) {
        _transport->accepting = false;
        if (error == asio::error::operation_aborted)
            return;
        if (error && !clientError(error)) {
            ++_acceptFailures;
            return backOff(error.message());
        }
        if (!error) {
            if (_backOff.count() != 0) {
                LIRRA_LOG(osg::LOG_WARNING, "Web server accepts clients again\n");
                _backOff = std::chrono::milliseconds(0);
            }
            auto connection = std::make_shared<WebConnection>(*this, std::move(socket));
            connection->start();
            makeRoom(*connection);
        }
        startAccept();
    });
}

void PolledWebServer::backOff(const std::string& reason) {
    Transport& t = *_transport;
    if (_backOff.count() == 0)
        LIRRA_LOG(osg::LOG_WARNING, "Web server cannot accept clients: %s; retrying\n",
                  reason.c_str());
    _backOff = std::min(longestBackOff, std::max(firstBackOff, _backOff * 2));
    t.retry.expires_after(_backOff);
    t.retry.async_wait([this](boost::system::error_code error) {
        if (!error)
            startAccept();
    });
}

void PolledWebServer::makeRoom(const WebConnection& added) {
    const std::string& address = added.remote().getHostAddress();
    for (;;) {
        std::size_t all = 0, same = 0;
        WebConnection* any = nullptr;
        WebConnection* sameAddress = nullptr;
        for (WebConnection* c : _transport->connections) {
            if (c->stopped())
                continue;
            ++all;
            const bool mine = c->remote().getHostAddress() == address;
            same += mine;
            if (c == &added)
                continue;
            if (!any || givesWayBefore(*c, *any))
                any = c;
            if (mine && (!sameAddress || givesWayBefore(*c, *sameAddress)))
                sameAddress = c;
        }
        WebConnection* victim = nullptr;
        if (same > _maxConnectionsPerAddress && sameAddress) {
            victim = sameAddress;
            _transport->addressLog.write(
                osg::LOG_WARNING, "Lirra", __FILE__, __LINE__, __func__,
                "Web server holds %zu connections from %s: dropped its idlest or slowest\n",
                _maxConnectionsPerAddress, address.c_str());
        } else if (all > _maxConnections && any) {
            victim = any;
            if (osg::Log::the().admits(osg::LOG_WARNING))
                _transport->fullLog.write(
                    osg::LOG_WARNING, "Lirra", __FILE__, __LINE__, __func__,
                    "Web server full (%zu connections): dropped the idlest or slowest, from %s\n",
                    _maxConnections, any->remote().toString().c_str());
        }
        if (!victim)
            return;
        victim->stop();
        ++_evictions;
    }
}

void PolledWebServer::attach(WebConnection* connection) {
    _transport->connections.insert(connection);
}

void PolledWebServer::detach(WebConnection* connection) {
    if (!_transport)
        return;
    _transport->connections.erase(connection);
}

}  // namespace Lirra
