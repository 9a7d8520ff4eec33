// Client backends and servers over real loopback sockets: catch-up order, mirrored worlds,
// several servers, late joiners, the local socket, a server that dies and returns, playing
// times coming back, and hostile peers. Servers are named by address; discovery has its own test.
#include <memory>
#include <thread>
#include <tuple>

#include <unistd.h>

#include <boost/asio.hpp>

#include <Kelo/Emitter.h>
#include <Kelo/Source.h>

#include "PeerTest.h"
#include "SoundServer.h"
#include "support.h"

using Kelo::WorldPart;
using namespace KeloTest;
using namespace std::chrono_literals;

namespace {

std::string named(std::initializer_list<const SoundServer*> servers) {
    std::string list;
    for (const SoundServer* s : servers)
        list += (list.empty() ? "" : ",") + s->address();
    return "servers=" + list + " retry=0.05";
}

// The application's side: a world with a client backend.
struct App {
    explicit App(const std::string& params) : client(addClient(world, params)) {}
    // A step that updates the application and lets the servers read.
    template <typename... S>
    auto stepping(S&... servers) {
        return [this, &servers...] {
            world.update();
            (servers.receive(false), ...);
        };
    }
    Scene world;
    Kelo::ClientBackend* client;
};

// Every part of the client's world is on the server, as the client has it.
void expectMirrored(const Kelo::World& app, const Kelo::Server& server) {
    EXPECT_EQ(app.listenerPosition(), server.listenerPosition());
    EXPECT_EQ(app.listenerRotation(), server.listenerRotation());
    ASSERT_EQ(app.emitters().size(), server.emitters().size());
    const auto emitter = [](const Kelo::Emitter& e) {
        return std::make_tuple(e.position(), e.rotation(), e.labels(), e.state(), e.gain(),
                               e.extraParam(), e.spatialize(), e.maxBack(), e.minFront());
    };
    for (const auto& [id, e] : app.emitters()) {
        const Kelo::Emitter* s = server.getEmitter(Kelo::CommandEvent::wireId(id));
        ASSERT_NE(s, nullptr) << "emitter " << id;
        EXPECT_EQ(emitter(*s), emitter(*e)) << "emitter " << id;
        EXPECT_EQ(s->source() ? s->source()->id() : 0,
                  e->source() && server.getSource(e->source()->id()) ? e->source()->id() : 0);
    }
    for (const auto& [id, source] : app.sources())
        if (const Kelo::Source* s = server.getSource(Kelo::CommandEvent::wireId(id))) {
            EXPECT_EQ(std::make_tuple(s->state(), s->pitch(), s->loop()),
                      std::make_tuple(source->state(), source->pitch(), source->loop()));
        }
}

// Returns the connected, playing emitter.
Kelo::Emitter* scene(Kelo::World& world) {
    Kelo::Source* one = world.createSource(1);
    one->setParam(true, 1.5f);
    world.createSource(7);  // the servers do not have it
    Kelo::Emitter* a = world.createEmitter({"front", ""});
    const osg::Vec3f p(1, 2, 3);
    const osg::Quaternion q(0, 0.6f, 0, 0.8f);
    a->setTransform(&p, &q);
    a->setHull(10, 30, 1, 3);
    a->setParam(false, 0.5f, 0.25f);
    a->setSource(one);
    a->setState(WorldPart::PLAY);
    world.createEmitter({}, 40000)->setSource(world.getSource(7));  // wraps to -25536
    world.setListenerTransform(osg::Vec3f(0, 1, 0), q);
    return a;
}

// First in the file: its log lines come from call sites whose repeats are held back, so no
// other test of this process may have used them up yet.
TEST(Remote, ServerDispatchRefusesWhatItCannotApply) {
    SoundServer server;
    LogCapture log(osg::LOG_FATAL);
    Kelo::CommandEvent create(Kelo::CreateSource, 9), listener(Kelo::SetListenerTransform, 0),
        duration(Kelo::SourceDuration, 1), pitch(Kelo::PlaySource, 9), unknown(17, 0);
    for (Kelo::CommandEvent* e : {&create, &listener, &duration, &pitch, &unknown}) {
        e->setStamp(3378);
        EXPECT_FALSE(server.dispatchEvent(e));
    }
    EXPECT_THAT(
        log.texts(),
        ElementsAre("Got invalid Event: CommandEvent/20/9/3378\n",
                    "Got invalid Event: CommandEvent/13/0/3378\n", "Unkown command ID: 23\n",
                    "Got invalid Event: CommandEvent/23/1/3378\n",
                    "Got invalid Event: CommandEvent/24/9/3378\n", "Unkown command ID: 17\n",
                    "Got invalid Event: CommandEvent/17/0/3378\n"));
    EXPECT_EQ(server.receive(false), 0);
    server.run();
    server.run();
    EXPECT_EQ(log.texts().back(), "Kelo::Server thread is already running\n");

    for (auto [text, id] : std::vector<std::pair<const char*, short>>{
             {nullptr, 0}, {"", 0}, {"12", 12}, {"0", 48}, {"-5", -5}, {"AB", 131}}) {
        server.setId(text);
        EXPECT_EQ(server.id(), id) << (text ? text : "null");
    }
}

TEST(Remote, CatchUpFollowsTheWorldInAFixedOrder) {
    BareServer raw;
    Scene world;
    world.createSource(5);
    world.createSource(2)->setState(WorldPart::PLAY);
    Kelo::Emitter* e = world.createEmitter();
    e->setState(WorldPart::STOP);
    addClient(world, raw.named());
    std::string got;  // command/id of each event, in order
    int count = 0;
    until([&] { return count >= 13; },
          [&] {
              world.update();
              count += pump(raw, [&](Lirra::Event& event) {
                  const auto& command = static_cast<Kelo::CommandEvent&>(event);
                  got +=
                      std::to_string(command.command()) + "/" + std::to_string(command.id()) + " ";
                  EXPECT_EQ(command.stamp(), Kelo::CommandEvent::kSenderStamp);
              });
          });
    const std::string e_ = "/" + std::to_string(e->id()) + " ";
    EXPECT_EQ(got, "10/0 13/0 20/2 22/2 24/2 20/5 22/5 30" + e_ + "34" + e_ + "35" + e_ + "32" +
                       e_ + "33" + e_ + "38" + e_);
}

TEST(Remote, ServersMirrorTheWorldAndLateJoinersCatchUp) {
    SoundServer first, second;
    App app(named({&first, &second}));
    Kelo::Emitter* a = scene(app.world);
    const int id = a->id();
    const auto step = app.stepping(first, second);
    ASSERT_TRUE(until([&] { return app.client->servers() == 2; }, step));
    // A stream of live changes after the catch-up.
    for (int i = 0; i < 500; ++i) {
        const osg::Vec3f p(static_cast<float>(i), 0, -1);
        a->setTransform(&p, nullptr);
    }
    a->setState(WorldPart::PAUSE);
    app.world.getSource(1)->setParam(false, 0.75f);
    // Until the last change has arrived: a server applies what arrives in batches, so the pause
    // can be there a frame before the pitch. A catch-up ends with the emitter of the highest id
    // (40000, which wraps to -25536); once it is there, the rest only repeats its defaults.
    const auto caughtUp = [&](const Kelo::Server& s) {
        return s.getEmitter(id) && s.getEmitter(id)->state() == WorldPart::PAUSE &&
               s.getSource(1) && s.getSource(1)->pitch() == 0.75f && s.getEmitter(-25536);
    };
    ASSERT_TRUE(until([&] { return caughtUp(first) && caughtUp(second); }, step));
    expectMirrored(app.world, first);
    expectMirrored(app.world, second);
    EXPECT_EQ(first.getSource(7), nullptr);  // clients cannot create sources
    EXPECT_EQ(first.getEmitter(-25536)->source(), nullptr);

    // Two more servers join late and get the present state, not the history.
    SoundServer third, fourth;
    auto* more = addClient(app.world, named({&third, &fourth}));
    ASSERT_TRUE(until([&] { return more->servers() == 2 && caughtUp(third) && caughtUp(fourth); },
                      app.stepping(first, second, third, fourth)));
    expectMirrored(app.world, third);
    expectMirrored(app.world, fourth);
}

// A client asking for it reaches a server on this machine through the server's local socket
// (its peer is then a local process, not an address) and gets the whole stream in order; without
// the server's socket it comes over TCP all the same.
TEST(Remote, AClientOnThisMachineTakesTheServersLocalSocket) {
    SoundServer server, plain;
    LogCapture log(osg::LOG_WARNING);
    ASSERT_TRUE(server.setLocalSocket(true));
    EXPECT_TRUE(server.localSocket());
    EXPECT_FALSE(plain.localSocket());
    server.setExclusive(true);  // its refusal names the client it keeps
    App local(named({&server, &plain}) + " local=true");
    Kelo::Emitter* a = local.world.createEmitter();
    for (int i = 1; i <= 2000; ++i) {
        const osg::Vec3f p(static_cast<float>(i), 0, 0);
        a->setTransform(&p, nullptr);
    }
    a->setState(WorldPart::PLAY);
    const auto arrived = [&](const Kelo::Server& s) {
        return s.getEmitter(a->id()) && s.getEmitter(a->id())->state() == WorldPart::PLAY;
    };
    ASSERT_TRUE(
        until([&] { return arrived(server) && arrived(plain); }, local.stepping(server, plain)));
    expectMirrored(local.world, server);
    expectMirrored(local.world, plain);

    App other(named({&server}));
    ASSERT_TRUE(
        until([&] { return log.has("Kelo::Server is exclusive"); }, other.stepping(server)));
    EXPECT_TRUE(
        log.has("while client local process " + std::to_string(getpid()) + " is connected\n"))
        << log.text();

    // The name is the port's: a second socket cannot take it, and it is free again once closed.
    EXPECT_TRUE(server.setLocalSocket(false));
    boost::asio::io_context io;
    boost::asio::local::stream_protocol::acceptor squatter(io);
    squatter.open();
    squatter.bind(std::string(1, '\0') + "kelo-" + std::to_string(server.port()));
    EXPECT_FALSE(server.setLocalSocket(true));
    EXPECT_FALSE(server.localSocket());
    EXPECT_TRUE(log.has("Cannot listen on the local socket @kelo-" + std::to_string(server.port()) +
                        ": Address already in use\n"))
        << log.text();

    // Clients take the socket for 127.0.0.1: a server elsewhere must not answer for it.
    Kelo::Server elsewhere(0, "127.0.0.2");
    elsewhere.setMulticastEnabled(false);
    EXPECT_FALSE(elsewhere.setLocalSocket(true));
    EXPECT_TRUE(log.has("Cannot listen on the local socket @kelo-" +
                        std::to_string(elsewhere.port()) +
                        ": the server is not on the loopback address but on 127.0.0.2\n"))
        << log.text();
}

// 127.0.0.1 and ::1 may be two servers on one port: each has a local socket of its own, and a
// client reaches the one at the address it names.
TEST(Remote, EachLoopbackAddressHasALocalSocketOfItsOwn) {
    SoundServer v4;
    Kelo::Server v6(v4.port(), "::1");
    if (!v6.listening())
        GTEST_SKIP() << "cannot listen on [::1]:" << v4.port() << " here";
    v6.setMulticastEnabled(false);
    v6.setExclusive(true);
    LogCapture log(osg::LOG_WARNING);
    ASSERT_TRUE(v4.setLocalSocket(true));
    ASSERT_TRUE(v6.setLocalSocket(true)) << log.text();
    const std::string at6 = "servers=[::1]:" + std::to_string(v4.port());
    App local(at6 + " local=true");
    Kelo::Emitter* a = local.world.createEmitter();
    a->setState(WorldPart::PLAY);
    ASSERT_TRUE(until([&] { return v6.getEmitter(a->id()) != nullptr; }, local.stepping(v4, v6)));
    EXPECT_EQ(v4.getEmitter(a->id()), nullptr);
    EXPECT_EQ(v4.clients(), 0u);

    App other(at6);
    ASSERT_TRUE(until([&] { return log.has("Kelo::Server is exclusive"); }, other.stepping(v6)));
    EXPECT_TRUE(
        log.has("while client local process " + std::to_string(getpid()) + " is connected\n"))
        << log.text();
    EXPECT_EQ(v4.clients(), 0u);
    v6.clearWorld();
}

TEST(Remote, PlayingTimesComeBackAlsoToClientsThatConnectLater) {
    SoundServer server;
    auto* reporter = new RecordingBackend(server);
    reporter->setSourceDuration(*server.getSource(2), 1.25f);  // known before anyone connects
    App app(named({&server}));
    Kelo::Source* one = app.world.createSource(1);
    Kelo::Source* two = app.world.createSource(2);
    ASSERT_TRUE(until([&] { return two->duration() == 1.25f; }, app.stepping(server)));
    reporter->setSourceDuration(*server.getSource(1), 2.5f);
    ASSERT_TRUE(until([&] { return one->duration() == 2.5f; }, app.stepping(server)));
    server.deleteAllBackends();
}

TEST(Remote, AServerThatDiesAndReturnsIsCaughtUpAgain) {
    LogCapture log(osg::LOG_FATAL);
    auto server = std::make_unique<SoundServer>();
    const unsigned short port = server->port();
    App app(named({server.get()}));
    const int id = scene(app.world)->id();
    const auto step = [&] {
        app.world.update();
        server->receive(false);
    };
    ASSERT_TRUE(until([&] { return server->getEmitter(id) != nullptr; }, step));
    server.reset();
    ASSERT_TRUE(until([&] { return app.client->servers() == 0; }, [&] { app.world.update(); }));
    EXPECT_THAT(log.texts(), Contains("ClientBackend: Lost server\n"));

    // Changes made while it is away reach it with the catch-up when it is back (-25536 last).
    const osg::Vec3f away(9, 9, 9);
    app.world.getEmitter(id)->setTransform(&away, nullptr);
    server = std::make_unique<SoundServer>(port);
    ASSERT_TRUE(until(
        [&] {
            return server->getEmitter(id) && server->getEmitter(id)->position() == away &&
                   server->getEmitter(-25536);
        },
        step));
    expectMirrored(app.world, *server);
}

// A server that reads nothing: once the client has more queued for it than allowed, it is
// dropped without the application ever waiting, and reached again with a fresh catch-up.
TEST(Remote, AServerThatCannotKeepUpIsDroppedAndCaughtUpAgain) {
    BareServer stalled;
    LogCapture log(osg::LOG_WARNING);
    App app(stalled.named() + " retry=0.05 sendLimit=65536");
    const auto update = [&] { app.world.update(); };
    ASSERT_TRUE(until([&] { return app.client->servers() == 1; }, update));
    // Large events (8 KiB each, the most labels a server takes) fill what the server's side
    // and the system buffer quickly, also under ThreadSanitizer.
    const std::vector<std::string> labels(32, std::string(255, 'l'));
    const auto start = std::chrono::steady_clock::now();
    for (int i = 1; app.client->servers() == 1 && i < 50'000; ++i) {
        delete app.world.createEmitter(labels);
        if (i % 100 == 0) {
            app.world.update();
            // Room for the receiving thread to take the lost server out of the set.
            std::this_thread::sleep_for(1ms);
        }
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, 10s);
    EXPECT_TRUE(log.has("more than 65536 bytes waiting"));
    ASSERT_TRUE(until([&] { return app.client->servers() == 0; }, update));
    EXPECT_THAT(log.texts(), Contains("ClientBackend: Lost server\n"));
    // Back on the next attempt: a new connection, caught up from the start (a reset first).
    ASSERT_TRUE(until([&] { return app.client->servers() == 1; }, update));
    stalled.close();
}

// Raw sockets that misbehave: each is dropped alone, a proper client goes on.
TEST(Remote, HostilePeersAreDroppedAndOthersGoOn) {
    SoundServer server;
    App app(named({&server}));
    Kelo::Emitter* e = app.world.createEmitter();
    const auto step = app.stepping(server);
    ASSERT_TRUE(until([&] { return server.getEmitter(e->id()) != nullptr; }, step));

    LogCapture log(osg::LOG_WARNING);
    for (const std::string& bytes : {
             std::string("GET / HTTP/1.1\r\n\r\n"),                      // not a Kelo peer
             std::string("KELO\2\0\0\0", 8),                             // another version
             kPreamble + std::string("\xff\xff\xff\x7f", 4),             // oversized frame
             kPreamble + std::string("\x0c\0\0\0\xc8\0\0\0\x24\0", 10),  // truncated, then gone
             kPreamble + std::string("\x04\0\0\0\x39\x30\0\0", 8),       // unknown type
         }) {
        RawPeer{server.port(), bytes};  // sends, then closes
        for (int i = 0; i < 50; ++i) {
            server.receive(false);
            std::this_thread::sleep_for(2ms);
        }
    }
    const osg::Vec3f p(4, 5, 6);
    e->setTransform(&p, nullptr);
    EXPECT_TRUE(until([&] { return server.getEmitter(e->id())->position() == p; }, step));
    EXPECT_EQ(server.clients(), 1u);
    for (const char* reason :
         {"not a Kelo peer", "another protocol version", "frame of 2147483647 bytes",
          "unknown event type 12345", "Kelo::Server lost client"})
        EXPECT_TRUE(log.has(reason)) << reason;
}

}  // namespace
