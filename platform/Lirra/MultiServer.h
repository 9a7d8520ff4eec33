#pragma once

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
// answered with a Kelo preamble.
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
};

}  // namespace Lirra
