#include "Lirra/MultiServer.h"

#include <algorithm>
#include <array>
#include <cerrno>

#include "Lirra/Log.h"

#include "Lirra/Connection.h"

namespace asio = boost::asio;
using asio::ip::tcp;
using asio::ip::udp;

namespace Lirra {

namespace {

// The system is short of descriptors or memory: accepting again at once would only spin.
bool outOfResources(const boost::system::error_code& ec) {
    return ec == asio::error::no_descriptors || ec == asio::error::no_buffer_space ||
           ec == asio::error::no_memory ||
           ec == boost::system::error_code(ENFILE, boost::system::system_category());
}

constexpr auto kFirstBackoff = std::chrono::milliseconds(50);
constexpr auto kLastBackoff = std::chrono::seconds(1);

}  // namespace

// The parts that live on the network thread.
struct MultiServer::Impl {
    Impl(MultiServer& owner, asio::io_context& io)
        : owner(owner),
          acceptor(io),
          locals{LocalListener(io), LocalListener(io)},
          announcer(io),
          timer(io),
          acceptTimer(io) {}

    // Accepts on the TCP port or on the local socket; both admit alike, under one cap.
    template <typename Acceptor>
    void accept(Acceptor& from, asio::steady_timer& backOffTimer) {
        from.async_accept(
            [this, &from, &backOffTimer](boost::system::error_code ec,
                                         typename Acceptor::protocol_type::socket socket) {
                if (ec == asio::error::operation_aborted || !from.is_open())
                    return;
                if (ec && outOfResources(ec))
                    return backOff(ec, backOffTimer, [this, &from, &backOffTimer] {
                        if (from.is_open())
                            accept(from, backOffTimer);
                    });
                if (starved) {
                    starved = false;
                    LIRRA_LOG(osg::LOG_WARNING, "Accepting clients on port %u again\n",
                              owner._listeningPort);
                }
                if (!ec)
                    admit(detail::Connection::Socket(std::move(socket)));
                accept(from, backOffTimer);
            });
    }

    // Listens on the local sockets named for 127.0.0.1 ([0]) and ::1 ([1]), as asked: on all
    // of them, or on none.
    bool listenLocally(const std::array<bool, 2>& asked) {
        for (size_t i = 0; i < locals.size(); ++i) {
            if (!asked[i])
                continue;
            auto& local = locals[i].acceptor;
            const std::string name = detail::localSocketName(i == 1, owner._listeningPort);
            boost::system::error_code ec;
            local.open(asio::local::stream_protocol(), ec);
            if (!ec)
                local.bind(detail::localSocketEndpoint(name), ec);
            if (!ec)
                local.listen(asio::socket_base::max_listen_connections, ec);
            if (ec) {
                LIRRA_LOG(osg::LOG_WARNING, "Cannot listen on the local socket %s: %s\n",
                          name.c_str(), ec.message().c_str());
                closeLocally();
                return false;
            }
        }
        for (LocalListener& local : locals)
            if (local.acceptor.is_open())
                accept(local.acceptor, local.backOffTimer);
        return true;
    }

    void closeLocally() {
        boost::system::error_code ignored;
        for (LocalListener& local : locals) {
            local.acceptor.close(ignored);
            local.backOffTimer.cancel();
        }
    }

    bool listensLocally() const {
        return std::any_of(locals.begin(), locals.end(),
                           [](const LocalListener& local) { return local.acceptor.is_open(); });
    }

    template <typename Resume>
    void backOff(const boost::system::error_code& ec, asio::steady_timer& backOffTimer,
                 Resume resume) {
        if (!starved) {
            starved = true;
            backoff = kFirstBackoff;
            LIRRA_LOG(osg::LOG_WARNING,
                      "Cannot accept clients on port %u: %s; trying again from time to time\n",
                      owner._listeningPort, ec.message().c_str());
        } else {
            backoff = std::min<std::chrono::steady_clock::duration>(2 * backoff, kLastBackoff);
        }
        backOffTimer.expires_after(backoff);
        backOffTimer.async_wait([resume](boost::system::error_code waited) {
            if (!waited)
                resume();
        });
    }

