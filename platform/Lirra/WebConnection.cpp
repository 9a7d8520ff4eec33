#include "Lirra/WebConnection.h"

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

}  // namespace

WebConnection::WebConnection(PolledWebServer& server, tcp::socket socket)
    : WebClient(remoteOf(socket)), _server(server), _stream(std::move(socket)) {
    boost::system::error_code ignored;
    // Replies go out in one write; waiting to coalesce them only adds latency.
    _stream.socket().set_option(tcp::no_delay(true), ignored);
    _server.attach(this);
}

WebConnection::~WebConnection() {
    _server.detach(this);
}

void WebConnection::start() {
    readRequest();
}

void WebConnection::stop() {
    _stream.close();
}

void WebConnection::readRequest() {
    _parser.emplace();
    _parser->header_limit(static_cast<std::uint32_t>(_server.headerLimit()));
    _parser->body_limit(_server.bodyLimit());
    // One deadline for the whole request: trickling bytes does not extend it.
    _stream.expires_after(_server.timeout());
    http::async_read(
        _stream, _buffer, *_parser,
        [self = shared_from_this()](beast::error_code error, std::size_t) { self->onRead(error); });
}

void WebConnection::onRead(beast::error_code error) {
    if (error == http::error::end_of_stream) {
        _stream.socket().shutdown(tcp::socket::shutdown_send, error);
        return;
    }
    if (error == http::error::header_limit)
        return refuse(431);
    if (error == http::error::body_limit)
        return refuse(413);
    // A malformed request; a partial one means the client has gone already.
    if (error && error.category() == http::make_error_code(http::error::bad_target).category() &&
        error != http::error::partial_message)
        return refuse(400);
    if (error)
        return;  // timed out, reset or closed: nobody to answer
    answer();
}

void WebConnection::answer() {
    const auto& in = _parser->get();
    ProtocolHTTP::Fields fields;
    for (const auto& field : in)
        fields.emplace_back(std::string(field.name_string()), std::string(field.value()));
    const ProtocolHTTP::Request request(std::string(in.method_string()), std::string(in.target()),
                                        std::move(fields), in.body());
    ProtocolHTTP::Reply reply;
    _server.serve(this, request, reply);

    _response = {};
    _response.version(in.version());
    _response.result(static_cast<unsigned>(reply.status()));
    if (!_server.name().empty())
        _response.set(http::field::server, _server.name());
    for (const auto& field : reply.headers())
        _response.set(field.first, field.second);
    _response.keep_alive(in.keep_alive());
    if (in.method() == http::verb::head) {
        _response.content_length(reply.body().size());
    } else {
        _response.body() = std::move(reply.body());
        _response.prepare_payload();
    }
    _parser.reset();
    writeReply();
}

void WebConnection::refuse(int status) {
    ProtocolHTTP::Reply reply;
    WebServer::errorPage(status, "", reply);
    _response = {};
    _response.result(static_cast<unsigned>(status));
    for (const auto& field : reply.headers())
        _response.set(field.first, field.second);
    _response.keep_alive(false);
    _response.body() = std::move(reply.body());
    _response.prepare_payload();
    _parser.reset();
    writeReply();
}

void WebConnection::writeReply() {
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
        return;
    }
    _response = {};
    readRequest();
}

}  // namespace Lirra
