#include "Lirra/PolledWebServer.h"

#include <set>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>

#include "Lirra/IOException.h"
#include "Lirra/WebConnection.h"

namespace Lirra {

namespace asio = boost::asio;
using asio::ip::tcp;

// Everything that lives on the I/O context. Declared so that the acceptor goes before the
// context and the connection set after it: destroying the context destroys the handlers that
// keep the last connections, which then leave the set.
struct PolledWebServer::Transport {
    std::set<WebConnection*> connections;
    asio::io_context io{1};  // one thread: no locking inside asio
    tcp::acceptor acceptor{io};
    bool accepting = false;
};

namespace {

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
    if (error == asio::error::address_in_use) {
        acceptor.close(error);
        return false;
    }
    if (!error)
        acceptor.listen(asio::socket_base::max_listen_connections, error);
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
    startAccept();
}

void PolledWebServer::close() {
    if (!_transport)
        return;
    boost::system::error_code ignored;
    _transport->acceptor.close(ignored);
    for (WebConnection* connection : _transport->connections)
        connection->stop();
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
    return _transport ? _transport->connections.size() : 0;
}

void PolledWebServer::update() {
    if (!_transport)
        return;
    asio::io_context& io = _transport->io;
    if (io.stopped())
        io.restart();
    const auto deadline = std::chrono::steady_clock::now() + _pollTime;
    for (int done = 0; done < _pollCompletions; ++done)
        if (io.poll_one() == 0 || std::chrono::steady_clock::now() >= deadline)
            break;
}

void PolledWebServer::startAccept() {
    Transport& t = *_transport;
    if (t.accepting || !t.acceptor.is_open() || t.connections.size() >= _maxConnections)
        return;
    t.accepting = true;
    t.acceptor.async_accept([this](boost::system::error_code error, tcp::socket socket) {
        _transport->accepting = false;
        if (error == asio::error::operation_aborted)
            return;
        // An error here (out of descriptors, a client gone before it was taken) concerns that
        // client only: go on accepting.
        if (!error)
            std::make_shared<WebConnection>(*this, std::move(socket))->start();
        startAccept();
    });
}

void PolledWebServer::attach(WebConnection* connection) {
    _transport->connections.insert(connection);
}

void PolledWebServer::detach(WebConnection* connection) {
    if (!_transport)
        return;
    _transport->connections.erase(connection);
    startAccept();
}

}  // namespace Lirra
