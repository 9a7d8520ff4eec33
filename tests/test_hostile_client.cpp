// The client side under careless and hostile use: a backend destroyed while a server is still
// waiting for its catch-up, labels that would make a server hold too much, parameters and
// program options that are out of range. Every socket is on 127.0.0.1.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <Kelo/ClientBackend.h>
#include <Kelo/CreateEmitterEvent.h>
#include <Kelo/Emitter.h>
#include <Kelo/KeloMultiClient.h>
#include <Kelo/Server.h>
#include <Kelo/Source.h>
#include <Kelo/SourceDurationEvent.h>
#include <Kelo/World.h>
#include <Lirra/MultiServer.h>

#include "support.h"

using KeloTest::LogCapture;
using KeloTest::residentKiB;
using KeloTest::until;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using namespace std::chrono_literals;

namespace {

// The client backend added to world with params.
Kelo::ClientBackend* addClient(Kelo::World& world, const std::string& params) {
    return static_cast<Kelo::ClientBackend*>(world.addBackend("client", params.c_str()));
}

// The commands a bare server has received, until the client is gone and all is read.
std::vector<int> commandsReceived(Lirra::MultiServer& raw,
                                  std::chrono::milliseconds limit = 5000ms) {
    std::vector<int> got;
    const auto end = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < end) {
        int waiting = 0;
        raw.communicatorsAvail(waiting);
        Lirra::Communicator* c = nullptr;
        if (!waiting || !raw.receiveCommunicator(c)) {
            std::this_thread::sleep_for(1ms);
            continue;
        }
        Lirra::Event* event = nullptr;
        if (!Lirra::Event::receive(c, event)) {
            raw.removeCommunicator(c);
            delete c;
            break;  // the client has closed, after everything it sent
        }
        got.push_back(static_cast<Kelo::CommandEvent*>(event)->command());
        delete event;
    }
    return got;
}

TEST(ClientShutdown, AServerWaitingForItsCatchUpGetsTheReset) {
    for (int round = 0; round < 3; ++round) {
        Lirra::MultiServer raw;
        ASSERT_TRUE(raw.open("127.0.0.1", 0, false));
        KeloTest::Scene world;
        world.createEmitter({"a"});
        auto* client = addClient(world, "servers=127.0.0.1:" + std::to_string(raw.listeningPort()));
        ASSERT_TRUE(until([&] { return client->joiningServers() == 1; }));
        world.deleteAllBackends();  // before any update(): no catch-up, only the reset
        EXPECT_THAT(commandsReceived(raw), ElementsAre(Kelo::ResetWorld)) << "round " << round;
    }
}

// A server that connects while the backend goes: nothing touches a stopped network thread, and
// all the server can get is the reset.
TEST(ClientShutdown, AServerConnectingDuringDestructionIsClosed) {
    for (int round = 0; round < 5; ++round) {
        Lirra::MultiServer raw;
        ASSERT_TRUE(raw.open("127.0.0.1", 0, false));
        {
            KeloTest::Scene world;
            world.addBackend("client",
                             ("servers=127.0.0.1:" + std::to_string(raw.listeningPort())).c_str());
            std::this_thread::sleep_for(std::chrono::microseconds(200 * round));
        }
        for (int command : commandsReceived(raw, 500ms))
            EXPECT_EQ(command, Kelo::ResetWorld);
    }
}

