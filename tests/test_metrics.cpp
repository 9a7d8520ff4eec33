// /metrics on loopback: text held to the Prometheus format rules our output keeps, and numbers
// that move with the scene, frames, client-server traffic, refusals and kelo-server --web.

#include <cmath>
#include <regex>
#include <set>
#include <sstream>
#include <thread>

#include <boost/asio.hpp>

#include <Kelo/ClientBackend.h>
#include <Kelo/Exposition.h>
#include <Kelo/Server.h>
#include <Kelo/WebBackend.h>
#include <Lirra/PolledWebServer.h>

#include "HttpTest.h"
#include "support.h"

using namespace KeloTest;
using namespace std::chrono_literals;
using ::testing::HasSubstr;
using ::testing::Not;

namespace asio = boost::asio;

namespace {

// The lines of text that break the rules our /metrics keeps: each family named kelo_... once,
// its HELP then its TYPE line, counters and only counters named ..._total, then only its own
// samples (a histogram's _bucket, _sum and _count), each series once, labels escaped.
std::vector<std::string> badLines(const std::string& text) {
    static const std::regex help("# HELP (kelo_\\w+) \\S.*"),
        type("# TYPE (\\w+) (counter|gauge|histogram)"),
        sample(R"((\w+)(\{\w+="([^"\\]|\\[\\"n])*"(,\w+="([^"\\]|\\[\\"n])*")*\})? )"
               R"((\d[0-9.e+-]*|NaN|[+-]Inf))");
    std::vector<std::string> bad;
    std::istringstream lines(text);
    std::string line, last, family, kind;
    std::set<std::string> seen;
    for (std::smatch m; std::getline(lines, line); last = line) {
        bool good = false;
        if (std::regex_match(line, m, help)) {
            good = seen.insert("#" + m[1].str()).second;
            family.clear();
        } else if (std::regex_match(line, m, type)) {
            family = m[1];
            kind = m[2];
            good = last.rfind("# HELP " + family + " ", 0) == 0 &&
                   (kind == "counter") == std::regex_match(family, std::regex(".*_total"));
        } else if (std::regex_match(line, m, sample) && !family.empty()) {
            const std::string own = kind == "histogram" ? "_(bucket|sum|count)" : "";
            good = std::regex_match(m[1].str(), std::regex(family + own)) &&
                   seen.insert(line.substr(0, line.rfind(' '))).second;
        }
        if (!good)
            bad.push_back(line);
    }
    if (text.empty() || text.back() != '\n')
        bad.push_back("(no final line feed)");
    return bad;
}

// The value of the sample written exactly as series (its name and labels); NaN when absent.
double value(const std::string& text, const std::string& series) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);)
        if (line.rfind(series + ' ', 0) == 0)
            return std::stod(line.substr(series.size() + 1));
    return NAN;
}

// /metrics from port, fetched while step() runs the worlds' frames on this thread, since the
// pages are made there.
std::string scrape(uint16_t port, const std::function<void()>& step) {
    const Reply reply = whileStepping([port] { return Client(port).get("/metrics"); }, step);
    EXPECT_EQ(reply.result_int(), 200);
    EXPECT_EQ(reply[boost::beast::http::field::content_type],
              "text/plain; version=0.0.4; charset=utf-8");
    EXPECT_THAT(badLines(reply.body()), IsEmpty());
    return reply.body();
}

uint16_t portOf(Kelo::Backend* web) {
    return dynamic_cast<Kelo::WebBackend&>(*web).webServer()->socketAddress().getServicePort();
}

struct Server : Kelo::Server {
    Server() : Kelo::Server(0, "127.0.0.1") { setMulticastEnabled(false); }
    ~Server() override {
        clearWorld();
        deleteAllBackends();
    }
};

}  // namespace

