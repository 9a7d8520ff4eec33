// Feeds arbitrary bytes to the polled web server's request path as one connection would receive
// them: the parser with the server's limits, then the server's answer or refusal, pipelined
// requests one after the other until one closes the connection. Besides not crashing, every
// reply must be a whole HTTP/1.1 response and no request may outgrow the server's limits.
#include <cstdint>
#include <sstream>
#include <string>
#include <string_view>

#include <Lirra/PolledWebServer.h>
#include <Lirra/WebConnection.h>
#include <Lirra/WebPageObject.h>
#include <Lirra/WebPageRedirection.h>
#include <Lirra/WebPageStatic.h>
#include <osg/Log.h>

namespace {

namespace http = boost::beast::http;

// The pages of a status server: static, redirecting and generated from the request log, which
// shows every request target the server has answered.
Lirra::PolledWebServer& server() {
    static Lirra::PolledWebServer* const instance = [] {
        auto* s = new Lirra::PolledWebServer();
        s->addPage("/", Lirra::WebPageRedirection("/index.html"));
        s->addPage("/index.html", Lirra::WebPageStatic("text/html", "<HTML>index</HTML>\n"));
        s->addPage("/log.html",
                   Lirra::WebPageObject<Lirra::WebServer>(s, &Lirra::WebServer::createLogPage));
        s->setName("Kelo");
        s->setLogSize(8);
        return s;
    }();
    return *instance;
}

void check(bool condition) {
    if (!condition)
        __builtin_trap();
}

// Writes the reply as the connection would and checks that it is a whole response.
void send(const Lirra::WebConnection::Response& response) {
    std::ostringstream out;
    out << response;
    const std::string text = out.str();
    check(text.compare(0, 9, "HTTP/1.1 ") == 0 || text.compare(0, 9, "HTTP/1.0 ") == 0);
    check(text.find("\r\n\r\n") != std::string::npos);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    osg::Log::the().setLevel(osg::LOG_FATAL);
    server().setRequestLimits(1024, 4096);  // small, so that the limits are reached often
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Lirra::PolledWebServer& s = server();
    Lirra::WebClient client({"127.0.0.1", 40000});
    std::string_view rest(reinterpret_cast<const char*>(data), size);
    for (;;) {
        Lirra::WebConnection::Parser parser;
        parser.header_limit(static_cast<std::uint32_t>(s.headerLimit()));
        parser.body_limit(s.bodyLimit());
        boost::beast::error_code error;
        while (!parser.is_done() && !error) {
            std::size_t used = 0;
            if (!rest.empty()) {
                used = parser.put(boost::asio::buffer(rest.data(), rest.size()), error);
                rest.remove_prefix(used);
                if (error == http::error::need_more)
                    error = {};
            }
            // Nothing more taken from what there is: the client has stopped sending.
            if (!error && used == 0 && !parser.is_done()) {
                parser.put_eof(error);
                if (!error && !parser.is_done())
                    error = http::error::partial_message;
            }
        }
        Lirra::WebConnection::Response response;
        if (error) {
            const int status = Lirra::WebConnection::refusalStatus(error);
            if (status != 0) {
                Lirra::WebConnection::makeRefusal(status, response);
                check(!response.keep_alive());
                send(response);
            }
            return 0;
        }
        const auto& request = parser.get();
        check(request.body().size() <= s.bodyLimit());
        Lirra::WebConnection::makeAnswer(s, &client, request, response);
        send(response);
        if (!response.keep_alive() || rest.empty())
            return 0;
    }
}
