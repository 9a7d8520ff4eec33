#include "Lirra/MultiClient.h"

#include <algorithm>
#include <functional>
#include <map>

#include "Lirra/Log.h"

#include "Lirra/Connection.h"

namespace asio = boost::asio;
using asio::ip::tcp;
using asio::ip::udp;

namespace Lirra {

// The parts that live on the network thread; only it touches them.
struct MultiClient::Impl {
    struct Server {
        tcp::endpoint endpoint;
        bool named = false;  // retried while down; a discovered one waits for its announcement
        bool connecting = false;
        std::weak_ptr<detail::Connection> connection;
    };

    Impl(MultiClient& owner, asio::io_context& io)
        : owner(owner), io(io), listener(io), retryTimer(io) {}

    bool up(const Server& server) {
        auto c = server.connection.lock();
        if (!c)
            return false;
        std::lock_guard<detail::SpinningMutex> lock(c->hub().mutex);
        return !c->lost();
    }

    void connect(const tcp::endpoint& endpoint) {
        Server& server = servers[endpoint];
        if (closed || server.connecting || up(server))
            return;
        server.connecting = true;
        if (!owner._local || !detail::standsForLocalSocket(endpoint.address()))
            return connectOver<tcp>(endpoint, endpoint);
        // A server on this machine may take us on its local socket; over TCP if it does not.
        connectOver<asio::local::stream_protocol>(
            endpoint,
            detail::localSocketEndpoint(
                detail::localSocketName(endpoint.address().is_v6(), endpoint.port())),
            [this, endpoint] { connectOver<tcp>(endpoint, endpoint); });
    }

    // Connects to server at to; on failure tries otherwise, if given.
    template <typename Protocol>
    void connectOver(const tcp::endpoint& server, const typename Protocol::endpoint& to,
                     std::function<void()> otherwise = nullptr) {
        auto socket = std::make_shared<typename Protocol::socket>(io);
        socket->async_connect(to, [this, socket, server, otherwise](boost::system::error_code ec) {
            Server& s = servers[server];
            if (ec && otherwise && !closed)
                return otherwise();
            s.connecting = false;
            if (ec || closed)
                return;
            // Named after the server's address either way, so that the log reads the same.
            auto connection = std::make_shared<detail::Connection>(
                detail::Connection::Socket(std::move(*socket)), owner.hub(), owner.sendLimit(),
                server.address().to_string() + ":" + std::to_string(server.port()));
            s.connection = connection;
            connection->start([this](const std::shared_ptr<detail::Connection>& c) {
                if (!closed)
                    owner.addCommunicator(new Communicator(c));
            });
        });
    }

    void retry() {
        for (auto& [endpoint, server] : servers)
            if (server.named)
                connect(endpoint);
        retryTimer.expires_after(std::chrono::duration_cast<std::chrono::steady_clock::duration>(
            std::chrono::duration<double>(std::clamp(owner._retry.load(), kMinRetry, kMaxRetry))));
        retryTimer.async_wait([this](boost::system::error_code ec) {
            if (!ec)
                retry();
        });
    }

    bool listen() {
        boost::system::error_code ec;
        const auto group = asio::ip::make_address(owner.address().toString(), ec);
        asio::ip::address local;
        if (!ec)
            local = asio::ip::make_address(owner.interface().toString(), ec);
        if (!ec)
            listener.open(group.is_v6() ? udp::v6() : udp::v4(), ec);
        if (!ec)
            listener.set_option(udp::socket::reuse_address(true), ec);
        if (!ec)
            listener.bind({group.is_v6() ? asio::ip::address(asio::ip::address_v6::any())
                                         : asio::ip::address(asio::ip::address_v4::any()),
                           owner.port()},
                          ec);
        if (!ec) {
            if (group.is_v4() && local.is_v4())
                listener.set_option(asio::ip::multicast::join_group(group.to_v4(), local.to_v4()),
                                    ec);
            else
                listener.set_option(asio::ip::multicast::join_group(group), ec);
        }
        if (ec) {
            LIRRA_LOG(osg::LOG_WARNING, "Cannot listen on the group %s:%u: %s\n",
                      owner.address().toString().c_str(), owner.port(), ec.message().c_str());
            listener.close(ec);
            return false;
        }
        receive();
        return true;
    }

    void receive() {
        listener.async_receive_from(asio::buffer(datagram), sender,
                                    [this](boost::system::error_code ec, size_t n) {
                                        if (ec == asio::error::operation_aborted || closed)
                                            return;
                                        if (!ec)
                                            if (auto a = decodeAnnouncement(datagram, n))
                                                connect(tcp::endpoint(sender.address(), a->port));
                                        receive();
                                    });
    }

    MultiClient& owner;
    asio::io_context& io;
    udp::socket listener;
    udp::endpoint sender;
    uint8_t datagram[64];
    asio::steady_timer retryTimer;
    std::map<tcp::endpoint, Server> servers;
    bool closed = false;
};

MultiClient::MultiClient(int)
    : _thread(std::make_unique<detail::NetworkThread>()),
      _impl(std::make_unique<Impl>(*this, _thread->io())) {}

MultiClient::~MultiClient() {
    MultiClient::close();
    _thread->stop();  // no handler runs any more: the sockets can go, then the io_context
    _impl.reset();
}

bool MultiClient::open() {
    return _thread->call([this] {
        const bool listening = !_discover || !multicastEnabled() || _impl->listen();
        _impl->retry();
        return listening;
    });
}

bool MultiClient::connectToServer(const std::string& host, unsigned short port) {
    boost::system::error_code ec;
    tcp::resolver resolver(_thread->io());
    const auto results = resolver.resolve(host, std::to_string(port), ec);
    if (ec || results.empty()) {
        LIRRA_LOG(osg::LOG_WARNING, "Cannot resolve the server %s:%u: %s\n", host.c_str(), port,
                  ec ? ec.message().c_str() : "no address");
        return false;
    }
    const tcp::endpoint endpoint = *results.begin();
    asio::post(_thread->io(), [this, endpoint] {
        _impl->servers[endpoint].named = true;
        _impl->connect(endpoint);
    });
    return true;
}

bool MultiClient::disconnectFromServer(const std::string& host, unsigned short port) {
    boost::system::error_code ec;
    const auto address = asio::ip::make_address(host, ec);
    if (ec)
        return false;
    const tcp::endpoint endpoint(address, port);
    asio::post(_thread->io(), [this, endpoint] {
        auto it = _impl->servers.find(endpoint);
        if (it == _impl->servers.end())
            return;
        if (auto c = it->second.connection.lock())
            c->close();
        _impl->servers.erase(it);
    });
    return true;
}

bool MultiClient::setRetryInterval(double seconds) {
    if (!(seconds >= kMinRetry && seconds <= kMaxRetry)) {
        LIRRA_LOG(osg::LOG_WARNING, "Ignored a retry interval of %g s: from %g to %g s\n", seconds,
                  kMinRetry, kMaxRetry);
        return false;
    }
    _retry = seconds;
    return true;
}

void MultiClient::close() {
    if (_impl)
        _thread->call([this] {
            boost::system::error_code ignored;
            _impl->closed = true;
            _impl->listener.close(ignored);
            _impl->retryTimer.cancel();
        });
    MultiCommunicator::close();
}

}  // namespace Lirra