TEST(Metrics, ExpositionEscapesLabelsAndWritesCumulativeHistograms) {
    Kelo::Histogram times;
    for (double seconds : {-1.0, 1e-5, 3e-3, 0.74699, 2.0})  // 2.75 s in all
        times.observe(seconds);
    Kelo::Exposition out;
    out.family("kelo_test_seconds", "histogram", "Odd \\ help\nsecond line");
    out.histogram("kelo_test_seconds", {{"path", "C:\\a \"b\"\nc"}}, times.snapshot());
    std::string want =
        "# HELP kelo_test_seconds Odd \\\\ help\\nsecond line\n"
        "# TYPE kelo_test_seconds histogram\n";
    const std::string path = R"({path="C:\\a \"b\"\nc")";
    // A negative duration counts as 0; each bound holds what equals it.
    const char* bounds[] = {"1e-05", "2.5e-05", "5e-05", "1e-04", "0.00025", "5e-04",
                            "0.001", "0.0025",  "0.005", "0.01",  "0.025",   "0.05",
                            "0.1",   "0.25",    "0.5",   "1",     "+Inf"};
    const int below[] = {2, 2, 2, 2, 2, 2, 2, 2, 3, 3, 3, 3, 3, 3, 3, 4, 5};
    for (int i = 0; i < 17; ++i)
        want += "kelo_test_seconds_bucket" + path + ",le=\"" + bounds[i] + "\"} " +
                std::to_string(below[i]) + "\n";
    want += "kelo_test_seconds_sum" + path + "} 2.75\nkelo_test_seconds_count" + path + "} 5\n";
    EXPECT_EQ(out.text(), want);
    EXPECT_THAT(badLines(out.text()), IsEmpty());
}

TEST(Metrics, WorldGaugesFollowTheSceneAndEveryUpdateIsTimed) {
    Scene world;
    const uint16_t port = portOf(world.addBackend("web", "host=127.0.0.1"));
    const auto step = [&] { world.update(); };
    std::string s = scrape(port, step);
    EXPECT_EQ(value(s, "kelo_sources"), 0);
    EXPECT_EQ(value(s, "kelo_emitters"), 0);
    EXPECT_EQ(value(s, "kelo_backends"), 1);
    EXPECT_THAT(s, Not(HasSubstr("kelo_client_")));  // neither a client backend nor a server
    EXPECT_THAT(s, Not(HasSubstr("kelo_server_")));

    delete world.createSource();
    delete world.createEmitter();
    world.createSource();
    world.createEmitter();
    world.createEmitter();
    const auto before = world.updateTimes().snapshot().count;
    for (int i = 0; i < 40; ++i)
        world.update();
    s = scrape(port, step);
    EXPECT_EQ(value(s, "kelo_sources"), 1);
    EXPECT_EQ(value(s, "kelo_emitters"), 2);
    // The page is made inside an update: that one is not counted yet, those before are.
    const double count = value(s, "kelo_update_duration_seconds_count");
    EXPECT_GE(count, before + 40);
    EXPECT_LT(count, world.updateTimes().snapshot().count);
    EXPECT_EQ(value(s, "kelo_update_duration_seconds_bucket{le=\"+Inf\"}"), count);
    EXPECT_GT(value(s, "kelo_update_duration_seconds_sum"), 0);
}

