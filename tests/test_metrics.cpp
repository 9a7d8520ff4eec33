// /metrics: the exposition text read back by a strict parser of the Prometheus text format
// 0.0.4, and numbers that move with what was done: a scene changing, frames, a client world
// sending to a server, frames the server refuses, and kelo-server --web. All on loopback.

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <map>
#include <regex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <boost/asio.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>

#include <Kelo/ClientBackend.h>
#include <Kelo/Exposition.h>
#include <Kelo/Server.h>
#include <Kelo/WebBackend.h>
#include <Lirra/InetAddress.h>
#include <Lirra/PolledWebServer.h>

#include "support.h"

using namespace KeloTest;
using namespace std::chrono_literals;
using ::testing::HasSubstr;

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;

namespace {

// ---- A strict reader of the text format, written against its grammar ----------------------

using Labels = std::map<std::string, std::string>;
struct Sample {
    std::string name;
    Labels labels;
    double value;
};
struct Family {
    std::string type = "untyped", help;
    bool typed = false, helped = false;
    std::vector<Sample> samples;
};
using Scrape = std::map<std::string, Family>;

struct BadText : std::runtime_error {
    BadText(size_t line, const std::string& what)
        : std::runtime_error("line " + std::to_string(line) + ": " + what) {}
};

bool metricName(const std::string& s) {
    return std::regex_match(s, std::regex("[a-zA-Z_:][a-zA-Z0-9_:]*"));
}

// A float as the format writes them: a number read whole, or NaN, +Inf, -Inf.
bool value(const std::string& text, double& out) {
    if (text == "NaN" || text == "+Inf" || text == "-Inf") {
        out = text == "NaN" ? NAN : text[0] == '+' ? INFINITY : -INFINITY;
        return true;
    }
    if (!std::regex_match(text, std::regex(R"([-+]?(\d+\.?\d*|\.\d+)([eE][-+]?\d+)?)")))
        return false;
    out = std::strtod(text.c_str(), nullptr);
    return true;
}

// Undoes the escapes; inLabel allows \" as well as \\ and \n. Any other backslash is an error.
std::string unescape(size_t line, const std::string& text, bool inLabel) {
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\') {
            out += text[i];
            continue;
        }
        const char next = i + 1 < text.size() ? text[++i] : '\0';
        if (next == '\\' || next == 'n' || (inLabel && next == '"'))
            out += next == 'n' ? '\n' : next;
        else
            throw BadText(line, "bad escape");
    }
    return out;
}

// The labels of "{a="x",b="y"}" from at (on the brace); at ends after the closing brace.
Labels labels(size_t line, const std::string& s, size_t& at) {
    Labels out;
    ++at;
    while (at < s.size() && s[at] != '}') {
        const size_t equals = s.find('=', at);
        if (equals == std::string::npos)
            throw BadText(line, "label without =");
        const std::string name = s.substr(at, equals - at);
        if (!std::regex_match(name, std::regex("[a-zA-Z_][a-zA-Z0-9_]*")))
            throw BadText(line, "bad label name " + name);
        if (equals + 1 >= s.size() || s[equals + 1] != '"')
            throw BadText(line, "label value not quoted");
        size_t end = equals + 2;
        while (end < s.size() && s[end] != '"')
            end += s[end] == '\\' ? 2 : 1;
        if (end >= s.size())
            throw BadText(line, "unterminated label value");
        if (!out.emplace(name, unescape(line, s.substr(equals + 2, end - equals - 2), true)).second)
            throw BadText(line, "label " + name + " twice");
        at = end + 1;
        if (at < s.size() && s[at] == ',' && at + 1 < s.size() && s[at + 1] != '}')
            ++at;
        else if (at >= s.size() || s[at] != '}')
            throw BadText(line, "labels not separated by a comma");
    }
    if (at >= s.size())
        throw BadText(line, "unterminated labels");
    ++at;
    return out;
}

