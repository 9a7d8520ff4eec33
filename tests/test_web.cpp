// The web backend and its polled HTTP server, through a real HTTP client and a real browser:
// pages, exact texts, errors and limits, slow and many clients, the live scene view.
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <regex>
#include <sstream>
#include <thread>

#include <Kelo/WebBackend.h>
#include <Lirra/InetAddress.h>
#include <Lirra/PolledWebServer.h>
#include <Tovan/SysInfo.h>

#include "HttpTest.h"
#include "support.h"

using namespace KeloTest;
using namespace std::chrono_literals;
using Kelo::WorldPart;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;
namespace http = boost::beast::http;

namespace {

std::string openLine(uint16_t port) {
    return "Web server open ok: http://" + Lirra::InetAddress::getLocalHostName() + ":" +
           std::to_string(port) + " (listening on 127.0.0.1)\n";
}

// A world with a web backend, its port and the log of its creation.
struct WebTest : ::testing::Test {
    void SetUp() override {
        LogCapture log(osg::LOG_NOTICE);
        backend = dynamic_cast<Kelo::WebBackend*>(world.addBackend("web", ""));
        ASSERT_TRUE(backend && backend->webServer()->isOpen());
        port = backend->webServer()->socketAddress().getServicePort();
        created = log.texts();
    }
    // The replies to GETs of targets, on one kept-alive connection.
    std::vector<Reply> fetch(const std::vector<std::string>& targets) {
        return whileStepping(
            [&] {
                Client client(port);
                std::vector<Reply> replies;
                for (const auto& target : targets)
                    replies.push_back(client.get(target));
                return replies;
            },
            [&] { world.update(); });
    }
    std::string raw(const std::string& bytes) {
        return whileStepping([&] { return Client(port).raw(bytes); }, [&] { world.update(); });
    }

    Scene world;
    Kelo::WebBackend* backend = nullptr;
    uint16_t port = 0;
    std::vector<std::string> created;
};

std::string indexPage(unsigned backends, unsigned sources, unsigned emitters) {
    const Tovan::SysInfo& info = Tovan::SysInfo::the();
    const std::string bar =
        "    <TABLE CLASS=\"header\" CELLSPACING=0 CELLPADDING=3 BORDER=0 WIDTH=100%>"
        "<TR CLASS=\"header\">\n    <TD CLASS=\"header\"><DIV CLASS=";
    std::ostringstream page;
    page << "<HTML>\n  <HEAD>\n    <TITLE>Kelo Web Interface</TITLE>\n"
            "    <LINK REL=\"stylesheet\" TYPE=\"text/css\" HREF=\"/Style.css\">"
            "    <LINK REL=\"ICON\" HREF=\"/favicon.ico\">\n"
            "    <LINK REL=\"SHORTCUT ICON\" HREF=\"/favicon.ico\"\n>  </HEAD>\n  <BODY>\n"
         << bar << "lHeader>Kelo Web Interface</DIV></TD>\n"
         << "    <TD CLASS=\"header\"><DIV CLASS=rHeader>" << Kelo::WebBackend::notice()
         << "</DIV></TD>\n    </TR></TABLE>\n    <H1>Kelo Web Interface</H1>\n"
            "    <P><TABLE CELLSPACING=0 CELLPADDING=0 BORDER=0><TR><TD>User:</TD><TD>"
         << info.user() << "<TD></TR>\n    <TR><TD>Host:</TD><TD>" << info.host()
         << "</TD></TR>\n    <TR><TD>System:</TD><TD>" << info.system()
         << "</TD></TR>\n    <TR><TD>Kelo Version:&nbsp;</TD><TD>" << Kelo::WebBackend::buildTime()
         << "</TD></TR></TABLE></P>\n    <TABLE border=\"1\">\n"
            "    <TR><TH>Object Type</TH><TH>Count</TH><TH>Page</TH></TR>\n";
    for (const auto& [name, count, link] : {std::tuple{"Backend", backends, "Backends"},
                                            {"Sources", sources, "Sources"},
                                            {"Emitter", emitters, "Emitter"}})
        page << "    <TR><TD>" << name << "</TD><TD>" << count << "</TD><TD><A HREF=\"/" << link
             << "\">All</A></TD></TR>\n";
    page << "    </TABLE>\n"
         << bar << "footer>&nbsp;</DIV></TD>\n    </TR></TABLE>\n  </BODY>\n</HTML>\n";
    return page.str();
}

}  // namespace

