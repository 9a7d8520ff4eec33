#pragma once

#include <chrono>
#include <memory>
#include <optional>

#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>

#include "Lirra/WebClient.h"

namespace Lirra {

class PolledWebServer;
class WebServer;

// One client of a PolledWebServer: waits for a request, reads its header, then its body, has
// the server answer it, writes the reply and, if both sides want it, waits for the next. Each
// of these steps has its own deadline. Kept alive by its pending operations; when the last one
// ends without starting another, the connection goes.
class WebConnection : public WebClient, public std::enable_shared_from_this<WebConnection> {
public:
    using Parser = boost::beast::http::request_parser<boost::beast::http::string_body>;
    using Response = boost::beast::http::response<boost::beast::http::string_body>;
    using Clock = std::chrono::steady_clock;

    // What the connection is doing, from the most to the least useful to drop when room is
    // needed.
    enum class Phase { KeptAlive, Reading, Writing };

    WebConnection(PolledWebServer& server, boost::asio::ip::tcp::socket socket);
    ~WebConnection() override;

    void start();
    // Closes the socket; pending operations end with an error and start nothing new.
    void stop();
    bool stopped() const { return _stopped; }

    Phase phase() const { return _phase; }
    // Since when the connection has waited for the request it is reading (for KeptAlive and
    // Reading) or has been writing its reply.
    Clock::time_point since() const { return _since; }

    // The request handling without a socket, shared with anything that drives it from bytes.
    // The status with which a request that could not be read is refused; 0 when there is
    // nobody left to answer.
    static int refusalStatus(const boost::beast::error_code& error);
    // The reply of server to a request read whole.
    static void makeAnswer(WebServer& server, WebClient* client,
                           const boost::beast::http::request<boost::beast::http::string_body>& in,
                           Response& out);
    // The reply refusing a request with status; the connection closes after it.
    static void makeRefusal(int status, Response& out);

private:
    void readRequest();
    void onFirstBytes(boost::beast::error_code error, std::size_t bytes);
    void readHeader();
    void onHeader(boost::beast::error_code error);
    void onRead(boost::beast::error_code error);
    void fail(boost::beast::error_code error);
    void answer();
    // Answers a request that could not be read, then closes.
    void refuse(int status);
    void writeReply();
    void onWrite(boost::beast::error_code error);
    // After the last reply: reads and drops what the client still sends, until it closes or
    // the deadline passes. Closing with unread bytes would reset the connection, and the
    // reset can destroy the reply before the client has read it.
    void linger();

    PolledWebServer& _server;
    boost::beast::tcp_stream _stream;
    boost::beast::flat_buffer _buffer;
    std::optional<Parser> _parser;
    Response _response;
    Phase _phase = Phase::Reading;
    Clock::time_point _since;
    bool _stopped = false;
    char _discard[1024];
};

}  // namespace Lirra
