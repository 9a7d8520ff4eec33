#pragma once

#include <memory>

#include "Lirra/WebPage.h"

namespace Lirra {

// A member function of an object as a page: either one taking the request and the reply, or
// one that also takes the asking client. The object must outlive the server that serves it.
template <typename T>
class WebPageObject : public WebPage {
public:
    using Function = bool (T::*)(const ProtocolHTTP::Request&, ProtocolHTTP::Reply&);
    using ClientFunction = bool (T::*)(WebClient*, const ProtocolHTTP::Request&,
                                       ProtocolHTTP::Reply&);

    WebPageObject(T* object, Function function) : _object(object), _function(function) {}
    WebPageObject(T* object, ClientFunction function)
        : _object(object), _clientFunction(function) {}

    using WebPage::create;
    bool create(WebClient* client, const ProtocolHTTP::Request& request,
                ProtocolHTTP::Reply& reply) override {
        if (_function)
            return (_object->*_function)(request, reply);
        return _clientFunction && (_object->*_clientFunction)(client, request, reply);
    }
    bool create(const ProtocolHTTP::Request& request, ProtocolHTTP::Reply& reply) override {
        return create(nullptr, request, reply);
    }
    std::unique_ptr<WebPage> clone() const override {
        return std::make_unique<WebPageObject>(*this);
    }

private:
    T* _object;
    Function _function = nullptr;
    ClientFunction _clientFunction = nullptr;
};

}  // namespace Lirra
