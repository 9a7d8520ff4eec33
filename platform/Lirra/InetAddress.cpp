#include "Lirra/InetAddress.h"

#include <unistd.h>

#include <boost/asio/ip/address.hpp>

namespace Lirra {

bool InetAddress::valid() const {
    boost::system::error_code ec;
    boost::asio::ip::make_address(_text, ec);
    return !ec;
}

bool InetAddress::isMulticast() const {
    boost::system::error_code ec;
    const auto address = boost::asio::ip::make_address(_text, ec);
    return !ec && address.is_multicast();
}

std::string InetAddress::getLocalHostName() {
    char name[256] = {};
    if (gethostname(name, sizeof name - 1) != 0 || !name[0])
        return "localhost";
    return name;
}

}  // namespace Lirra