TEST_F(WebTest, OpensOnLoopbackAndServesThePagesOnOneKeptAliveConnection) {
    EXPECT_THAT(created, ElementsAre(openLine(port), "Create new Kelo backend: web\n"));
    EXPECT_TRUE(std::regex_match(Kelo::WebBackend::buildTime(),
                                 std::regex(R"([A-Z][a-z]{2} [ 123]\d \d{4} \d\d:\d\d:\d\d)")));

    const auto replies =
        fetch({"/", "/index.html", "/Style.css", "/favicon.ico", "/log.html", "/Backends"});
    EXPECT_EQ(replies[0].result_int(), 302);
    EXPECT_EQ(replies[0][http::field::location], "/index.html");

    EXPECT_EQ(replies[1].result_int(), 200);
    EXPECT_EQ(replies[1][http::field::content_type], "text/html");
    EXPECT_EQ(replies[1][http::field::server], "Kelo");
    EXPECT_EQ(replies[1].body(), indexPage(1, 0, 0));

    const std::string& style = replies[2].body();  // sent with its final NUL
    EXPECT_EQ(replies[2][http::field::content_type], "text/css");
    ASSERT_EQ(style.size(), 739u);
    EXPECT_EQ(style.substr(699), "tr.public  { background-color: White }\n" + std::string(1, 0));

    EXPECT_EQ(replies[3][http::field::content_type], "image/x-icon");
    const std::string& ico = replies[3].body();
    EXPECT_EQ(ico.size(), 6u + 16 + 40 + 16 * 16 * 4 + 16 * 4);
    EXPECT_EQ(ico.substr(0, 8), std::string("\0\0\1\0\1\0\x10\x10", 8));  // one 16x16 icon

    EXPECT_EQ(replies[4][http::field::content_type], "text/html");
    EXPECT_THAT(replies[4].body(), HasSubstr("No requests logged"));  // the backend keeps none
    EXPECT_EQ(replies[5].result_int(), 404);
    EXPECT_THAT(replies[5].body(), HasSubstr("404 Not Found"));
    for (const Reply& reply : replies)
        EXPECT_TRUE(reply.keep_alive());

    Kelo::Source* source = world.createSource();
    for (int i = 0; i < 3; ++i)
        world.createEmitter()->setSource(source);
    world.addBackend("silent", "");
    EXPECT_EQ(fetch({"/index.html?refresh=1"})[0].body(), indexPage(2, 1, 3));
    world.clearWorld();
    EXPECT_EQ(fetch({"/index.html"})[0].body(), indexPage(2, 0, 0));
}

// Pipelined requests are answered in order, HEAD without a body (else the next reply would not
// parse), nothing after Connection: close; bad requests get their status and a close.
TEST_F(WebTest, PipelinedHeadPostAndBadRequestsGetTheirAnswers) {
    const std::string get = "GET /index.html HTTP/1.1\r\nHost: x\r\n\r\n";
    std::string in =
        raw("HEAD /Style.css HTTP/1.1\r\nHost: x\r\n\r\n"
            "POST /index.html HTTP/1.1\r\nHost: x\r\nContent-Length: 1\r\n\r\nx" +
            get + "GET / HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n" + get);
    const auto head = takeReply(in, true), post = takeReply(in), index = takeReply(in),
               moved = takeReply(in);
    ASSERT_TRUE(head && post && index && moved);
    EXPECT_EQ(head->result_int(), 200);
    EXPECT_EQ((*head)[http::field::content_length], "739");
    EXPECT_EQ(post->result_int(), 405);
    EXPECT_EQ((*post)[http::field::allow], "GET, HEAD");
    EXPECT_EQ(index->body(), indexPage(1, 0, 0));
    EXPECT_EQ(moved->result_int(), 302);
    EXPECT_EQ(in, "");

    for (const auto& [request, status] : std::vector<std::pair<std::string, std::string>>{
             {"GET /" + std::string(9000, 'a') + " HTTP/1.1\r\nHost: x\r\n\r\n",
              "431 Request Header Fields Too Large"},
             {"POST /index.html HTTP/1.1\r\nHost: x\r\nContent-Length: 100000\r\n\r\n",
              "413 Payload Too Large"},
             {"GET /index.html HTTX/1.1\r\n\r\n", "400 Bad Request"}}) {
        in = raw(request);  // to the close
        EXPECT_THAT(in, StartsWith("HTTP/1.1 " + status + "\r\n"));
        const auto reply = takeReply(in);
        EXPECT_TRUE(reply && !reply->keep_alive()) << status;
    }
}

