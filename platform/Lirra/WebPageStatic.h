#pragma once

#include <string>

#include "Lirra/WebPage.h"

namespace Lirra {

// Fixed content: the same bytes, content type and status for every request.
class WebPageStatic : public WebPage {
public:
    WebPageStatic(std::string contentType, std::string content, int status = 200)
        : _contentType(std::move(contentType)), _content(std::move(content)), _status(status) {}

    using WebPage::create;
    bool create(const ProtocolHTTP::Request& request, ProtocolHTTP::Reply& reply) override;
    std::unique_ptr<WebPage> clone() const override;

    const std::string& contentType() const { return _contentType; }
    const std::string& content() const { return _content; }
    int status() const { return _status; }

private:
    std::string _contentType;
    std::string _content;
    int _status;
};

}  // namespace Lirra
