#include "Lirra/WebPageStatic.h"

namespace Lirra {

bool WebPageStatic::create(const ProtocolHTTP::Request&, ProtocolHTTP::Reply& reply) {
    reply.setStatus(_status);
    reply.setHeader("Content-Type", _contentType);
    reply.setBody(_content);
    return true;
}

std::unique_ptr<WebPage> WebPageStatic::clone() const {
    return std::make_unique<WebPageStatic>(*this);
}

}  // namespace Lirra
