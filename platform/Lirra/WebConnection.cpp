#include "Lirra/WebConnection.h"

#include <algorithm>
#include <utility>

#include "Lirra/PolledWebServer.h"
#include "Lirra/ProtocolHTTP.h"

namespace Lirra {

namespace beast = boost::beast;
namespace http = beast::http;
using boost::asio::ip::tcp;

namespace {

SocketAddress remoteOf(const tcp::socket& socket) {
    boost::system::error_code error;
    const tcp::endpoint peer = socket.remote_endpoint(error);
    if (error)
        return {};
    return {peer.address().to_string(), peer.port()};
}

// What one read asks for while the connection waits for a request to begin.
constexpr std::size_t firstRead = 2048;
// A buffer grown beyond this by a large request is given back before the next one.
constexpr std::size_t keptCapacity = 16 * 1024;
// How long a refused or finished client may go on sending before the connection is closed.
constexpr std::chrono::milliseconds lingerLimit{2000};

}  // namespace

WebConnection::WebConnection(PolledWebServer& server, tcp::socket socket)
    : WebClient(remoteOf(socket)),
      _server(server),
      _stream(std::move(socket)),
      // Room for a request at its limits and a little of the next one pipelined behind it.
      _buffer(server.headerLimit() + server.bodyLimit() + firstRead),
      _since(Clock::now()) {
    boost::system::error_code ignored;
    // Replies go out in one write; waiting to coalesce them only adds latency.
    _stream.socket().set_option(tcp::no_delay(true), ignored);
    _server.attach(this);
}

WebConnection::~WebConnection() {
    _server.detach(this);
}

void WebConnection::start() {
    readHeader();
}

void WebConnection::stop() {
    _stopped = true;
    _stream.close();
}

int WebConnection::refusalStatus(const beast::error_code& error) {
    if (error == http::error::header_limit)
        return 431;
    if (error == http::error::body_limit || error == http::error::buffer_overflow)
        return 413;
    // A malformed request; a partial one means the client has gone already.
    if (error.category() == http::make_error_code(http::error::bad_target).category() &&
        error != http::error::partial_message && error != http::error::end_of_stream)
        return 400;
    return 0;  // timed out, reset or closed: nobody to answer
}

void WebConnection::makeAnswer(WebServer& server, WebClient* client,
                               const http::request<http::string_body>& in, Response& out) {
    ProtocolHTTP::Fields fields;
    for (const auto& field : in)
        fields.emplace_back(std::string(field.name_string()), std::string(field.value()));
    const ProtocolHTTP::Request request(std::string(in.method_string()), std::string(in.target()),
                                        std::move(fields), in.body());
    ProtocolHTTP::Reply reply;
    server.serve(client, request, reply);

    out = {};
    out.version(in.version());
    out.result(static_cast<unsigned>(reply.status()));
    if (!server.name().empty())
        out.set(http::field::server, server.name());
    for (const auto& field : reply.headers())
        out.set(field.first, field.second);
    out.keep_alive(in.keep_alive());
    if (in.method() == http::verb::head) {
        out.content_length(reply.body().size());
    } else {
        out.body() = std::move(reply.body());
        out.prepare_payload();
    }
}

void WebConnection::makeRefusal(int status, Response& out) {
    ProtocolHTTP::Reply reply;
    WebServer::errorPage(status, "", reply);
    out = {};
    out.result(static_cast<unsigned>(status));
    for (const auto& field : reply.headers())
        out.set(field.first, field.second);
    out.keep_alive(false);
    out.body() = std::move(reply.body());
    out.prepare_payload();
}

// Between requests the connection is idle: the next must begin within the idle limit. Bytes
// already here (a pipelined request) begin it at once.
void WebConnection::readRequest() {
    if (_buffer.capacity() > keptCapacity && _buffer.size() <= keptCapacity)
        _buffer.shrink_to_fit();
    _since = Clock::now();
    if (_buffer.size() > 0)
        return readHeader();
    _phase = Phase::KeptAlive;
    _stream.expires_after(_server.idleTimeout());
    _stream.async_read_some(
        _buffer.prepare(firstRead),
        [self = shared_from_this()](beast::error_code error, std::size_t bytes) {
            self->onFirstBytes(error, bytes);
        });
}

void WebConnection::onFirstBytes(beast::error_code error, std::size_t bytes) {
    if (error)
        return;  // idle too long, closed or reset: the connection goes quietly
    _buffer.commit(bytes);
    _since = Clock::now();
    readHeader();
}

// The header has a short deadline of its own, the whole request the longer one; trickling
// bytes extends neither.
void WebConnection::readHeader() {
    _phase = Phase::Reading;
    _parser.emplace();
    _parser->header_limit(static_cast<std::uint32_t>(_server.headerLimit()));
    _parser->body_limit(_server.bodyLimit());
    _stream.expires_at(_since + std::min(_server.headerTimeout(), _server.timeout()));
    http::async_read_header(_stream, _buffer, *_parser,
                            [self = shared_from_this()](beast::error_code error, std::size_t) {
                                self->onHeader(error);
                            });
}

void WebConnection::onHeader(beast::error_code error) {
    if (error)
        return fail(error);
    if (_parser->is_done())
        return answer();
    _stream.expires_at(_since + _server.timeout());
    http::async_read(
        _stream, _buffer, *_parser,
        [self = shared_from_this()](beast::error_code error, std::size_t) { self->onRead(error); });
}

void WebConnection::onRead(beast::error_code error) {
    if (error)
        return fail(error);
    answer();
}

void WebConnection::fail(beast::error_code error) {
    if (error == http::error::end_of_stream) {
        _stream.socket().shutdown(tcp::socket::shutdown_send, error);
        return;
    }
    if (_stopped)
        return;
    if (const int status = refusalStatus(error))
        refuse(status);
}

void WebConnection::answer() {
    makeAnswer(_server, this, _parser->get(), _response);
    _parser.reset();
    writeReply();
}

void WebConnection::refuse(int status) {
    makeRefusal(status, _response);
    _parser.reset();
    writeReply();
}

void WebConnection::writeReply() {
    _phase = Phase::Writing;
    _since = Clock::now();
    _stream.expires_after(_server.timeout());
    http::async_write(_stream, _response,
                      [self = shared_from_this()](beast::error_code error, std::size_t) {
                          self->onWrite(error);
                      });
}

void WebConnection::onWrite(beast::error_code error) {
    if (error)
        return;
    if (!_response.keep_alive()) {
        _stream.socket().shutdown(tcp::socket::shutdown_send, error);
        _stream.expires_after(std::min(_server.timeout(), lingerLimit));
        return linger();
    }
    _response = {};
    readRequest();
}

void WebConnection::linger() {
    _stream.async_read_some(boost::asio::buffer(_discard),
                            [self = shared_from_this()](beast::error_code error, std::size_t) {
                                if (!error && !self->_stopped)
                                    self->linger();
                            });
}

}  // namespace Lirra