// Half a request is never answered and goes at its deadline, while 60 kept-alive clients are all
// answered and update() stays short: a blocking read or write would stall it.
TEST_F(WebTest, SlowClientsAreDroppedAtTheDeadlineWhileManyOthersAreServedWithoutStalling) {
    Lirra::PolledWebServer& server = *backend->webServer();
    server.setTimeout(1500ms);
    server.setMaxConnectionsPerAddress(server.maxConnections());  // all come from 127.0.0.1
    using Clock = std::chrono::steady_clock;
    const auto since = [](Clock::time_point start) {
        return std::chrono::duration<double>(Clock::now() - start).count();
    };
    std::vector<std::future<std::pair<std::string, double>>> slow;
    for (int i = 0; i < 5; ++i)
        slow.push_back(std::async(std::launch::async, [&] {
            const auto start = Clock::now();
            std::string in = Client(port).raw("GET /index.html HTTP/1.1\r\nHost: 127.");
            return std::make_pair(in, since(start));
        }));
    std::vector<std::future<int>> fast;
    for (int i = 0; i < 60; ++i)
        fast.push_back(std::async(std::launch::async, [&] {
            Client client(port);
            int answered = 0;
            for (int r = 0; r < 5; ++r) {
                const Reply reply = client.get("/index.html");
                answered += reply.result_int() == 200 && reply.keep_alive() &&
                            reply.body().find("<TD>Emitter</TD>") != std::string::npos;
            }
            return answered;
        }));
    double longest = 0;
    const auto ready = [](auto& f) { return f.wait_for(0ms) == std::future_status::ready; };
    while (!std::all_of(fast.begin(), fast.end(), ready) ||
           !std::all_of(slow.begin(), slow.end(), ready)) {
        const auto start = Clock::now();
        world.update();
        longest = std::max(longest, since(start));
        std::this_thread::sleep_for(1ms);
    }
    int answered = 0;
    for (auto& f : fast)
        answered += f.get();
    EXPECT_EQ(answered, 60 * 5);
    for (auto& f : slow) {
        const auto [in, seconds] = f.get();
        EXPECT_EQ(in, "");
        EXPECT_TRUE(seconds > 1.3 && seconds < 4.5) << seconds;
    }
    EXPECT_LT(longest, 0.1);
    EXPECT_TRUE(until([&] { return server.connections() == 0; }, [&] { world.update(); }, 500ms));
}