// A server that reports playing times faster than the application updates: the client keeps
// the latest report of each source, not every report (at most one per source id), and refuses
// what is not a report on its receiving thread.
TEST(ClientReports, PlayingTimesAreKeptOnePerSource) {
    Lirra::MultiServer raw;
    ASSERT_TRUE(raw.open("127.0.0.1", 0, false));
    KeloTest::Scene world;
    std::vector<Kelo::Source*> sources;
    for (int id = 1; id <= 4; ++id)
        sources.push_back(world.createSource(id));
    auto* client = addClient(world, "servers=127.0.0.1:" + std::to_string(raw.listeningPort()));
    ASSERT_TRUE(
        until([&] { return client->servers() == 1 && raw.size() == 1; }, [&] { world.update(); }));

    std::atomic<bool> refused{false};
    auto sink = osg::Log::the().setSink([&](const osg::LogMessage& m) {
        if (m.text == "Unkown command ID: 17\n")
            refused = true;
    });
    constexpr int kReports = 100'000;
    Kelo::SourceDurationEvent d;
    d.setCommand(Kelo::SourceDuration);
    for (int i = 0; i < kReports; ++i) {
        d.setId(static_cast<int16_t>(1 + i % 4));
        d.setDuration(static_cast<float>(i));
        ASSERT_TRUE(d.send(&raw));
    }
    Kelo::CommandEvent last(17, 0);  // read after every report
    last.send(&raw);
    const bool read = until([&] { return refused.load(); }, [] {}, 30000ms);
    osg::Log::the().setSink(std::move(sink));
    ASSERT_TRUE(read);
    world.update();
    for (int id = 1; id <= 4; ++id)
        EXPECT_EQ(sources[id - 1]->duration(), static_cast<float>(kReports - 5 + id)) << id;
}

// A server of its own, on loopback, pumped by the test.
struct LocalServer : Kelo::Server {
    LocalServer() : Kelo::Server(0, "127.0.0.1") { setMulticastEnabled(false); }
    ~LocalServer() override { clearWorld(); }
};

TEST(ClientLabels, AnEmitterBeyondTheCapsIsSentCutAndLogged) {
    LocalServer server;
    LogCapture log(osg::LOG_WARNING);
    KeloTest::Scene world;
    auto* client = addClient(world, "servers=127.0.0.1:" + std::to_string(server.port()));
    std::vector<std::string> labels(40, "room");
    labels[3] = std::string(400, 'l');
    Kelo::Emitter* e = world.createEmitter(labels);
    ASSERT_TRUE(until([&] { return server.getEmitter(e->id()) != nullptr; },
                      [&] {
                          world.update();
                          server.receive(false);
                      }));
    const std::vector<std::string>& got = server.getEmitter(e->id())->labels();
    ASSERT_EQ(got.size(), 32u);
    EXPECT_EQ(got[3], std::string(255, 'l'));
    EXPECT_EQ(e->labels().size(), 40u);  // the application's own emitter keeps them all
    const std::string line = "ClientBackend: the 40 labels of emitter " + std::to_string(e->id()) +
                             " go beyond what servers take (at most 32 labels of at most 255 "
                             "bytes each): sent cut to that\n";
    // Once when created (no server yet), once in the catch-up.
    const auto texts = log.texts();
    EXPECT_EQ(std::count(texts.begin(), texts.end(), line), 2);
    EXPECT_EQ(client->servers(), 1u);
    world.clearWorld();
}

// ThreadSanitizer's shadow memory grows with every byte the program touches: resident size
// says nothing about the program's own memory there.
#if defined(__SANITIZE_THREAD__)
constexpr bool kResidentSizeMeans = false;
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
constexpr bool kResidentSizeMeans = false;
#else
constexpr bool kResidentSizeMeans = true;
#endif
#else
constexpr bool kResidentSizeMeans = true;
#endif

// AddressSanitizer holds freed blocks back for a while and pads every block: the same memory
// shows larger.
#if defined(__SANITIZE_ADDRESS__)
constexpr long kAllocatorFactor = 8;
#else
constexpr long kAllocatorFactor = 4;
#endif

std::vector<uint8_t> encoded(Kelo::CreateEmitterEvent& e) {
    std::vector<uint8_t> out;
    e.encode(out);
    return out;
}

