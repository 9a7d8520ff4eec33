#include "Lirra/WebPageRedirection.h"

#include "Lirra/WebServer.h"

namespace Lirra {

bool WebPageRedirection::create(const ProtocolHTTP::Request&, ProtocolHTTP::Reply& reply) {
    reply.setStatus(302);
    reply.setHeader("Location", _location);
    reply.setHeader("Content-Type", "text/html");
    const std::string target = WebServer::escapeHtml(_location);
    reply.setBody("<HTML><BODY><A HREF=\"" + target + "\">" + target + "</A></BODY></HTML>\n");
    return true;
}

std::unique_ptr<WebPage> WebPageRedirection::clone() const {
    return std::make_unique<WebPageRedirection>(*this);
}

}  // namespace Lirra
