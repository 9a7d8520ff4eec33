#pragma once

#include "Lirra/SocketAddress.h"

namespace Lirra {

// The peer a request came from, as a page that cares may ask.
class WebClient {
public:
    explicit WebClient(SocketAddress remote) : _remote(std::move(remote)) {}
    virtual ~WebClient() = default;
    WebClient(const WebClient&) = delete;
    WebClient& operator=(const WebClient&) = delete;

    const SocketAddress& remote() const { return _remote; }

private:
    SocketAddress _remote;
};

}  // namespace Lirra
