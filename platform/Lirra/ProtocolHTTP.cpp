#include "Lirra/ProtocolHTTP.h"

#include <algorithm>
#include <cctype>

namespace Lirra {

bool ProtocolHTTP::sameName(const std::string& a, const std::string& b) {
    return a.size() == b.size() &&
           std::equal(a.begin(), a.end(), b.begin(), [](unsigned char x, unsigned char y) {
               return std::tolower(x) == std::tolower(y);
           });
}

ProtocolHTTP::Request::Request(std::string method, const std::string& target, Fields fields,
                               std::string body)
    : _method(std::move(method)),
      _target(target),
      _fields(std::move(fields)),
      _body(std::move(body)) {
    const auto mark = target.find('?');
    _path = target.substr(0, mark);
    if (mark != std::string::npos)
        _query = target.substr(mark + 1);
}

std::string ProtocolHTTP::Request::field(const std::string& name) const {
    for (const auto& f : _fields)
        if (sameName(f.first, name))
            return f.second;
    return {};
}

void ProtocolHTTP::Reply::setHeader(const std::string& name, const std::string& value) {
    for (auto& f : _headers)
        if (sameName(f.first, name)) {
            f.second = value;
            return;
        }
    _headers.emplace_back(name, value);
}

std::string ProtocolHTTP::Reply::header(const std::string& name) const {
    for (const auto& f : _headers)
        if (sameName(f.first, name))
            return f.second;
    return {};
}

}  // namespace Lirra
