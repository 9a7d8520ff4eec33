#pragma once

#include <memory>

#include "Lirra/ProtocolHTTP.h"

namespace Lirra {

class WebClient;

// Something a web server answers a path with. A server keeps its own copy of each page it is
// given (clone()), so pages are small value-like objects.
class WebPage {
public:
    WebPage() = default;
    WebPage(const WebPage&) = default;
    WebPage& operator=(const WebPage&) = delete;
    virtual ~WebPage() = default;

    // Fills reply for request; false when the page could not be made (the server then answers
    // with an error). By default the page does not care who asks.
    virtual bool create(WebClient* client, const ProtocolHTTP::Request& request,
                        ProtocolHTTP::Reply& reply);
    virtual bool create(const ProtocolHTTP::Request& request, ProtocolHTTP::Reply& reply);
    virtual std::unique_ptr<WebPage> clone() const = 0;
};

}  // namespace Lirra