// Every line a comment (HELP, TYPE or other) or a sample; the samples of a family together
// and after its TYPE; each series once; histograms cumulative up to le="+Inf" = _count.
Scrape parse(const std::string& text) {
    if (text.empty() || text.back() != '\n')
        throw BadText(0, "the text does not end with a line feed");
    Scrape out;
    std::string current;                   // the family of the last TYPE line
    std::set<std::string> series, closed;  // series seen; families whose samples ended
    std::string last;                      // the family of the last sample
    size_t number = 0;
    for (size_t at = 0, end; at < text.size(); at = end + 1) {
        end = text.find('\n', at);
        const std::string line = text.substr(at, end - at);
        ++number;
        if (line.empty())
            continue;
        std::smatch m;
        if (line[0] == '#') {
            if (std::regex_match(line, m, std::regex("# HELP (\\S+) (.*)"))) {
                Family& f = out[m[1]];
                if (!metricName(m[1]) || f.helped)
                    throw BadText(number, "bad or repeated HELP");
                f.helped = true;
                f.help = unescape(number, m[2], false);
            } else if (std::regex_match(line, m, std::regex("# TYPE (\\S+) (\\S+)"))) {
                Family& f = out[m[1]];
                if (!metricName(m[1]) || f.typed || !f.samples.empty())
                    throw BadText(number, "TYPE repeated or after samples");
                if (!std::regex_match(m[2].str(),
                                      std::regex("counter|gauge|histogram|summary|untyped")))
                    throw BadText(number, "unknown type " + m[2].str());
                f.typed = true;
                f.type = m[2];
                current = m[1];
            } else if (line.rfind("# HELP", 0) == 0 || line.rfind("# TYPE", 0) == 0) {
                throw BadText(number, "malformed HELP or TYPE");
            }
            continue;
        }
        size_t pos = line.find_first_of("{ ");
        Sample s{line.substr(0, pos), {}, 0};
        if (!metricName(s.name))
            throw BadText(number, "bad metric name");
        if (pos != std::string::npos && line[pos] == '{')
            s.labels = labels(number, line, pos);
        if (pos >= line.size() || line[pos] != ' ')
            throw BadText(number, "no value");
        const std::string rest = line.substr(pos + 1);
        const size_t blank = rest.find(' ');
        if (!value(rest.substr(0, blank), s.value) ||
            (blank != std::string::npos &&
             !std::regex_match(rest.substr(blank + 1), std::regex("-?\\d+"))))
            throw BadText(number, "bad value or timestamp");
        // Which family: a histogram's or summary's suffixed series belong to it.
        std::string family = s.name;
        const std::string& type = out.count(current) ? out[current].type : "";
        for (const char* suffix : {"_bucket", "_sum", "_count"})
            if ((type == "histogram" || (type == "summary" && suffix[1] != 'b')) &&
                s.name == current + suffix)
                family = current;
        if (family != current && out.count(family) && out[family].typed)
            throw BadText(number, s.name + " is not under its TYPE line");
        if (family != last) {
            if (closed.count(family))
                throw BadText(number, "the samples of " + family + " are not together");
            closed.insert(last);
            last = family;
        }
        std::string key = s.name;
        for (const auto& [k, v] : s.labels)
            key += '\0' + k + '\0' + v;
        if (!series.insert(key).second)
            throw BadText(number, "series given twice: " + s.name);
        out[family].samples.push_back(std::move(s));
    }
    for (const auto& [name, f] : out) {
        if (f.type != "histogram")
            continue;
        // Per label set without le: buckets rising to +Inf, then the count equal to it.
        std::map<Labels, std::vector<std::pair<double, double>>> buckets;
        std::map<Labels, double> counts;
        std::set<Labels> sums;
        for (const Sample& s : f.samples) {
            Labels rest = s.labels;
            if (s.name == name + "_bucket") {
                double le;
                if (!rest.count("le") || !value(rest["le"], le))
                    throw BadText(0, name + ": bucket without a number in le");
                rest.erase("le");
                auto& list = buckets[rest];
                if (!list.empty() && (le <= list.back().first || s.value < list.back().second))
                    throw BadText(0, name + ": buckets not rising or not cumulative");
                list.emplace_back(le, s.value);
            } else if (s.name == name + "_count") {
                counts[rest] = s.value;
            } else if (s.name == name + "_sum") {
                sums.insert(rest);
            } else {
                throw BadText(0, name + ": stray sample " + s.name);
            }
        }
        for (const auto& [set, list] : buckets)
            if (!std::isinf(list.back().first) || !counts.count(set) ||
                counts[set] != list.back().second || !sums.count(set))
                throw BadText(0, name + ": no +Inf bucket equal to _count, or no _sum");
    }
    return out;
}