// A frame of empty labels used to make a server hold about nine times its size, and again for
// every emitter id. Now such a frame is refused before anything is allocated, and what the
// largest accepted frames leave in the server's world stays within a small multiple of them.
TEST(ClientLabels, EmittersCostTheServerAboutTheirBytesOnTheWire) {
    LocalServer server;
    // Emitters with the most a frame may carry: measured first, before large blocks freed by
    // the rest of the test could be reused unseen.
    Kelo::CreateEmitterEvent e;
    e.setCommand(Kelo::CreateEmitter);
    std::vector<std::string> most(Kelo::CreateEmitterEvent::kMaxLabels,
                                  std::string(Kelo::CreateEmitterEvent::kMaxLabelBytes, 'x'));
    e.setLabels(most);
    const long start = residentKiB();
    ASSERT_GT(start, 0);
    size_t wire = 0;
    constexpr int kEmitters = 1000;
    std::vector<uint8_t> frame;
    for (int id = 1; id <= kEmitters; ++id) {
        e.setId(static_cast<int16_t>(id));
        frame = encoded(e);
        wire += frame.size();
        std::unique_ptr<Lirra::Event> event(
            Lirra::Event::decode(frame.data() + 4, frame.size() - 4));
        ASSERT_NE(event, nullptr);
        EXPECT_TRUE(server.dispatchEvent(static_cast<Kelo::CommandEvent*>(event.get())));
    }
    EXPECT_EQ(server.emitters().size(), static_cast<size_t>(kEmitters));
    const long grown = residentKiB() - start;
    RecordProperty("wireKiB", static_cast<int>(wire >> 10));
    RecordProperty("grownKiB", static_cast<int>(grown));
    // Generous: the labels' own bytes are about the frames' (1.05 times in a plain build).
    if (kResidentSizeMeans) {
        EXPECT_LT(grown, kAllocatorFactor * static_cast<long>(wire >> 10) + (16 << 10));
    }

    // Empty labels filling 8 MiB: refused, nothing allocated for them.
    e.setLabels(std::vector<std::string>(2u << 20));
    frame = encoded(e);
    e.setLabels({});
    LogCapture log(osg::LOG_WARNING);
    const long before = residentKiB();
    std::unique_ptr<Lirra::Event> refused(Lirra::Event::decode(frame.data() + 4, frame.size() - 4));
    EXPECT_EQ(refused, nullptr);
    if (kResidentSizeMeans) {
        EXPECT_LT(residentKiB() - before, 4 << 10);  // against 64 MiB and more before
    }
    EXPECT_THAT(log.texts(),
                ElementsAre("Refused event frame: CreateEmitterEvent: more than 32 labels\n"));
}

TEST(ClientParameters, BadValuesAreNamedAndTheDefaultsKept) {
    LogCapture log(osg::LOG_WARNING);
    KeloTest::Scene world;
    auto* client = addClient(world,
                             "servers=127.0.0.1:99999999999,:7000,nohost groupPort=70000 retry=inf "
                             "sendLimit=10 multicast=maybe group=10.0.0.1 interface=banana "
                             "transferData=perhaps");
    const Kelo::KeloMultiClient& c = *client->communicator();
    EXPECT_EQ(c.port(), 7627);
    EXPECT_EQ(c.retryInterval(), 3.0);
    EXPECT_EQ(c.sendLimit(), 64u << 20);
    EXPECT_FALSE(c.discover());  // servers were named, even if none was usable
    EXPECT_EQ(c.address().toString(), "239.255.76.67");
    EXPECT_EQ(c.interface().toString(), "0.0.0.0");
    EXPECT_TRUE(client->transferData());
    auto bad = [](const char* value, const char* key, const char* expected) {
        return std::string("ClientBackend: bad value \"") + value + "\" for parameter " + key +
               " (" + expected + ")\n";
    };
    const char* server = "host:port with a port from 1 to 65535";
    const auto texts = log.texts();
    for (const std::string& line :
         {bad("perhaps", "transferData", "true or false"),
          bad("maybe", "multicast", "true or false"),
          bad("10.0.0.1", "group", "a multicast address such as 239.255.76.67"),
          bad("70000", "groupPort", "a port from 1 to 65535"),
          bad("banana", "interface", "the numeric address of a local interface"),
          bad("inf", "retry", "seconds from 0.05 to 3600"),
          bad("10", "sendLimit", "bytes from 65536 to 1073741824"),
          bad("127.0.0.1:99999999999", "servers", server), bad(":7000", "servers", server),
          bad("nohost", "servers", server)})
        EXPECT_THAT(texts, Contains(line));
    EXPECT_EQ(texts.size(), 10u);
    EXPECT_EQ(client->servers() + client->joiningServers(), 0u);

    for (const char* value : {"1e308", "-1", "0.01", "nan", "3s"}) {
        KeloTest::Scene other;
        auto* b = addClient(other, std::string("multicast=off retry=") + value);
        EXPECT_EQ(b->communicator()->retryInterval(), 3.0) << value;
    }
}