    void admit(detail::Connection::Socket socket) {
        auto connection =
            std::make_shared<detail::Connection>(std::move(socket), owner.hub(), owner.sendLimit());
        const size_t cap = owner.maxConnections();
        if (connections >= cap) {
            // The preamble first, so that the client takes the goodbye for a Kelo server's.
            LIRRA_LOG_LIMITED(osg::LOG_WARNING,
                              "Refused client %s: too many clients (%zu connected)\n",
                              connection->peer().c_str(), connections);
            connection->hub().count(Refusal::TooManyClients);
            connection->write(detail::kPreamble, sizeof detail::kPreamble);
            connection->refuse("too many clients (" + std::to_string(connections) + " connected)");
            return;
        }
        ++connections;
        if (connections >= cap && !full) {
            full = true;
            LIRRA_LOG(osg::LOG_WARNING,
                      "Reached the limit of %zu client connections on port %u: more clients are "
                      "refused until some leave\n",
                      cap, owner._listeningPort);
        }
        connection->onEnded([this] {
            --connections;
            if (connections < owner.maxConnections())
                full = false;
        });
        // Handed over once its preamble has arrived.
        connection->start([this](const std::shared_ptr<detail::Connection>& c) {
            if (!closed)
                owner.addCommunicator(new Communicator(c));
        });
    }

    void announce() {
        if (owner.multicastEnabled()) {
            boost::system::error_code ec;
            const auto group = asio::ip::make_address(owner.address().toString(), ec);
            asio::ip::address local;
            if (!ec)
                local = asio::ip::make_address(owner.interface().toString(), ec);
            if (!ec && !announcer.is_open())
                announcer.open(group.is_v6() ? udp::v6() : udp::v4(), ec);
            const int ttl = owner.ttl();
            if (!ec && (ttl < 0 || ttl > 255))
                ec = asio::error::invalid_argument;
            if (!ec)
                announcer.set_option(asio::ip::multicast::hops(ttl), ec);
            if (!ec && local.is_v4() && !local.to_v4().is_unspecified())
                announcer.set_option(asio::ip::multicast::outbound_interface(local.to_v4()), ec);
            if (!ec)
                announcer.send_to(
                    asio::buffer(encodeAnnouncement(owner._listeningPort, owner.id())),
                    udp::endpoint(group, owner.port()), 0, ec);
            if (ec && !warned)
                LIRRA_LOG(osg::LOG_WARNING, "Cannot announce on %s:%u: %s\n",
                          owner.address().toString().c_str(), owner.port(), ec.message().c_str());
            warned = static_cast<bool>(ec);
        }
        timer.expires_after(std::chrono::seconds(1));
        timer.async_wait([this](boost::system::error_code ec) {
            if (!ec)
                announce();
        });
    }

