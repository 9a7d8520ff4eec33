// The sound server under peers that misbehave or overdo it: events for emitters it lacks, a
// full-rate flood that must not stop its frames, a second application replacing the first
// one's scene, the exclusive mode, and kelo-server's bad options. All on loopback, bounded.

#include <algorithm>
#include <atomic>
#include <memory>
#include <regex>
#include <thread>
#include <tuple>

#include <Kelo/Emitter.h>
#include <Kelo/Server.h>
#include <Kelo/TransformEvent.h>

#include "PeerTest.h"
#include "support.h"

using namespace KeloTest;
using ::testing::HasSubstr;
using namespace std::chrono_literals;

namespace {

// One turn of kelo-server's loop: wait up to a frame for input, apply a batch, update.
int frame(Kelo::Server& server) {
    server.waitForEvents(1.0 / 90);
    const int handled = server.receive(false);
    server.update();
    return handled;
}

// n moves of an emitter to x = first, first + 1 …, or plays of emitters first, first + 1 …
std::string events(Kelo::Command command, int16_t emitter, int first, int n) {
    Kelo::TransformEvent move;
    move.setCommand(command);
    move.setId(emitter);
    Kelo::CommandEvent play(command, 0);
    move.setStamp(Kelo::CommandEvent::kSenderStamp);
    play.setStamp(Kelo::CommandEvent::kSenderStamp);
    std::string out;
    for (int i = first; i < first + n; ++i) {
        move.setPosition(osg::Vec3f(static_cast<float>(i), 0, 0));
        play.setId(static_cast<int16_t>(i));
        out += command == Kelo::SetEmitterTransform ? frameOf(move) : frameOf(play);
    }
    return out;
}

struct Server : Kelo::Server {
    Server() : Kelo::Server(0, "127.0.0.1") { setMulticastEnabled(false); }
    ~Server() override {
        clearWorld();
        deleteAllBackends();
    }
};

struct App {
    explicit App(const Kelo::Server& server) {
        addClient(world, "servers=127.0.0.1:" + std::to_string(server.port()) + " retry=0.05");
    }
    Scene world;
};

// A step that updates the applications there are and runs a turn of the server.
auto stepping(Kelo::Server& server, std::unique_ptr<App>& a, std::unique_ptr<App>& b) {
    return [s = &server, a = &a, b = &b] {
        for (App* app : {a->get(), b->get()})
            if (app)
                app->world.update();
        frame(*s);
    };
}

// First in this file: the log limiters are per call site and per process.
TEST(HostileServer, EventsForUnknownEmittersDoNotFloodTheLog) {
    Server server;
    LogCapture log(osg::LOG_FATAL);
    RawPeer peer(server.port(), kPreamble + events(Kelo::PlayEmitter, 0, 100, 5000));
    ASSERT_TRUE(until([&] { return server.receivedCount() == 5000; }, [&] { frame(server); }));
    osg::LogLimiter::flushAll();
    const auto texts = log.texts();
    ASSERT_FALSE(texts.empty());
    EXPECT_EQ(texts.front(), "Got invalid Event: CommandEvent/36/100/3378\n");
    // The first few, and at most one line summing up the rest.
    EXPECT_LE(log.count("Got invalid Event"), size_t(osg::LogLimiter::kBurst));
    EXPECT_LE(texts.size(), size_t(osg::LogLimiter::kBurst) + 1);
}

TEST(HostileServer, AFloodDoesNotStopTheFramesAndLosesNothing) {
    Server server;
    auto* frames = new RecordingBackend(server);
    const int16_t id = Kelo::CommandEvent::wireId(server.createEmitter({}, 5)->id());
    const int batch = 2000;
    server.setReceiveBatch(batch, 0.004);
    RawPeer peer(server.port(), kPreamble);
    // As fast as the socket takes it for a second and a half, then 50 000 a second for one.
    std::atomic<int> sent{0};
    std::atomic<bool> flooding{true};
    std::thread flood([&] {
        for (auto end = std::chrono::steady_clock::now() + 1500ms;
             std::chrono::steady_clock::now() < end; sent += 1000)
            peer.send(events(Kelo::SetEmitterTransform, id, sent, 1000));
        flooding = false;
    });
    int turns = 0, most = 0;
    for (; flooding; ++turns)
        most = std::max(most, frame(server));
    flood.join();
    EXPECT_GE(frames->updates, 30);  // about 90 a second when idle, more under a flood
    EXPECT_EQ(frames->updates, turns);
    EXPECT_LE(most, batch);
    for (int slice = 0; slice < 100; ++slice, sent += 500) {
        peer.send(events(Kelo::SetEmitterTransform, id, sent, 500));
        for (auto next = std::chrono::steady_clock::now() + 10ms;
             std::chrono::steady_clock::now() < next;)
            frame(server);
    }
    // Every move arrives, in order.
    ASSERT_TRUE(until([&] { return server.receivedCount() == sent; }, [&] { frame(server); }));
    EXPECT_EQ(server.getEmitter(id)->position(), osg::Vec3f(float(sent - 1), 0, 0));
}

TEST(HostileServer, ASecondClientsResetIsNamedInAWarning) {
    Server server;
    LogCapture log(osg::LOG_WARNING);
    auto first = std::make_unique<App>(server);
    std::unique_ptr<App> second;
    const auto step = stepping(server, first, second);
    const int id = first->world.createEmitter()->id();
    ASSERT_TRUE(until([&] { return server.getEmitter(id) != nullptr; }, step));
    EXPECT_EQ(log.count("replacing the scene"), 0u);
    second = std::make_unique<App>(server);
    ASSERT_TRUE(until([&] { return server.getEmitter(id) == nullptr; }, step));
    ASSERT_EQ(log.count("replacing the scene"), 1u);
    const std::regex warning(
        "Kelo::Server: client (127.0.0.1:\\d+) reset the world, replacing the scene of client "
        "(127.0.0.1:\\d+)\n");
    const auto texts = log.texts();
    std::smatch peers;
    ASSERT_TRUE(std::any_of(texts.begin(), texts.end(), [&](const std::string& t) {
        return std::regex_match(t, peers, warning);
    }));
    EXPECT_NE(peers[1], peers[2]);

    // A scene whose client has gone is replaced without a word.
    second.reset();
    ASSERT_TRUE(until([&] { return server.clients() == 1; }, step));
    second = std::make_unique<App>(server);
    ASSERT_TRUE(until([&] { return server.clients() == 2; }, step));
    for (int i = 0; i < 20; ++i)
        step();
    EXPECT_EQ(log.count("replacing the scene"), 1u);
}

TEST(HostileServer, AnExclusiveServerRefusesASecondClient) {
    Server server;
    server.setExclusive(true);
    server.setMaxClients(5);
    server.setReceiveBudget(3u << 20);
    server.setIdleLimit(12);
    EXPECT_EQ(std::make_tuple(server.maxClients(), server.receiveBudget(), server.idleLimit()),
              std::make_tuple(size_t(5), size_t(3u << 20), 12.0));
    LogCapture log(osg::LOG_WARNING);
    auto first = std::make_unique<App>(server);
    std::unique_ptr<App> second;
    const auto step = stepping(server, first, second);
    Kelo::Emitter* e = first->world.createEmitter();
    ASSERT_TRUE(until([&] { return server.getEmitter(e->id()) != nullptr; }, step));
    second = std::make_unique<App>(server);
    second->world.createEmitter({}, 77);
    ASSERT_TRUE(until([&] { return log.count("closed by the peer") > 0; }, step));
    EXPECT_GE(log.count("Kelo::Server is exclusive: refused client 127.0.0.1:"), 1u);
    // The goodbye's reason reaches the refused application's log.
    EXPECT_GE(log.count("Connection to 127.0.0.1:" + std::to_string(server.port()) +
                        " closed by the peer: the server is exclusive and client 127.0.0.1:"),
              1u);
    // The first one goes on as before.
    const osg::Vec3f p(1, 2, 3);
    e->setTransform(&p, nullptr);
    ASSERT_TRUE(until([&] { return server.getEmitter(e->id())->position() == p; }, step));
    EXPECT_EQ(server.clients(), 1u);
    EXPECT_EQ(server.getEmitter(77), nullptr);
    // Once it has gone, the next one gets in.
    first.reset();
    ASSERT_TRUE(until([&] { return server.getEmitter(77) != nullptr; }, step));
}

#ifdef KELO_SERVER_PROGRAM
// kelo-server's exit code and output (both streams); one that starts is stopped after 2 s.
std::pair<int, std::string> run(const std::string& args) {
    return runProgram("timeout --preserve-status 2 " KELO_SERVER_PROGRAM
                      " --host 127.0.0.1 --no-multicast " +
                      args);
}

TEST(HostileServer, KeloServerRefusesBadOptionsBeforeStarting) {
    for (const auto& [args, message] : std::vector<std::pair<std::string, std::string>>{
             {"--ttl 256", "--ttl: 256 is not in 0..255"},
             {"--ttl -5", "--ttl: -5 is not in 0..255"},
             {"--ttl 1.5", "--ttl"},
             {"--ttl", "--ttl"},
             {"--sound 99999999999=x", "--sound: 99999999999 is not in -32768..32767"},
             {"--sound 0=x", "--sound"},
             {"--sound 4=", "--sound"},
             {"-s 3=a.wav -s 3=b.wav", "--sound: id 3 is given twice"},
             {"--port 70000", "--port: 70000 is not in 0..65535"},
             {"--group-port 0", "--group-port"},
             {"--group 10.1.2.3", "--group: 10.1.2.3 is not a multicast address"},
             {"--interface eth0", "--interface"},
             {"--log-level 9", "--log-level"},
             {"--id 99999999999", "--id"},
             {"-b nosuch", "--backend: \"nosuch\" is not a backend type"},
             {"-b 'silent:labels=\"open'", "--backend"},
             {"--max-clients 0", "--max-clients"},
             {"--receive-budget 1e308", "--receive-budget"},
             {"--idle-limit inf", "--idle-limit"},
             {"--busy-poll 1000001", "--busy-poll: 1000001 is not in 0..1000000"},
             {"--scheduler-slice 50", "--scheduler-slice: 50 is not 0 and not in 100..100000"},
             {"--no-such-option", "--no-such-option"},
         }) {
        const auto [code, output] = run(args);
        EXPECT_EQ(code, 2) << args;
        // One line, and nothing started: no "listening on".
        EXPECT_THAT(output, ::testing::MatchesRegex("kelo-server: [^\n]*\n")) << args;
        EXPECT_THAT(output, HasSubstr(message)) << args;
    }
    EXPECT_EQ(run("--help").first, 0);
    // Within their bounds, the same options start it; SIGTERM stops it cleanly.
    const auto [code, output] =
        run("-b silent -b log:labels=a --ttl 255 --exclusive "
            "--max-clients 3 --receive-budget 64 --idle-limit 0 --busy-poll 1000 "
            "--scheduler-slice 100 --local-socket --id -7");
    EXPECT_EQ(code, 0) << output;
    EXPECT_THAT(output, HasSubstr("kelo-server: listening on 127.0.0.1:"));
    EXPECT_THAT(output, HasSubstr("kelo-server: stopped after 0 events"));
}
#endif

}  // namespace
