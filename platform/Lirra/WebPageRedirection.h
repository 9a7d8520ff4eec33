#pragma once

#include <string>

#include "Lirra/WebPage.h"

namespace Lirra {

// Sends the client elsewhere: "302 Found" with a Location field.
class WebPageRedirection : public WebPage {
public:
    explicit WebPageRedirection(std::string location) : _location(std::move(location)) {}

    using WebPage::create;
    bool create(const ProtocolHTTP::Request& request, ProtocolHTTP::Reply& reply) override;
    std::unique_ptr<WebPage> clone() const override;

    const std::string& location() const { return _location; }

private:
    std::string _location;
};

}  // namespace Lirra