TEST_F(WebTest, SceneJsonDescribesTheListenerAndEveryEmitter) {
    Kelo::Source* source = world.createSource();
    source->setDataFromURL("file:///sounds/hum.wav");
    Kelo::Emitter* front = world.createEmitter({"front", "say \"hi\" <b>"});
    Kelo::Emitter* idle = world.createEmitter();
    const osg::Vec3f at(1.5f, 0, -2);
    front->setTransform(&at, nullptr);
    front->setHull(4, 8, 1, 2);
    front->setParam(true, 0, 0.5f);
    front->setSource(source);
    front->setState(WorldPart::PLAY);
    world.setListenerTransform(osg::Vec3f(0, 1, 0), osg::Quaternion(0, 0.7071068f, 0, 0.7071068f));
    idle->setParam(false, 0, std::nanf(""));  // not a number JSON can carry
    Kelo::Source* pcm = world.createSource();
    setPcm(*pcm, {0, 0, 0, 0}, 8000, 16, 2);

    const Reply reply = fetch({"/scene.json"})[0];
    EXPECT_EQ(reply[http::field::content_type], "application/json");
    const auto id = [](Kelo::WorldPart* part) { return std::to_string(part->id()); };
    EXPECT_EQ(reply.body(),
              "{\"backends\":1,\"enabled\":true,\"spatialize\":true,"
              "\"listener\":{\"position\":[0,1,0],\"rotation\":[0,0.7071068,0,0.7071068]},"
              "\"sources\":[{\"id\":" +
                  id(source) +
                  ",\"state\":1,\"data\":\"url\",\"url\":\"file:///sounds/hum.wav\","
                  "\"loop\":false,\"pitch\":1,\"duration\":0},{\"id\":" +
                  id(pcm) +
                  ",\"state\":0,\"data\":\"pcm\",\"frequency\":8000,\"bits\":16,"
                  "\"channels\":2,\"bytes\":4,\"loop\":false,\"pitch\":1,\"duration\":0}],"
                  "\"emitters\":[{\"id\":" +
                  id(front) +
                  ",\"position\":[1.5,0,-2],\"rotation\":[0,0,0,1],"
                  "\"hull\":{\"maxBack\":4,\"maxFront\":8,\"minBack\":1,\"minFront\":2},"
                  "\"gain\":0.5,\"spatialize\":true,\"state\":1,"
                  "\"labels\":[\"front\",\"say \\\"hi\\\" \\u003cb\\u003e\"],\"source\":" +
                  id(source) + "},{\"id\":" + id(idle) +
                  ",\"position\":[0,0,0],\"rotation\":[0,0,0,1],"
                  "\"hull\":{\"maxBack\":10,\"maxFront\":10,\"minBack\":0,\"minFront\":0},"
                  "\"gain\":null,\"spatialize\":false,\"state\":0,\"labels\":[],"
                  "\"source\":null}]}\n");
}

TEST(WebBackend, PortFallsBackWhenTakenAndAFailedOpenLeavesAQuietBackend) {
    Lirra::PolledWebServer taken;
    taken.open("127.0.0.1", 0);
    const uint16_t busy = taken.socketAddress().getServicePort();
    Scene world;
    LogCapture log(osg::LOG_WARNING);
    auto* moved = dynamic_cast<Kelo::WebBackend*>(
        world.addBackend("web", ("host=127.0.0.1 port=" + std::to_string(busy)).c_str()));
    ASSERT_TRUE(moved && moved->webServer()->isOpen());
    const uint16_t port = moved->webServer()->socketAddress().getServicePort();
    EXPECT_NE(port, busy);
    EXPECT_THAT(log.texts(), ElementsAre(openLine(port)));

    log.messages.clear();
    Kelo::Backend* failed = world.addBackend("web", "host=192.0.2.1");  // not an address of ours
    ASSERT_NE(failed, nullptr);
    EXPECT_THAT(log.texts(), ElementsAre("Could not create web server; 192.0.2.1:0\n"));
    EXPECT_EQ(log.messages[0].level, osg::LOG_FATAL);
    EXPECT_THAT(world.backends(), Contains(failed));
    EXPECT_TRUE(failed->update());
    world.createEmitter()->setState(WorldPart::PLAY);

    log.messages.clear();
    Kelo::WebBackend copy(*moved);
    EXPECT_EQ(copy.webServer(), nullptr);
    EXPECT_TRUE(copy.update());
    EXPECT_THAT(log.texts(), ElementsAre("ERROR: In Backend copy constructor\n"));
}

