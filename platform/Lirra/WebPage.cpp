#include "Lirra/WebPage.h"

namespace Lirra {

bool WebPage::create(WebClient*, const ProtocolHTTP::Request& request, ProtocolHTTP::Reply& reply) {
    return create(request, reply);
}

bool WebPage::create(const ProtocolHTTP::Request&, ProtocolHTTP::Reply&) {
    return false;
}

}  // namespace Lirra