TEST(ClientParameters, GoodValuesAreTaken) {
    LogCapture log(osg::LOG_WARNING);
    KeloTest::Scene world;
    auto* client =
        addClient(world,
                  "multicast=no groupPort=65535 retry=0.05 sendLimit=65536 group=239.1.2.3 "
                  "interface=127.0.0.1 transferData=off");
    const Kelo::KeloMultiClient& c = *client->communicator();
    EXPECT_EQ(c.port(), 65535);
    EXPECT_EQ(c.retryInterval(), 0.05);
    EXPECT_EQ(c.sendLimit(), 65536u);
    EXPECT_FALSE(c.discover());
    EXPECT_EQ(c.address().toString(), "239.1.2.3");
    EXPECT_EQ(c.interface().toString(), "127.0.0.1");
    EXPECT_FALSE(client->transferData());
    EXPECT_THAT(log.texts(), ::testing::IsEmpty());
}

TEST(ClientParameters, NamedServersAreCapped) {
    LogCapture log(osg::LOG_WARNING);
    std::string list;
    for (int port = 1; port <= 66; ++port)
        list += (list.empty() ? "" : ",") + std::string("127.0.0.1:") + std::to_string(port);
    KeloTest::Scene world;
    world.addBackend("client", ("retry=3600 servers=" + list).c_str());
    EXPECT_THAT(log.texts(),
                Contains("ClientBackend: bad value \"127.0.0.1:65,127.0.0.1:66\" for parameter "
                         "servers (at most 64 servers; these are left out)\n"));
}

TEST(ProgramOptions, KeloDemoRefusesBadOptionsBeforeStarting) {
#ifndef KELO_DEMO
    GTEST_SKIP() << "the programs are not built";
#else
    const std::string demo = KELO_DEMO;
    const std::pair<const char*, const char*> cases[] = {
        {"--server 127.0.0.1", "--server"},
        {"--server 127.0.0.1:70000", "--server"},
        {"--server :7000", "--server"},
        {"--server 127.0.0.1:99999999999", "--server"},
        {"--write-sounds /nonexistent/kelo", "--write-sounds"},
        {"--bogus", "--bogus"},
        {"--server", "--server"},
        {"--server 127.0.0.1:7000 --write-sounds /tmp", "--write-sounds"},
        {"extra", "extra"},
    };
    for (const auto& [args, named] : cases) {
        const auto [code, output] = KeloTest::runProgram(demo + " " + args);
        EXPECT_EQ(code, 2) << args << ": " << output;
        EXPECT_THAT(output, HasSubstr(named)) << args;
        EXPECT_THAT(output, ::testing::Not(HasSubstr("circle the listener every"))) << args;
    }
    EXPECT_EQ(KeloTest::runProgram(demo + " --help").first, 0);
#endif
}

TEST(ProgramOptions, LoadRemoteRefusesOptionsItDoesNotKnow) {
#ifndef KELO_LOAD_REMOTE
    GTEST_SKIP() << "the benchmarks are not built";
#else
    const std::string load = KELO_LOAD_REMOTE;
    for (const char* args : {"--bogus", "5", "--events", "--events 0", "--events 1e99",
                             "--events 99999999999999999999"}) {
        const auto [code, output] = KeloTest::runProgram(load + " " + args);
        EXPECT_EQ(code, 2) << args << ": " << output;
        EXPECT_THAT(output, HasSubstr(std::string(args).substr(0, std::string(args).find(' '))))
            << args;
        EXPECT_THAT(output, ::testing::Not(HasSubstr("throughput"))) << args;
    }
    const auto [code, output] = KeloTest::runProgram(load + " --help");
    EXPECT_EQ(code, 0);
    EXPECT_THAT(output, HasSubstr("--events"));
#endif
}

}  // namespace
