#include "Lirra/SocketAddress.h"

namespace Lirra {

bool SocketAddress::isWildcard() const {
    return _hostAddress == "0.0.0.0" || _hostAddress == "::";
}

std::string SocketAddress::toString() const {
    const bool v6 = _hostAddress.find(':') != std::string::npos;
    return (v6 ? "[" + _hostAddress + "]" : _hostAddress) + ":" + std::to_string(_servicePort);
}

}  // namespace Lirra