TEST(Metrics, ClientAndServerCountWhatWentBetweenThemAndWhatWasRefused) {
    Server server;
    const uint16_t serverWeb = portOf(server.addBackend("web", "host=127.0.0.1"));
    Scene app;
    const std::string servers = "servers=127.0.0.1:" + std::to_string(server.port());
    ASSERT_NE(app.addBackend("client", (servers + " multicast=false retry=0.05").c_str()), nullptr);
    const uint16_t appWeb = portOf(app.addBackend("web", "host=127.0.0.1"));
    Kelo::Emitter* emitter = app.createEmitter({"front"});
    const auto step = [&] {
        server.waitForEvents(0.001);
        server.receive(false);
        server.update();
        app.update();
    };
    // The catch-up ends with the emitter's connection.
    ASSERT_TRUE(
        until([&] { return server.receivedEvents(Kelo::SetEmitterConnection) == 1; }, step));

    const std::string a0 = scrape(appWeb, step), s0 = scrape(serverWeb, step);
    const std::string first = "{backend=\"0\"}";
    const std::string moves = "kelo_server_events_received_total{command=\"SetEmitterTransform\"}";
    EXPECT_EQ(value(a0, "kelo_client_servers" + first), 1);
    EXPECT_EQ(value(a0, "kelo_client_catchups_total" + first), 1);
    EXPECT_EQ(value(s0, "kelo_server_clients"), 1);
    // Reset, listener, then the emitter's creation, transform, hull, parameters, connection.
    EXPECT_EQ(value(a0, "kelo_client_events_sent_total" + first), 7);
    EXPECT_EQ(value(s0, moves), 1);  // in the catch-up
    EXPECT_EQ(value(s0, "kelo_server_events_received_total{command=\"ResetWorld\"}"), 1);

    const int n = 25;
    for (int i = 1; i <= n; ++i) {
        const osg::Vec3f at(static_cast<float>(i), 0, 0);
        emitter->setTransform(&at, nullptr);
    }
    ASSERT_TRUE(
        until([&] { return server.receivedEvents(Kelo::SetEmitterTransform) == n + 1; }, step));
    const std::string a1 = scrape(appWeb, step), s1 = scrape(serverWeb, step);
    EXPECT_EQ(value(a1, "kelo_client_events_sent_total" + first), 7 + n);
    EXPECT_GT(value(a1, "kelo_client_sent_bytes_total" + first),
              value(a0, "kelo_client_sent_bytes_total" + first) + n * 20);
    EXPECT_EQ(value(s1, moves), n + 1);
    EXPECT_EQ(value(a1, "kelo_client_servers_dropped_total" + first), 0);

    // A frame past the largest allowed, and one of a type nobody knows, each from a peer of
    // its own: both are dropped, each under its reason.
    LogCapture log(osg::LOG_WARNING);
    for (const std::string& frame :
         {std::string("\0\0\0\x7f\xc8\0", 6), std::string("\4\0\0\0\xe7\3\0\0", 8)}) {
        const auto refused = server.refusals();  // before the network thread can count
        const Socket peer(server.port());
        ASSERT_TRUE(peer.send(std::string("KELO\1\0\0\0", 8) + frame));
        ASSERT_TRUE(until([&] { return server.refusals() != refused; }, step));
    }
    const std::string s2 = scrape(serverWeb, step);
    for (const auto& [reason, count] : {std::pair{"too_large", 1}, {"bad_frame", 1}, {"budget", 0}})
        EXPECT_EQ(value(s2, "kelo_server_refused_total{reason=\"" + std::string(reason) + "\"}"),
                  count)
            << reason;
    EXPECT_TRUE(log.has("unknown event type 999"));
}

