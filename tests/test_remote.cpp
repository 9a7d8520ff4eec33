// Client backends and servers over real loopback sockets: catch-up order, mirrored worlds,
// several servers, late joiners, a server that dies and returns, playing times coming back,
// and hostile peers. Servers are named by address; discovery has its own test.
#include <sys/socket.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <boost/asio.hpp>

#include <Kelo/ClientBackend.h>
#include <Kelo/CommandEvent.h>
#include <Kelo/Emitter.h>
#include <Kelo/Server.h>
#include <Kelo/Source.h>
#include <Kelo/SourceDurationEvent.h>
#include <Kelo/World.h>
#include <Lirra/MultiServer.h>

#include "SoundServer.h"
#include "support.h"

using Kelo::WorldPart;
using KeloTest::LogCapture;
using KeloTest::SoundServer;
using KeloTest::until;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using namespace std::chrono_literals;

namespace {

std::string named(std::initializer_list<const Kelo::Server*> servers) {
    std::string list;
    for (const Kelo::Server* s : servers)
        list += (list.empty() ? "" : ",") + std::string("127.0.0.1:") + std::to_string(s->port());
    return "servers=" + list + " retry=0.05";
}

// The application's side: a world with a client backend.
struct App {
    explicit App(const std::string& params) {
        client = static_cast<Kelo::ClientBackend*>(world.addBackend("client", params.c_str()));
    }
    ~App() {
        world.clearWorld();
        world.deleteAllBackends();
    }
    Kelo::World world;
    Kelo::ClientBackend* client;
};

// Every part of the client's world is on the server, as the client has it.
void expectMirrored(const Kelo::World& app, const Kelo::Server& server) {
    EXPECT_EQ(app.listenerPosition(), server.listenerPosition());
    EXPECT_EQ(app.listenerRotation(), server.listenerRotation());
    ASSERT_EQ(app.emitters().size(), server.emitters().size());
    for (const auto& [id, e] : app.emitters()) {
        const Kelo::Emitter* s = server.getEmitter(Kelo::CommandEvent::wireId(id));
        ASSERT_NE(s, nullptr) << "emitter " << id;
        EXPECT_EQ(s->position(), e->position());
        EXPECT_EQ(s->rotation(), e->rotation());
        EXPECT_EQ(s->labels(), e->labels());
        EXPECT_EQ(s->state(), e->state());
        EXPECT_EQ(s->gain(), e->gain());
        EXPECT_EQ(s->extraParam(), e->extraParam());
        EXPECT_EQ(s->spatialize(), e->spatialize());
        EXPECT_EQ(s->maxBack(), e->maxBack());
        EXPECT_EQ(s->minFront(), e->minFront());
        EXPECT_EQ(s->source() ? s->source()->id() : 0,
                  e->source() && server.getSource(e->source()->id()) ? e->source()->id() : 0);
    }
    for (const auto& [id, source] : app.sources())
        if (const Kelo::Source* s = server.getSource(Kelo::CommandEvent::wireId(id))) {
            EXPECT_EQ(s->state(), source->state());
            EXPECT_EQ(s->pitch(), source->pitch());
            EXPECT_EQ(s->loop(), source->loop());
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
    // A bare server that only records what arrives.
    Lirra::MultiServer raw;
    ASSERT_TRUE(raw.open("127.0.0.1", 0, false));
    Kelo::World world;
    Kelo::Source* five = world.createSource(5);
    Kelo::Source* two = world.createSource(2);
    two->setState(WorldPart::PLAY);
    Kelo::Emitter* e = world.createEmitter();
    e->setState(WorldPart::STOP);
    (void)five;
    world.addBackend("client",
                     ("servers=127.0.0.1:" + std::to_string(raw.listeningPort())).c_str());

    std::vector<std::pair<int, int>> got;  // command, id
    until([&] { return got.size() >= 13; },
          [&] {
              world.update();
              int waiting = 0;
              raw.communicatorsAvail(waiting);
              Lirra::Communicator* c = nullptr;
              if (waiting && raw.receiveCommunicator(c)) {
                  Lirra::Event* event = nullptr;
                  if (Lirra::Event::receive(c, event)) {
                      auto* command = static_cast<Kelo::CommandEvent*>(event);
                      got.emplace_back(command->command(), command->id());
                      EXPECT_EQ(command->stamp(), Kelo::CommandEvent::kSenderStamp);
                      delete event;
                  }
              }
          });
    const int id = e->id();
    EXPECT_THAT(got, ElementsAreArray(std::vector<std::pair<int, int>>{{10, 0},
                                                                       {13, 0},
                                                                       {20, 2},
                                                                       {22, 2},
                                                                       {24, 2},
                                                                       {20, 5},
                                                                       {22, 5},
                                                                       {30, id},
                                                                       {34, id},
                                                                       {35, id},
                                                                       {32, id},
                                                                       {33, id},
                                                                       {38, id}}));
    world.clearWorld();
    world.deleteAllBackends();
}

TEST(Remote, ServersMirrorTheWorldAndLateJoinersCatchUp) {
    SoundServer first, second;
    App app(named({&first, &second}));
    Kelo::Emitter* a = scene(app.world);
    const int id = a->id();
    auto pump = [&] {
        app.world.update();
        first.receive(false);
        second.receive(false);
    };
    ASSERT_TRUE(until([&] { return app.client->servers() == 2; }, pump));
    // A stream of live changes after the catch-up.
    for (int i = 0; i < 500; ++i) {
        const osg::Vec3f p(static_cast<float>(i), 0, -1);
        a->setTransform(&p, nullptr);
    }
    a->setState(WorldPart::PAUSE);
    app.world.getSource(1)->setParam(false, 0.75f);
    // Until the last change has arrived on both: a server applies what arrives in batches, so
    // the pause can be there a frame before it.
    const auto caughtUp = [&](const Kelo::Server& s) {
        return s.getEmitter(id) && s.getEmitter(id)->state() == WorldPart::PAUSE &&
               s.getSource(1) && s.getSource(1)->pitch() == 0.75f;
    };
    ASSERT_TRUE(until([&] { return caughtUp(first) && caughtUp(second); }, pump));
    expectMirrored(app.world, first);
    expectMirrored(app.world, second);
    EXPECT_EQ(first.getSource(7), nullptr);  // clients cannot create sources
    EXPECT_EQ(first.getEmitter(-25536)->source(), nullptr);

    // Two more servers join late and get the present state, not the history.
    SoundServer third, fourth;
    auto* more = static_cast<Kelo::ClientBackend*>(
        app.world.addBackend("client", named({&third, &fourth}).c_str()));
    // Their catch-up ends with the emitter of the highest id (40000, which wraps to -25536):
    // once it is there, the rest of its catch-up only repeats the values it was made with.
    const auto joined = [&](const Kelo::Server& s) {
        return s.getEmitter(id) && s.getEmitter(id)->state() == WorldPart::PAUSE &&
               s.getEmitter(-25536);
    };
    ASSERT_TRUE(until([&] { return more->servers() == 2 && joined(third) && joined(fourth); },
                      [&] {
                          pump();
                          third.receive(false);
                          fourth.receive(false);
                      }));
    expectMirrored(app.world, third);
    expectMirrored(app.world, fourth);
}

TEST(Remote, PlayingTimesComeBackAlsoToClientsThatConnectLater) {
    SoundServer server;
    auto* reporter = new KeloTest::RecordingBackend(server);
    reporter->setSourceDuration(*server.getSource(2), 1.25f);  // known before anyone connects
    App app(named({&server}));
    Kelo::Source* one = app.world.createSource(1);
    Kelo::Source* two = app.world.createSource(2);
    auto pump = [&] {
        app.world.update();
        server.receive(false);
    };
    ASSERT_TRUE(until([&] { return two->duration() == 1.25f; }, pump));
    reporter->setSourceDuration(*server.getSource(1), 2.5f);
    ASSERT_TRUE(until([&] { return one->duration() == 2.5f; }, pump));
    server.deleteAllBackends();
}

TEST(Remote, AServerThatDiesAndReturnsIsCaughtUpAgain) {
    LogCapture log(osg::LOG_FATAL);
    auto server = std::make_unique<SoundServer>();
    const unsigned short port = server->port();
    App app(named({server.get()}));
    const int id = scene(app.world)->id();
    ASSERT_TRUE(until([&] { return server->getEmitter(id) != nullptr; },
                      [&] {
                          app.world.update();
                          server->receive(false);
                      }));
    server.reset();
    ASSERT_TRUE(until([&] { return app.client->servers() == 0; }, [&] { app.world.update(); }));
    EXPECT_THAT(log.texts(), Contains("ClientBackend: Lost server\n"));

    // Changes made while it is away reach it with the catch-up when it is back.
    const osg::Vec3f away(9, 9, 9);
    app.world.getEmitter(id)->setTransform(&away, nullptr);
    server = std::make_unique<SoundServer>(port);
    // The catch-up's last emitter is the one of the highest id (40000, which wraps to -25536).
    ASSERT_TRUE(until(
        [&] {
            return server->getEmitter(id) && server->getEmitter(id)->position() == away &&
                   server->getEmitter(-25536);
        },
        [&] {
            app.world.update();
            server->receive(false);
        }));
    expectMirrored(app.world, *server);
}

// A server that reads nothing: once the client has more queued for it than allowed, it is
// dropped without the application ever waiting, and reached again with a fresh catch-up.
TEST(Remote, AServerThatCannotKeepUpIsDroppedAndCaughtUpAgain) {
    Lirra::MultiServer stalled;
    ASSERT_TRUE(stalled.open("127.0.0.1", 0, false));
    LogCapture log(osg::LOG_WARNING);
    App app("servers=127.0.0.1:" + std::to_string(stalled.listeningPort()) +
            " retry=0.05 sendLimit=65536");
    ASSERT_TRUE(until([&] { return app.client->servers() == 1; }, [&] { app.world.update(); }));
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
    EXPECT_THAT(log.texts(), Contains(::testing::HasSubstr("more than 65536 bytes waiting")));
    ASSERT_TRUE(until([&] { return app.client->servers() == 0; }, [&] { app.world.update(); }));
    EXPECT_THAT(log.texts(), Contains("ClientBackend: Lost server\n"));
    // Back on the next attempt: a new connection, caught up from the start (a reset first).
    ASSERT_TRUE(until([&] { return app.client->servers() == 1; }, [&] { app.world.update(); }));
    stalled.close();
}

// Raw sockets that misbehave: each is dropped alone, a proper client goes on.
TEST(Remote, HostilePeersAreDroppedAndOthersGoOn) {
    SoundServer server;
    App app(named({&server}));
    Kelo::Emitter* e = app.world.createEmitter();
    ASSERT_TRUE(until([&] { return server.getEmitter(e->id()) != nullptr; },
                      [&] {
                          app.world.update();
                          server.receive(false);
                      }));

    LogCapture log(osg::LOG_WARNING);
    boost::asio::io_context io;
    const boost::asio::ip::tcp::endpoint at(boost::asio::ip::make_address("127.0.0.1"),
                                            server.port());
    const std::string preamble("KELO\1\0\0\0", 8);
    const std::vector<std::string> attacks = {
        "GET / HTTP/1.1\r\n\r\n",                                  // not a Kelo peer
        std::string("KELO\2\0\0\0", 8),                            // another version
        preamble + std::string("\xff\xff\xff\x7f", 4),             // oversized frame
        preamble + std::string("\x0c\0\0\0\xc8\0\0\0\x24\0", 10),  // truncated, then gone
        preamble + std::string("\x04\0\0\0\x39\x30\0\0", 8),       // unknown type
    };
    for (const std::string& bytes : attacks) {
        boost::asio::ip::tcp::socket s(io);
        s.connect(at);
        // The server may have dropped this peer already: that is the point, not a failure.
        boost::system::error_code gone;
        boost::asio::write(s, boost::asio::buffer(bytes), gone);
        s.shutdown(boost::asio::ip::tcp::socket::shutdown_send, gone);
        for (int i = 0; i < 50; ++i) {
            server.receive(false);
            std::this_thread::sleep_for(2ms);
        }
    }
    const osg::Vec3f p(4, 5, 6);
    e->setTransform(&p, nullptr);
    EXPECT_TRUE(until([&] { return server.getEmitter(e->id())->position() == p; },
                      [&] {
                          app.world.update();
                          server.receive(false);
                      }));
    EXPECT_EQ(server.clients(), 1u);
    const auto texts = log.texts();
    auto has = [&](const std::string& part) {
        return std::any_of(texts.begin(), texts.end(),
                           [&](const std::string& t) { return t.find(part) != std::string::npos; });
    };
    EXPECT_TRUE(has("not a Kelo peer"));
    EXPECT_TRUE(has("another protocol version"));
    EXPECT_TRUE(has("frame of 2147483647 bytes"));
    EXPECT_TRUE(has("unknown event type 12345"));
    EXPECT_TRUE(has("Kelo::Server lost client"));
}

}  // namespace
