#pragma once

#include <cstdint>
#include <string>

namespace Lirra {

// A numeric host address and a port, as a socket is bound or connected to.
class SocketAddress {
public:
    SocketAddress() = default;
    SocketAddress(std::string hostAddress, uint16_t servicePort)
        : _hostAddress(std::move(hostAddress)), _servicePort(servicePort) {}

    const std::string& getHostAddress() const { return _hostAddress; }
    uint16_t getServicePort() const { return _servicePort; }
    // Whether the host address is the unspecified one (0.0.0.0 or ::): every interface.
    bool isWildcard() const;
    // "127.0.0.1:8380", "[::1]:8380": the form a URL takes.
    std::string toString() const;

private:
    std::string _hostAddress;
    uint16_t _servicePort = 0;
};

}  // namespace Lirra