// A server that greets and then reads nothing: the client's send queue for it passes the
// send limit and it is dropped, under its own count.
TEST(Metrics, AServerThatFallsBehindIsCountedAsDropped) {
    asio::io_context io;
    asio::ip::tcp::acceptor acceptor(io, {asio::ip::address_v4::loopback(), 0});
    acceptor.set_option(asio::socket_base::receive_buffer_size(4096));
    asio::ip::tcp::socket stalled(io);
    std::thread greet([&] {
        acceptor.accept(stalled);
        uint8_t preamble[8];
        asio::write(stalled, asio::buffer("KELO\1\0\0\0", 8));
        asio::read(stalled, asio::buffer(preamble));
    });
    Scene app;
    LogCapture log(osg::LOG_WARNING);
    const std::string servers =
        "servers=127.0.0.1:" + std::to_string(acceptor.local_endpoint().port());
    auto* client = dynamic_cast<Kelo::ClientBackend*>(
        app.addBackend("client", (servers + " multicast=false sendLimit=65536").c_str()));
    ASSERT_NE(client, nullptr);
    Kelo::Emitter* emitter = app.createEmitter();
    const bool joined = until([&] { return client->servers() == 1; }, [&] { app.update(); });
    greet.join();
    ASSERT_TRUE(joined);
    // At most a million moves, about 40 MB: far more than the socket buffers and the limit.
    int moves = 0;
    EXPECT_TRUE(until([&] { return client->serversDropped() == 1 || moves >= 1000000; },
                      [&] {
                          for (int i = 0; i < 2000; ++i, ++moves) {
                              const osg::Vec3f at(static_cast<float>(moves), 0, 0);
                              emitter->setTransform(&at, nullptr);
                          }
                      }));
    EXPECT_EQ(client->serversDropped(), 1u);
    // The count comes first; the line may follow from the network thread.
    EXPECT_TRUE(until([&] { return log.has("more than 65536 bytes waiting to be sent"); }));
}

#ifdef KELO_SERVER_PROGRAM
namespace {

// kelo-server's exit code and output (both streams); one that starts is stopped after 3 s.
std::pair<int, std::string> run(const std::string& args) {
    return KeloTest::runProgram("timeout --preserve-status 3 " KELO_SERVER_PROGRAM
                                " --host 127.0.0.1 --no-multicast -b silent " +
                                args);
}

}  // namespace

TEST(Metrics, KeloServerRefusesBadWebOptions) {
    for (const auto& [args, message] : std::vector<std::pair<std::string, std::string>>{
             {"--web 0", "kelo-server: --web: 0 is not in 1..65535\n"},
             {"--web http", "kelo-server: --web: \"http\" is not a whole number\n"},
             {"--web 8380 --web-host localhost",
              "kelo-server: --web-host: \"localhost\" is not a numeric IPv4 or IPv6 address\n"},
             {"--web 8380 --web-host 239.1.2.3",
              "kelo-server: --web-host: 239.1.2.3 is a multicast address, not a local one\n"},
             {"--web-host 127.0.0.1", "kelo-server: --web-host requires --web\n"},
         }) {
        const auto [code, text] = run(args);
        EXPECT_EQ(code, 2) << args;
        EXPECT_EQ(text, message) << args;
    }
}

// kelo-server --web on a port the system just gave up: its log line names the host and the
// address, and /metrics answers from the server, while the test keeps the server running.
TEST(Metrics, KeloServerWebServesTheServersMetrics) {
    asio::io_context io;
    const uint16_t wanted =
        asio::ip::tcp::acceptor(io, {asio::ip::address_v4::loopback(), 0}).local_endpoint().port();
    auto server =
        std::async(std::launch::async, [&] { return run("--web " + std::to_string(wanted)); });
    std::string body;
    const bool fetched = until(
        [&] {
            try {
                body = Client(wanted).get("/metrics").body();
                return true;
            } catch (const std::exception&) {
                return false;
            }
        },
        [] { std::this_thread::sleep_for(20ms); }, 2500ms);
    const auto [code, text] = server.get();  // stopped by SIGTERM after 3 s
    EXPECT_EQ(code, 0) << text;
    EXPECT_THAT(text,
                HasSubstr("Web server open ok: http://" + Lirra::InetAddress::getLocalHostName() +
                          ":" + std::to_string(wanted) + " (listening on 127.0.0.1)\n"));
    ASSERT_TRUE(fetched) << text;
    EXPECT_THAT(badLines(body), IsEmpty());
    EXPECT_EQ(value(body, "kelo_backends"), 2);  // silent and web
    EXPECT_EQ(value(body, "kelo_server_clients"), 0);
    EXPECT_EQ(value(body, "kelo_server_events_received_total{command=\"ResetWorld\"}"), 0);
}
#endif
