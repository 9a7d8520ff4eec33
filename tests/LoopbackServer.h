#pragma once

#include <chrono>
#include <string>
#include <thread>

#include <boost/asio.hpp>

namespace KeloTest {

// Serves one connection on 127.0.0.1: reads the request head, then writes the canned response
// and closes, or with an empty response holds the connection without a word until the client
// hangs up. Gives up by itself after a few seconds.
class LoopbackServer {
public:
    explicit LoopbackServer(std::string response)
        : _port(_acceptor.local_endpoint().port()), _response(std::move(response)) {
        _thread = std::thread([this] { serve(); });
    }
    ~LoopbackServer() { stop(); }

    std::string url(const std::string& path) const {
        return "http://127.0.0.1:" + std::to_string(_port) + path;
    }

    // Returns the request head received, if any.
    std::string stop() {
        _io.stop();
        if (_thread.joinable())
            _thread.join();
        return _request;
    }

private:
    void serve() {
        namespace asio = boost::asio;
        _acceptor.async_accept(_socket, [&](boost::system::error_code ec) {
            if (!ec)
                asio::async_read_until(_socket, _in, "\r\n\r\n", [&](auto ec, std::size_t size) {
                    if (ec)
                        return;
                    _request.assign(asio::buffers_begin(_in.data()),
                                    asio::buffers_begin(_in.data()) + size);
                    _in.consume(size);
                    if (_response.empty())
                        asio::async_read(_socket, _in, [](auto, std::size_t) {});
                    else
                        asio::async_write(_socket, asio::buffer(_response),
                                          [&](auto, std::size_t) { _socket.close(); });
                });
        });
        _io.run_for(std::chrono::seconds(5));
    }

    boost::asio::io_context _io;
    boost::asio::ip::tcp::acceptor _acceptor{_io, {boost::asio::ip::address_v4::loopback(), 0}};
    boost::asio::ip::tcp::socket _socket{_io};
    boost::asio::streambuf _in;
    unsigned short _port;
    std::string _response, _request;
    std::thread _thread;
};

}  // namespace KeloTest