    MultiServer& owner;
    tcp::acceptor acceptor;
    struct LocalListener {
        explicit LocalListener(asio::io_context& io) : acceptor(io), backOffTimer(io) {}
        asio::local::stream_protocol::acceptor acceptor;
        asio::steady_timer backOffTimer;
    };
    std::array<LocalListener, 2> locals;  // 127.0.0.1's local socket, then ::1's
    udp::socket announcer;
    asio::steady_timer timer;
    asio::steady_timer acceptTimer;
    std::chrono::steady_clock::duration backoff{kFirstBackoff};
    size_t connections = 0;  // open client sockets, handshaking ones included
    bool full = false;       // the cap was reached and logged
    bool starved = false;    // accepting fails for want of descriptors
    bool announcing = false;
    bool warned = false;
    bool closed = false;  // no more clients are handed over
};

MultiServer::MultiServer(int)
    : _thread(std::make_unique<detail::NetworkThread>()),
      _impl(std::make_unique<Impl>(*this, _thread->io())) {
    setIdleLimit(kDefaultIdleLimit);
    hub()->lendSockets = true;
}

MultiServer::~MultiServer() {
    MultiServer::close();
    _thread->stop();  // no handler runs any more: the sockets can go, then the io_context
    _impl.reset();
}

bool MultiServer::open(const std::string& host, unsigned short port, bool announce) {
    boost::system::error_code ec;
    const auto address = host.empty() ? asio::ip::address(asio::ip::address_v4::any())
                                      : asio::ip::make_address(host, ec);
    tcp::acceptor& acceptor = _impl->acceptor;
    if (!ec)
        acceptor.open(address.is_v6() ? tcp::v6() : tcp::v4(), ec);
    if (!ec)
        acceptor.set_option(tcp::acceptor::reuse_address(true), ec);
    if (!ec)
        acceptor.bind({address, port}, ec);
    if (!ec)
        acceptor.listen(asio::socket_base::max_listen_connections, ec);
    if (ec) {
        LIRRA_LOG(osg::LOG_FATAL, "Cannot listen on %s:%u: %s\n", host.c_str(), port,
                  ec.message().c_str());
        boost::system::error_code ignored;
        acceptor.close(ignored);
        return false;
    }
    _listeningPort = acceptor.local_endpoint().port();
    _listeningHost = address.to_string();
    _announce = announce;
    asio::post(_thread->io(), [this] { _impl->accept(_impl->acceptor, _impl->acceptTimer); });
    return true;
}

bool MultiServer::setLocalSocket(bool on) {
    const bool done = _thread->call([this, on] {
        Impl& impl = *_impl;
        if (on == impl.listensLocally())
            return true;
        if (!on) {
            impl.closeLocally();
            return true;
        }
        boost::system::error_code ec;
        const auto address = impl.acceptor.local_endpoint(ec).address();
        if (impl.closed || ec) {
            LIRRA_LOG(osg::LOG_WARNING,
                      "Cannot listen on a local socket for port %u: the server is closed\n",
                      _listeningPort);
            return false;
        }
        // A client takes the socket named for the loopback address it was given: only the
        // server that can be reached there may answer on it.
        std::array<bool, 2> names{};  // 127.0.0.1's, ::1's
        const bool any = address.is_unspecified();
        if (address.is_v4()) {
            names[0] = any || address == asio::ip::address_v4::loopback();
        } else if (any) {
            // Every IPv6 address, and IPv4's too unless the socket is for IPv6 only.
            asio::ip::v6_only v6Only(true);
            impl.acceptor.get_option(v6Only, ec);
            names = {!ec && !v6Only.value(), true};
        } else {
            names[1] = address == asio::ip::address_v6::loopback();
        }
        if (!names[0] && !names[1]) {
            LIRRA_LOG(osg::LOG_WARNING,
                      "Cannot listen on the local socket %s: the server is not on the loopback "
                      "address but on %s\n",
                      detail::localSocketName(address.is_v6(), _listeningPort).c_str(),
                      address.to_string().c_str());
            return false;
        }
        return impl.listenLocally(names);
    });
    _localSocket = on && done;
    return done;
}

void MultiServer::startAnnouncing() {
    asio::post(_thread->io(), [this] {
        if (!_announce || _impl->announcing || !_impl->acceptor.is_open())
            return;
        _impl->announcing = true;
        _impl->announce();
    });
}

size_t MultiServer::maxConnections() const {
    return _maxConnections.load(std::memory_order_relaxed);
}

bool MultiServer::setMaxConnections(size_t count) {
    if (count == 0) {
        LIRRA_LOG(osg::LOG_WARNING, "Ignored a limit of 0 client connections: at least 1\n");
        return false;
    }
    _maxConnections.store(count, std::memory_order_relaxed);
    return true;
}

void MultiServer::close() {
    // Stop accepting and announcing on the network thread, and wait until it has.
    if (_impl)
        _thread->call([this] {
            boost::system::error_code ignored;
            _impl->closed = true;
            _impl->acceptor.close(ignored);
            _impl->closeLocally();
            _impl->acceptTimer.cancel();
            _impl->timer.cancel();
            _impl->announcer.close(ignored);
        });
    MultiCommunicator::close();
}

}  // namespace Lirra