// A real browser: Debian's chromium, headless, with a fresh profile, loads the pages from
// loopback while the world keeps updating.
class WebBrowser : public WebTest {
protected:
    void SetUp() override {
        if (access("/usr/bin/chromium", X_OK) != 0)
            GTEST_SKIP() << "chromium is not installed (bash scripts/deps.sh test)";
        WebTest::SetUp();
        std::filesystem::create_directories(artifacts);
    }
    void TearDown() override { std::filesystem::remove_all(profile); }

    // What the browser writes on standard output for path; frame() runs after every update.
    std::string run(
        const std::string& path, const std::string& switches,
        const std::function<void()>& frame = [] {}) {
        std::filesystem::remove_all(profile);
        const std::string command =
            "{ timeout -s KILL 60 /usr/bin/chromium --headless --no-sandbox --disable-gpu "
            "--disable-dev-shm-usage --disable-background-networking --disable-component-update "
            "--disable-sync --no-first-run --user-data-dir=" +
            profile + " " + switches + " http://127.0.0.1:" + std::to_string(port) + path +
            " 2>/dev/null; }";
        const auto [code, out] = whileStepping([&] { return runProgram(command); },
                                               [&] {
                                                   world.update();
                                                   frame();
                                               });
        EXPECT_EQ(code, 0) << "the browser failed or did not finish within 60 s";
        return out;
    }

    const std::string profile = scratch("chromium-profile");
    const std::filesystem::path artifacts = std::filesystem::absolute("artifacts");
};

TEST_F(WebBrowser, RendersTheIndexAndALiveSceneThatFollowsChanges) {
    backend->webServer()->setLogSize(1000);
    Kelo::Source* source = world.createSource();
    Kelo::Emitter* playing = world.createEmitter({"front"});
    const osg::Vec3f left(-3, 0, -1), behind(2, 0, 3);
    playing->setTransform(&left, nullptr);
    playing->setHull(6, 4, 2, 1);
    playing->setSource(source);
    playing->setState(WorldPart::PLAY);
    Kelo::Emitter* paused = world.createEmitter({"rear"});
    paused->setTransform(&behind, nullptr);
    paused->setState(WorldPart::PAUSE);

    const std::string index = run("/", "--dump-dom");  // through the redirect
    for (const std::string& part :
         std::vector<std::string>{"<title>Kelo Web Interface</title>", "<td>Backend</td><td>1</td>",
                                  "<td>Sources</td><td>1</td>", "<td>Emitter</td><td>2</td>",
                                  "<td>User:</td><td>" + Tovan::SysInfo::the().user(),
                                  "href=\"/scene.html\">Live scene</a>"})
        EXPECT_THAT(index, HasSubstr(part));

    // Once the page has fetched the scene, a third emitter appears: a later refresh shows it.
    Kelo::Emitter* late = nullptr;
    const auto fetched = [&] {
        int count = 0;
        for (const auto& entry : backend->webServer()->log())
            count += entry.target == "/scene.json";
        return count;
    };
    const std::string dom = run("/scene.html", "--dump-dom --virtual-time-budget=4000", [&] {
        if (!late && fetched() > 0)
            late = world.createEmitter({"late"});
    });
    ASSERT_NE(late, nullptr);
    EXPECT_GE(fetched(), 2);  // it refreshes by itself
    const auto mark = [](Kelo::Emitter* e, const char* state) {
        return "id=\"emitter-" + std::to_string(e->id()) + "\" data-state=\"" + state + "\"";
    };
    for (const std::string& part : std::vector<std::string>{
             mark(playing, "play") + " data-source=\"" + std::to_string(source->id()) + "\"",
             mark(paused, "pause") + " data-source=\"\"", mark(late, "none"), "id=\"listener\"",
             "3 emitters, 1 sources, 1 backends", "<td>front</td>"})
        EXPECT_THAT(dom, HasSubstr(part));
    EXPECT_THAT(dom, Not(HasSubstr("<p id=\"status\">Scene unavailable")));

    const std::string shot = (artifacts / "web-scene.png").string();
    run("/scene.html",
        "--screenshot=" + shot + " --window-size=1000,900 --virtual-time-budget=2000");
    EXPECT_EQ(readFile(shot).substr(0, 4), "\x89PNG");
}
