#include "Lirra/WebServer.h"

#include <ctime>
#include <exception>

#include "Lirra/WebClient.h"

namespace Lirra {

namespace {

const char* reason(int status) {
    switch (status) {
        case 400:
            return "Bad Request";
        case 404:
            return "Not Found";
        case 405:
            return "Method Not Allowed";
        case 413:
            return "Payload Too Large";
        case 431:
            return "Request Header Fields Too Large";
        case 500:
            return "Internal Server Error";
        case 503:
            return "Service Unavailable";
        default:
            return "Error";
    }
}

// A page that throws has failed like one that returns false: the request is answered with an
// error and the server goes on.
bool createPage(WebPage& page, WebClient* client, const ProtocolHTTP::Request& request,
                ProtocolHTTP::Reply& reply) {
    try {
        return page.create(client, request, reply);
    } catch (const std::exception&) {
        return false;
    }
}

}  // namespace

void WebServer::addPage(const std::string& path, const WebPage& page) {
    _pages[path] = page.clone();
}

void WebServer::setLogSize(int size) {
    _logSize = size < 0 ? 0 : size;
    while (_log.size() > static_cast<std::size_t>(_logSize))
        _log.pop_front();
}

std::string WebServer::escapeHtml(const std::string& text) {
    std::string out;
    out.reserve(text.size());
    for (char c : text)
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            default:
                out += c;
        }
    return out;
}

void WebServer::errorPage(int status, const std::string& detail, ProtocolHTTP::Reply& reply) {
    const std::string title = std::to_string(status) + " " + reason(status);
    reply.setStatus(status);
    reply.setHeader("Content-Type", "text/html");
    reply.setBody("<HTML>\n  <HEAD><TITLE>" + title + "</TITLE></HEAD>\n  <BODY><H1>" + title +
                  "</H1><P>" + escapeHtml(detail) + "</P></BODY>\n</HTML>\n");
}

void WebServer::serve(WebClient* client, const ProtocolHTTP::Request& request,
                      ProtocolHTTP::Reply& reply) {
    const auto page = _pages.find(request.path());
    if (page == _pages.end()) {
        errorPage(404, request.path(), reply);
    } else if (request.method() != "GET" && request.method() != "HEAD") {
        errorPage(405, request.method(), reply);
        reply.setHeader("Allow", "GET, HEAD");
    } else if (!createPage(*page->second, client, request, reply)) {
        reply = ProtocolHTTP::Reply();
        errorPage(500, request.path(), reply);
    }
    if (_logSize == 0)
        return;
    if (_log.size() == static_cast<std::size_t>(_logSize))
        _log.pop_front();
    _log.push_back({std::chrono::system_clock::now(), client ? client->remote().toString() : "",
                    request.method(), request.target(), reply.status(), reply.body().size()});
}

bool WebServer::createLogPage(const ProtocolHTTP::Request&, ProtocolHTTP::Reply& reply) {
    const std::string title = escapeHtml(_name.empty() ? "Web Server" : _name) + " Request Log";
    std::string body = "<HTML>\n  <HEAD>\n    <TITLE>" + title +
                       "</TITLE>\n    <LINK REL=\"stylesheet\" TYPE=\"text/css\" "
                       "HREF=\"/Style.css\">\n  </HEAD>\n  <BODY>\n    <H1>" +
                       title + "</H1>\n";
    if (_log.empty()) {
        body += "    <P>No requests logged (the log keeps " + std::to_string(_logSize) + ").</P>\n";
    } else {
        body +=
            "    <TABLE border=\"1\">\n    <TR><TH>Time</TH><TH>Client</TH><TH>Method</TH>"
            "<TH>Target</TH><TH>Status</TH><TH>Bytes</TH></TR>\n";
        for (auto entry = _log.rbegin(); entry != _log.rend(); ++entry) {
            const std::time_t t = std::chrono::system_clock::to_time_t(entry->time);
            std::tm tm{};
            gmtime_r(&t, &tm);
            char when[32];
            std::strftime(when, sizeof when, "%Y-%m-%d %H:%M:%S", &tm);
            body += "    <TR><TD>" + std::string(when) + "</TD><TD>" + escapeHtml(entry->client) +
                    "</TD><TD>" + escapeHtml(entry->method) + "</TD><TD>" +
                    escapeHtml(entry->target) + "</TD><TD>" + std::to_string(entry->status) +
                    "</TD><TD>" + std::to_string(entry->bytes) + "</TD></TR>\n";
        }
        body += "    </TABLE>\n";
    }
    body += "  </BODY>\n</HTML>\n";
    reply.setStatus(200);
    reply.setHeader("Content-Type", "text/html");
    reply.setBody(std::move(body));
    return true;
}

}  // namespace Lirra
