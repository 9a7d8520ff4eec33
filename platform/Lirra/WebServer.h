#pragma once

#include <chrono>
#include <deque>
#include <map>
#include <memory>
#include <string>

#include "Lirra/ProtocolHTTP.h"
#include "Lirra/WebPage.h"

namespace Lirra {

class WebClient;

// Answers requests from the pages registered under exact paths, with error pages for the rest,
// and keeps a short log of the requests answered. The transport is a derived class's.
class WebServer {
public:
    // One answered request.
    struct LogEntry {
        std::chrono::system_clock::time_point time;
        std::string client;
        std::string method;
        std::string target;
        int status;
        std::size_t bytes;
    };

    WebServer() = default;
    WebServer(const WebServer&) = delete;
    WebServer& operator=(const WebServer&) = delete;
    virtual ~WebServer() = default;

    // Keeps its own copy of page; a later page for the same path replaces it.
    void addPage(const std::string& path, const WebPage& page);
    bool hasPage(const std::string& path) const { return _pages.count(path) != 0; }

    // The server's name: the Server field of each reply and the log page's title.
    void setName(const std::string& name) { _name = name; }
    const std::string& name() const { return _name; }

    // How many requests the log keeps; 0 keeps none.
    void setLogSize(int size);
    int logSize() const { return _logSize; }
    const std::deque<LogEntry>& log() const { return _log; }

    // The log as an HTML page.
    bool createLogPage(const ProtocolHTTP::Request& request, ProtocolHTTP::Reply& reply);

    // Fills reply for request: the registered page's answer for GET and HEAD, otherwise an
    // error page (404 unknown path, 405 other methods, 500 when the page fails or throws).
    // Logs it.
    void serve(WebClient* client, const ProtocolHTTP::Request& request, ProtocolHTTP::Reply& reply);

    // Text made safe to put into HTML: & < > " as entities.
    static std::string escapeHtml(const std::string& text);
    // A small HTML page for an error status.
    static void errorPage(int status, const std::string& detail, ProtocolHTTP::Reply& reply);

private:
    std::map<std::string, std::unique_ptr<WebPage>> _pages;
    std::string _name;
    int _logSize = 100;
    std::deque<LogEntry> _log;
};

}  // namespace Lirra
