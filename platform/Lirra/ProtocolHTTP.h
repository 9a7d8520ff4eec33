#pragma once

#include <string>
#include <utility>
#include <vector>

namespace Lirra {

// What a web page sees of HTTP: the request as received and the reply it fills in. The wire
// format itself is the web server's business.
class ProtocolHTTP {
public:
    using Fields = std::vector<std::pair<std::string, std::string>>;

    class Request {
    public:
        Request() = default;
        // target is the request target as sent: the path, then possibly "?" and a query.
        Request(std::string method, const std::string& target, Fields fields = {},
                std::string body = {});

        const std::string& method() const { return _method; }
        const std::string& target() const { return _target; }
        const std::string& path() const { return _path; }
        const std::string& query() const { return _query; }
        const Fields& fields() const { return _fields; }
        const std::string& body() const { return _body; }
        // The value of the first header field of that name (case-insensitive), or "".
        std::string field(const std::string& name) const;

    private:
        std::string _method;
        std::string _target;
        std::string _path;
        std::string _query;
        Fields _fields;
        std::string _body;
    };

    class Reply {
    public:
        int status() const { return _status; }
        void setStatus(int status) { _status = status; }
        // Replaces a field of the same name (case-insensitive) or adds one.
        void setHeader(const std::string& name, const std::string& value);
        // The value of that header field, or "".
        std::string header(const std::string& name) const;
        const Fields& headers() const { return _headers; }
        const std::string& body() const { return _body; }
        std::string& body() { return _body; }
        void setBody(std::string body) { _body = std::move(body); }

    private:
        int _status = 200;
        Fields _headers;
        std::string _body;
    };

    // Case-insensitive comparison of header field names.
    static bool sameName(const std::string& a, const std::string& b);
};

}  // namespace Lirra
