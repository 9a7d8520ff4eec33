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

// Connects to servers: to those named explicitly and, with discovery on, to every server that
// announces itself on the multicast group. A server that is lost is connected to again when it
// comes back (announces again, or answers a retry). New connections arrive through
// addCommunicator() on the network thread, once the server has answered with a Kelo preamble.
class MultiClient : public MultiCommunicator, public Multicast {
public:
    // kind is kept for the interface's sake; there is one kind of client.
    explicit MultiClient(int kind = 2);
    ~MultiClient() override;

    // Starts listening on the group (when discovery and multicast are on) and connecting.
    bool open();
    void close() override;

    // Keeps a connection to host:port, retrying while it is down. False for a host that is not
    // a numeric address or a name that resolves.
    bool connectToServer(const std::string& host, unsigned short port);
    // Stops retrying host:port and closes its connection.
    bool disconnectFromServer(const std::string& host, unsigned short port);

    // Discovery through the multicast group.
    bool discover() const { return _discover; }
    void setDiscover(bool discover) { _discover = discover; }
    // Seconds between attempts to reach a named server that is down: from 0.05 to 3600. False,
    // with a log line and the interval unchanged, for any other value.
    double retryInterval() const { return _retry; }
    bool setRetryInterval(double seconds);
    // Connects to a server at 127.0.0.1 or ::1 through the local socket named for that address
    // and port, when it has one (MultiServer::setLocalSocket), and over TCP otherwise. Off by
    // default; takes effect from the next connection.
    bool local() const { return _local; }
    void setLocal(bool local) { _local = local; }

    static constexpr double kMinRetry = 0.05;
    static constexpr double kMaxRetry = 3600;

private:
    struct Impl;
    std::unique_ptr<detail::NetworkThread> _thread;
    std::unique_ptr<Impl> _impl;
    bool _discover = true;
    std::atomic<double> _retry{3.0};
    std::atomic<bool> _local{false};
};

}  // namespace Lirra
