#pragma once

#include <memory>
#include <optional>

#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>

#include "Lirra/WebClient.h"

namespace Lirra {

class PolledWebServer;

// One client of a PolledWebServer: reads a request, has the server answer it, writes the reply
// and, if both sides want it, waits for the next. Kept alive by its pending operations; when
// the last one ends without starting another, the connection goes.
class WebConnection : public WebClient, public std::enable_shared_from_this<WebConnection> {
public:
    WebConnection(PolledWebServer& server, boost::asio::ip::tcp::socket socket);
    ~WebConnection() override;

    void start();
    // Closes the socket; pending operations end with an error and start nothing new.
    void stop();

private:
    void readRequest();
    void onRead(boost::beast::error_code error);
    void answer();
    // Answers a request that could not be read, then closes.
    void refuse(int status);
    void writeReply();
    void onWrite(boost::beast::error_code error);

    PolledWebServer& _server;
    boost::beast::tcp_stream _stream;
    boost::beast::flat_buffer _buffer;
    std::optional<boost::beast::http::request_parser<boost::beast::http::string_body>> _parser;
    boost::beast::http::response<boost::beast::http::string_body> _response;
};

}  // namespace Lirra