// The one sample of name with these labels; NaN when there is none.
double get(const Scrape& scrape, const std::string& family, const std::string& name,
           const Labels& labels = {}) {
    const auto f = scrape.find(family);
    if (f != scrape.end())
        for (const Sample& s : f->second.samples)
            if (s.name == name && s.labels == labels)
                return s.value;
    return NAN;
}
double get(const Scrape& scrape, const std::string& name, const Labels& labels = {}) {
    return get(scrape, name, name, labels);
}

// ---- HTTP on loopback -------------------------------------------------------------------

// GET /metrics from 127.0.0.1:port, giving up after 5 s.
http::response<http::string_body> fetch(uint16_t port) {
    asio::io_context io;
    beast::tcp_stream stream(io);
    beast::flat_buffer buffer;
    http::request<http::string_body> request{http::verb::get, "/metrics", 11};
    request.set(http::field::host, "127.0.0.1");
    http::response<http::string_body> reply;
    beast::error_code result = asio::error::timed_out;
    stream.expires_after(5s);
    stream.async_connect({asio::ip::address_v4::loopback(), port}, [&](beast::error_code e) {
        if (e)
            return void(result = e);
        http::async_write(stream, request, [&](beast::error_code e, size_t) {
            if (e)
                return void(result = e);
            http::async_read(stream, buffer, reply,
                             [&](beast::error_code e, size_t) { result = e; });
        });
    });
    io.run();
    if (result)
        throw std::runtime_error("HTTP: " + result.message());
    return reply;
}

