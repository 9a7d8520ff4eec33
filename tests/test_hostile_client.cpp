// The client side under careless and hostile use: a backend destroyed while a server is still
// waiting for its catch-up, labels that would make a server hold too much, parameters and
// program options that are out of range. Every socket is on 127.0.0.1.

#include <algorithm>
#include <memory>
#include <thread>

#include <Kelo/CreateEmitterEvent.h>
#include <Kelo/KeloMultiClient.h>
#include <Kelo/SourceDurationEvent.h>

#include "PeerTest.h"
#include "SoundServer.h"
#include "support.h"

using namespace KeloTest;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::UnorderedElementsAre;
using namespace std::chrono_literals;

namespace {

// The commands a bare server receives until the client has closed, or the time is up.
std::vector<int> commandsReceived(BareServer& raw, std::chrono::milliseconds limit = 5000ms) {
    std::vector<int> got;
    int lost = 0;
    until([&] { return lost > 0; },
          [&] {
              pump(
                  raw,
                  [&](Lirra::Event& e) {
                      got.push_back(static_cast<Kelo::CommandEvent&>(e).command());
                  },
                  &lost);
          },
          limit);
    return got;
}

// Destroyed while a server waits for its catch-up, or while one is still connecting: all the
// server gets is the reset (exactly that once it has joined), and nothing touches a stopped
// network thread.
TEST(ClientShutdown, AServerJoiningDuringDestructionGetsOnlyTheReset) {
    for (int round = 0; round < 8; ++round) {
        BareServer raw;
        {
            Scene world;
            world.createEmitter({"a"});
            auto* client = addClient(world, raw.named());
            if (round % 2 == 0) {
                ASSERT_TRUE(until([&] { return client->joiningServers() == 1; }));
                world.deleteAllBackends();  // before any update(): no catch-up, only the reset
                EXPECT_THAT(commandsReceived(raw), ElementsAre(Kelo::ResetWorld)) << round;
                continue;
            }
            std::this_thread::sleep_for(std::chrono::microseconds(100 * round));
        }
        for (int command : commandsReceived(raw, 500ms))
            EXPECT_EQ(command, Kelo::ResetWorld) << round;
    }
}

// A server that reports playing times faster than the application updates: the client keeps
// the latest report of each source, not every report (at most one per source id), and refuses
// what is not a report on its receiving thread.
TEST(ClientReports, PlayingTimesAreKeptOnePerSource) {
    BareServer raw;
    Scene world;
    for (int id = 1; id <= 4; ++id)
        world.createSource(id);
    auto* client = addClient(world, raw.named());
    ASSERT_TRUE(
        until([&] { return client->servers() == 1 && raw.size() == 1; }, [&] { world.update(); }));
    LogCapture log(osg::LOG_WARNING);
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
    ASSERT_TRUE(until([&] { return log.has("Unkown command ID: 17\n"); }, [] {}, 30000ms));
    world.update();
    for (int id = 1; id <= 4; ++id)
        EXPECT_EQ(world.getSource(id)->duration(), static_cast<float>(kReports - 5 + id)) << id;
}

TEST(ClientLabels, AnEmitterBeyondTheCapsIsSentCutAndLogged) {
    SoundServer server;
    LogCapture log(osg::LOG_WARNING);
    Scene world;
    auto* client = addClient(world, "servers=" + server.address());
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
    // Once when created (no server yet), once in the catch-up.
    EXPECT_EQ(log.count("ClientBackend: the 40 labels of emitter " + std::to_string(e->id()) +
                        " go beyond what servers take (at most 32 labels of at most 255 bytes "
                        "each): sent cut to that\n"),
              2u);
    EXPECT_EQ(client->servers(), 1u);
    world.clearWorld();
}

// A frame of empty labels used to make a server hold about nine times its size, and again for
// every emitter id. Now such a frame is refused before anything is allocated, and what the
// largest accepted frames leave in the server's world stays within a small multiple of them.
TEST(ClientLabels, EmittersCostTheServerAboutTheirBytesOnTheWire) {
    SoundServer server;
    // Emitters with the most a frame may carry: measured first, before large blocks freed by
    // the rest of the test could be reused unseen.
    Kelo::CreateEmitterEvent e;
    e.setCommand(Kelo::CreateEmitter);
    e.setLabels(
        std::vector<std::string>(Kelo::CreateEmitterEvent::kMaxLabels,
                                 std::string(Kelo::CreateEmitterEvent::kMaxLabelBytes, 'x')));
    const auto decode = [](const std::string& frame) {  // as a server's receiver does
        return std::unique_ptr<Lirra::Event>(Lirra::Event::decode(
            reinterpret_cast<const uint8_t*>(frame.data()) + 4, frame.size() - 4));
    };
    const long start = residentKiB();
    ASSERT_GT(start, 0);
    size_t wire = 0;
    constexpr int kEmitters = 1000;
    for (int id = 1; id <= kEmitters; ++id) {
        e.setId(static_cast<int16_t>(id));
        const std::string frame = frameOf(e);
        wire += frame.size();
        const auto event = decode(frame);
        ASSERT_NE(event, nullptr);
        EXPECT_TRUE(server.dispatchEvent(static_cast<Kelo::CommandEvent*>(event.get())));
    }
    EXPECT_EQ(server.emitters().size(), static_cast<size_t>(kEmitters));
    const long grown = residentKiB() - start;
    RecordProperty("wireKiB", static_cast<int>(wire >> 10));
    RecordProperty("grownKiB", static_cast<int>(grown));
    // Generous: the labels' own bytes are about the frames' (1.05 times in a plain build).
    if (!kTsan) {
        EXPECT_LT(grown, (kAsan ? 8 : 4) * static_cast<long>(wire >> 10) + (16 << 10));
    }

    // Empty labels filling 8 MiB: refused, nothing allocated for them.
    e.setLabels(std::vector<std::string>(2u << 20));
    const std::string frame = frameOf(e);
    e.setLabels({});
    LogCapture log(osg::LOG_WARNING);
    const long before = residentKiB();
    EXPECT_EQ(decode(frame), nullptr);
    if (!kTsan) {
        EXPECT_LT(residentKiB() - before, 4 << 10);  // against 64 MiB and more before
    }
    EXPECT_THAT(log.texts(),
                ElementsAre("Refused event frame: CreateEmitterEvent: more than 32 labels\n"));
}

// What the parameters set: group port, retry, send limit, discovery, group, interface,
// transferData, gather time, local socket.
auto settings(Kelo::ClientBackend* client) {
    const Kelo::KeloMultiClient& c = *client->communicator();
    return std::make_tuple(int(c.port()), c.retryInterval(), size_t(c.sendLimit()), c.discover(),
                           c.address().toString(), c.interface().toString(), client->transferData(),
                           c.gatherTime(), c.local());
}

TEST(ClientParameters, BadValuesAreNamedAndTheDefaultsKept) {
    LogCapture log(osg::LOG_WARNING);
    Scene world;
    auto* client = addClient(world,
                             "servers=127.0.0.1:99999999999,:7000,nohost groupPort=70000 retry=3s "
                             "sendLimit=10 multicast=maybe group=10.0.0.1 interface=banana "
                             "transferData=perhaps gather=1001 local=nearby");
    // No discovery: servers were named, even if none was usable.
    EXPECT_EQ(settings(client), std::make_tuple(7627, 3.0, size_t(64u << 20), false,
                                                "239.255.76.67", "0.0.0.0", true, 50u, false));
    auto bad = [](const char* value, const char* key, const char* expected) {
        return std::string("ClientBackend: bad value \"") + value + "\" for parameter " + key +
               " (" + expected + ")\n";
    };
    const char* server = "host:port with a port from 1 to 65535";
    EXPECT_THAT(
        log.texts(),
        UnorderedElementsAre(bad("perhaps", "transferData", "true or false"),
                             bad("maybe", "multicast", "true or false"),
                             bad("10.0.0.1", "group", "a multicast address such as 239.255.76.67"),
                             bad("70000", "groupPort", "a port from 1 to 65535"),
                             bad("banana", "interface", "the numeric address of a local interface"),
                             bad("3s", "retry", "seconds from 0.05 to 3600"),
                             bad("10", "sendLimit", "bytes from 65536 to 1073741824"),
                             bad("1001", "gather", "microseconds from 0 to 1000"),
                             bad("nearby", "local", "true or false"),
                             bad("127.0.0.1:99999999999", "servers", server),
                             bad(":7000", "servers", server), bad("nohost", "servers", server)));
    EXPECT_EQ(client->servers() + client->joiningServers(), 0u);
}

TEST(ClientParameters, GoodValuesAreTakenAndNamedServersCapped) {
    LogCapture log(osg::LOG_WARNING);
    Scene world;
    auto* client =
        addClient(world,
                  "multicast=no groupPort=65535 retry=0.05 sendLimit=65536 group=239.1.2.3 "
                  "interface=127.0.0.1 transferData=off gather=0 local=yes");
    EXPECT_EQ(settings(client), std::make_tuple(65535, 0.05, size_t(65536), false, "239.1.2.3",
                                                "127.0.0.1", false, 0u, true));
    EXPECT_THAT(log.texts(), IsEmpty());

    std::string list = "retry=3600 servers=127.0.0.1:1";
    for (int port = 2; port <= 66; ++port)
        list += ",127.0.0.1:" + std::to_string(port);
    addClient(world, list);
    EXPECT_THAT(log.texts(),
                Contains("ClientBackend: bad value \"127.0.0.1:65,127.0.0.1:66\" for parameter "
                         "servers (at most 64 servers; these are left out)\n"));
}

// Runs program with each set of bad arguments: it must stop with code 2, naming the last option
// given (or the first word) and before printing running, and answer --help with code 0 and
// helpText.
[[maybe_unused]] void expectRefused(const std::string& program,
                                    std::initializer_list<const char*> cases, const char* running,
                                    const char* helpText) {
    for (const std::string args : cases) {
        const auto [code, output] = runProgram(program + " " + args);
        const size_t option = args.rfind("--");
        const std::string named = args.substr(option == std::string::npos ? 0 : option);
        EXPECT_EQ(code, 2) << args << ": " << output;
        EXPECT_THAT(output, HasSubstr(named.substr(0, named.find(' ')))) << args;
        EXPECT_THAT(output, Not(HasSubstr(running))) << args;
    }
    const auto [code, output] = runProgram(program + " --help");
    EXPECT_EQ(code, 0);
    EXPECT_THAT(output, HasSubstr(helpText));
}

TEST(ProgramOptions, KeloDemoRefusesBadOptionsBeforeStarting) {
#ifndef KELO_DEMO
    GTEST_SKIP() << "the programs are not built";
#else
    expectRefused(KELO_DEMO,
                  {"--server 127.0.0.1", "--server 127.0.0.1:70000", "--server :7000",
                   "--server 127.0.0.1:99999999999", "--write-sounds /nonexistent/kelo", "--bogus",
                   "--server", "--server 127.0.0.1:7000 --write-sounds /tmp", "extra"},
                  "circle the listener every", "--server");
#endif
}

TEST(ProgramOptions, LoadRemoteRefusesOptionsItDoesNotKnow) {
#ifndef KELO_LOAD_REMOTE
    GTEST_SKIP() << "the benchmarks are not built";
#else
    expectRefused(KELO_LOAD_REMOTE,
                  {"--bogus", "5", "--events", "--events 0", "--events 1e99",
                   "--events 99999999999999999999", "--slice 50", "--local 2"},
                  "throughput", "--events");
#endif
}

}  // namespace
