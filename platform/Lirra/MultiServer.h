#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "Lirra/MultiCommunicator.h"
#include "Lirra/Multicast.h"

namespace Lirra {

namespace detail {
class NetworkThread;
}

// Accepts connections from any number of clients and announces itself on a multicast group.
// New connections arrive through addCommunicator() on the network thread, once the client has
// answered with a Kelo preamble; a subclass that overrides it calls close() in its own
// destructor, so that no client is handed over to a half-destroyed object.
class MultiServer : public MultiCommunicator, public Multicast {
public:
    // kind is kept for the interface's sake; there is one kind of server.
    explicit MultiServer(int kind = 2);
    ~MultiServer() override;

    // Listens on host:port: an empty host means every interface, port 0 a free port chosen by
    // the system. Announcing starts with startAnnouncing(), so that the multicast settings can
    // be made first. False, with a log line, when the address cannot be used.
    bool open(const std::string& host, unsigned short port, bool announce);
    void close() override;
    // Announces now and every second from now on, while multicast is enabled.
    void startAnnouncing();

    // The port actually listened on.
    unsigned short listeningPort() const { return _listeningPort; }
    const std::string& listeningHost() const { return _listeningHost; }

    // Also accepts clients on this machine through a local stream socket for each loopback
    // address it can be reached at, named after the port in the abstract namespace
    // (@kelo-PORT for 127.0.0.1, @kelo6-PORT for ::1): they skip the TCP/IP stack. A client
    // finds it with MultiClient::setLocal. Off by default; false, with a log line, when a name
    // is taken, the server is closed, or it listens elsewhere than on 127.0.0.1, ::1 or every
    // address.
    bool setLocalSocket(bool on);
    bool localSocket() const { return _localSocket; }

    // Client connections held at once, handshaking ones included; one more is sent a goodbye
    // and closed. The cap reached is logged once, and again after it was left. At least 1:
    // false, with a log line and the cap unchanged, for 0.
    size_t maxConnections() const;
    bool setMaxConnections(size_t count);

    static constexpr size_t kDefaultMaxConnections = 64;
    // The idle limit of MultiCommunicator as a server sets it.
    static constexpr double kDefaultIdleLimit = 30;

    bool flag() const { return _flag; }
    void setFlag(bool flag) { _flag = flag; }

private:
    struct Impl;
    std::unique_ptr<detail::NetworkThread> _thread;
    std::unique_ptr<Impl> _impl;
    unsigned short _listeningPort = 0;
    std::string _listeningHost;
    bool _flag = false;
    bool _announce = false;
    std::atomic<size_t> _maxConnections{kDefaultMaxConnections};
    std::atomic<bool> _localSocket{false};
};

}  // namespace Lirra