// Fetches and parses /metrics while step() runs the worlds' frames on this thread, since the
// pages are made there.
Scrape scrape(uint16_t port, const std::function<void()>& step) {
    auto reply = std::async(std::launch::async, [port] { return fetch(port); });
    while (reply.wait_for(1ms) != std::future_status::ready)
        step();
    const auto r = reply.get();
    EXPECT_EQ(r.result_int(), 200);
    EXPECT_EQ(r[http::field::content_type], "text/plain; version=0.0.4; charset=utf-8");
    return parse(r.body());
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

TEST(Metrics, TheParserRefusesWhatTheFormatForbids) {
    for (const char* bad : {
             "kelo_x 1",                                    // no final line feed
             "kelo-x 1\n",                                  // bad name
             "kelo_x{a=\"1\"\n",                            // unterminated labels
             "kelo_x{a=\"\\t\"} 1\n",                       // bad escape
             "kelo_x{a=\"1\"b=\"2\"} 1\n",                  // no comma
             "kelo_x{a=\"1\",a=\"2\"} 1\n",                 // label twice
             "kelo_x one\n",                                // bad value
             "kelo_x 1\n# TYPE kelo_x gauge\n",             // TYPE after samples
             "# TYPE kelo_x gauge\n# TYPE kelo_x gauge\n",  // TYPE twice
             "# TYPE kelo_x number\n",                      // unknown type
             "kelo_x 1\nkelo_x 2\n",                        // series twice
             "kelo_x 1\nkelo_y 1\nkelo_x{a=\"1\"} 1\n",     // not together
             "# TYPE kelo_h histogram\nkelo_h_bucket{le=\"1\"} 2\nkelo_h_bucket{le=\"+Inf\"} "
             "1\nkelo_h_sum 0\nkelo_h_count 1\n",  // not cumulative
             "# TYPE kelo_h histogram\nkelo_h_bucket{le=\"1\"} 1\nkelo_h_sum 0\n"
             "kelo_h_count 1\n",  // no +Inf bucket
         })
        EXPECT_THROW(parse(bad), BadText) << bad;
}

TEST(Metrics, ExpositionEscapesLabelsAndWritesCumulativeHistograms) {
    Kelo::Histogram times;
    for (double seconds : {-1.0, 1e-5, 3e-3, 0.7, 2.0})
        times.observe(seconds);
    Kelo::Exposition out;
    out.family("kelo_test_seconds", "histogram", "Odd \\ help\nsecond line");
    out.histogram("kelo_test_seconds", {{"path", "C:\\a \"b\"\nc"}}, times.snapshot());
    const std::string& text = out.text();
    EXPECT_THAT(text, HasSubstr("# HELP kelo_test_seconds Odd \\\\ help\\nsecond line\n"
                                "# TYPE kelo_test_seconds histogram\n"
                                "kelo_test_seconds_bucket{path=\"C:\\\\a \\\"b\\\"\\nc\","
                                "le=\"1e-05\"} 2\n"));
    const Scrape scrape = parse(text);
    const Family& f = scrape.at("kelo_test_seconds");
    EXPECT_EQ(f.help, "Odd \\ help\nsecond line");
    const Labels path{{"path", "C:\\a \"b\"\nc"}};
    auto bucket = [&](const char* le) {
        Labels l = path;
        l["le"] = le;
        return get(scrape, "kelo_test_seconds", "kelo_test_seconds_bucket", l);
    };
    EXPECT_EQ(bucket("0.0025"), 2);
    EXPECT_EQ(bucket("0.005"), 3);
    EXPECT_EQ(bucket("1"), 4);
    EXPECT_EQ(bucket("+Inf"), 5);
    EXPECT_NEAR(get(scrape, "kelo_test_seconds", "kelo_test_seconds_sum", path), 2.70301, 1e-6);
}

TEST(Metrics, WorldGaugesFollowTheSceneAndEveryUpdateIsTimed) {
    Scene world;
    const uint16_t port = portOf(world.addBackend("web", "host=127.0.0.1"));
    const auto step = [&] { world.update(); };
    Scrape s = scrape(port, step);
    EXPECT_EQ(get(s, "kelo_sources"), 0);
    EXPECT_EQ(get(s, "kelo_emitters"), 0);
    EXPECT_EQ(get(s, "kelo_backends"), 1);
    EXPECT_EQ(s.count("kelo_client_servers"), 0u);  // neither a client backend nor a server
    EXPECT_EQ(s.count("kelo_server_clients"), 0u);
    for (const auto& [name, family] : s) {
        EXPECT_EQ(name.rfind("kelo_", 0), 0u) << name;
        EXPECT_FALSE(family.help.empty()) << name;
    }

    Kelo::Source* a = world.createSource();
    world.createSource();
    std::vector<Kelo::Emitter*> emitters;
    for (int i = 0; i < 3; ++i)
        emitters.push_back(world.createEmitter());
    delete a;
    delete emitters[0];
    const auto before = world.updateTimes().snapshot().count;
    for (int i = 0; i < 40; ++i)
        world.update();
    EXPECT_EQ(world.updateTimes().snapshot().count, before + 40);
    s = scrape(port, step);
    EXPECT_EQ(get(s, "kelo_sources"), 1);
    EXPECT_EQ(get(s, "kelo_emitters"), 2);
    // The page is made inside an update: that one is not counted yet, those before are.
    const double count =
        get(s, "kelo_update_duration_seconds", "kelo_update_duration_seconds_count");
    EXPECT_GE(count, before + 40);
    EXPECT_LT(count, world.updateTimes().snapshot().count);
    EXPECT_GT(get(s, "kelo_update_duration_seconds", "kelo_update_duration_seconds_sum"), 0);
}

TEST(Metrics, ClientAndServerCountWhatWentBetweenThemAndWhatWasRefused) {
    Server server;
    const uint16_t serverWeb = portOf(server.addBackend("web", "host=127.0.0.1"));
    Scene app;
    const std::string servers = "servers=127.0.0.1:" + std::to_string(server.port());
    auto* client = dynamic_cast<Kelo::ClientBackend*>(
        app.addBackend("client", (servers + " multicast=false retry=0.05").c_str()));
    ASSERT_NE(client, nullptr);
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

    const Scrape a0 = scrape(appWeb, step), s0 = scrape(serverWeb, step);
    const Labels first{{"backend", "0"}};
    EXPECT_EQ(get(a0, "kelo_client_servers", first), 1);
    EXPECT_EQ(get(a0, "kelo_client_catchups_total", first), 1);
    EXPECT_EQ(get(s0, "kelo_server_clients"), 1);
    const Labels moves{{"command", "SetEmitterTransform"}};
    // Reset, listener, then the emitter's creation, transform, hull, parameters, connection.
    const double sentBefore = get(a0, "kelo_client_events_sent_total", first);
    EXPECT_EQ(sentBefore, 7);
    EXPECT_EQ(get(s0, "kelo_server_events_received_total", moves), 1);  // in the catch-up
    EXPECT_EQ(get(s0, "kelo_server_events_received_total", {{"command", "ResetWorld"}}), 1);

    const int n = 25;
    for (int i = 1; i <= n; ++i) {
        const osg::Vec3f at(static_cast<float>(i), 0, 0);
        emitter->setTransform(&at, nullptr);
    }
    ASSERT_TRUE(
        until([&] { return server.receivedEvents(Kelo::SetEmitterTransform) == n + 1; }, step));
    const Scrape a1 = scrape(appWeb, step), s1 = scrape(serverWeb, step);
    EXPECT_EQ(get(a1, "kelo_client_events_sent_total", first), sentBefore + n);
    EXPECT_GT(get(a1, "kelo_client_sent_bytes_total", first),
              get(a0, "kelo_client_sent_bytes_total", first) + n * 20);
    EXPECT_EQ(get(s1, "kelo_server_events_received_total", moves), n + 1);
    EXPECT_EQ(get(a1, "kelo_client_servers_dropped_total", first), 0);
    // Counters, and only counters, are named ..._total; every series has its HELP and TYPE.
    for (const Scrape* scrape : {&a1, &s1})
        for (const auto& [name, family] : *scrape) {
            const bool total = name.size() > 6 && name.substr(name.size() - 6) == "_total";
            EXPECT_EQ(family.type == "counter", total) << name;
            EXPECT_TRUE(family.typed && family.helped) << name;
        }

    // A frame past the largest allowed, and one of a type nobody knows, each from a peer of
    // its own: both are dropped, each under its reason.
    LogCapture log(osg::LOG_WARNING);
    for (const std::vector<uint8_t>& frame : {std::vector<uint8_t>{0, 0, 0, 0x7f, 200, 0},
                                              std::vector<uint8_t>{4, 0, 0, 0, 0xe7, 3, 0, 0}}) {
        const auto refused = server.refusals();  // before the network thread can count
        asio::io_context io;
        asio::ip::tcp::socket peer(io);
        peer.connect({asio::ip::address_v4::loopback(), server.port()});
        asio::write(peer, asio::buffer("KELO\1\0\0\0", 8));
        asio::write(peer, asio::buffer(frame));
        ASSERT_TRUE(until([&] { return server.refusals() != refused; }, step));
    }
    const Scrape s2 = scrape(serverWeb, step);
    EXPECT_EQ(get(s2, "kelo_server_refused_total", {{"reason", "too_large"}}), 1);
    EXPECT_EQ(get(s2, "kelo_server_refused_total", {{"reason", "bad_frame"}}), 1);
    EXPECT_EQ(get(s2, "kelo_server_refused_total", {{"reason", "budget"}}), 0);
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
    EXPECT_TRUE(log.has("more than 65536 bytes waiting to be sent"));
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
    uint16_t wanted = 0;
    {
        asio::io_context io;
        asio::ip::tcp::acceptor probe(io, {asio::ip::address_v4::loopback(), 0});
        wanted = probe.local_endpoint().port();
    }
    auto server =
        std::async(std::launch::async, [&] { return run("--web " + std::to_string(wanted)); });
    std::string body;
    const bool fetched = until(
        [&] {
            try {
                body = fetch(wanted).body();
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
    const Scrape s = parse(body);
    EXPECT_EQ(get(s, "kelo_backends"), 2);  // silent and web
    EXPECT_EQ(get(s, "kelo_server_clients"), 0);
    EXPECT_EQ(get(s, "kelo_server_events_received_total", {{"command", "ResetWorld"}}), 0);
}
#endif
