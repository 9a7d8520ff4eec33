#include "Lirra/InetAddress.h"

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

}  // namespace Lirra
