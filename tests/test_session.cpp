// Session files: what kelo-record records from a client application, replayed by kelo-replay,
// leaves a server as the application left its world, byte for byte and in time; damaged files;
// bad options. Every socket is on 127.0.0.1.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <iomanip>
#include <memory>
#include <regex>
#include <sstream>
#include <thread>

#include <boost/asio.hpp>

#include <Kelo/ClientBackend.h>
#include <Kelo/CommandEvent.h>
#include <Kelo/CreateEmitterEvent.h>
#include <Kelo/ReplayWorld.h>
#include <Kelo/SessionReader.h>
#include <Kelo/SessionWriter.h>
#include <Kelo/TransformEvent.h>

#include "SoundServer.h"
#include "support.h"

using namespace KeloTest;
using Kelo::WorldPart;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using namespace std::chrono_literals;

namespace {

using Event = std::shared_ptr<Kelo::CommandEvent>;
Event command(int16_t command, int16_t id) {
    return std::make_shared<Kelo::CommandEvent>(command, id);
}
Event created(int16_t id, const std::vector<std::string>& labels = {}) {
    auto e = std::make_shared<Kelo::CreateEmitterEvent>();
    e->setCommand(Kelo::CreateEmitter);
    e->setId(id);
    e->setLabels(labels);
    return e;
}
Event moved(int16_t id, const osg::Vec3f& to = {}) {
    auto e = std::make_shared<Kelo::TransformEvent>();
    e->setCommand(Kelo::SetEmitterTransform);
    e->setId(id);
    e->setPosition(to);
    return e;
}

// A session file of a header, then each event at its time in seconds.
std::string session(const std::string& name, const std::vector<std::pair<double, Event>>& events) {
    const std::string path = scratch(name);
    Kelo::SessionWriter header;
    EXPECT_TRUE(header.open(path) && header.close());
    std::ofstream out(path, std::ios::binary | std::ios::app);
    for (const auto& [seconds, event] : events) {
        const auto micros = static_cast<uint64_t>(seconds * 1e6);
        for (int i = 0; i < 8; ++i)
            out.put(static_cast<char>(micros >> (8 * i)));
        std::vector<uint8_t> frame;
        event->encode(frame);
        out.write(reinterpret_cast<const char*>(frame.data()),
                  static_cast<std::streamsize>(frame.size()));
    }
    return path;
}

// A reset, emitter 4's creation and a move of it: a header of 28 bytes, then records of 8 + 12,
// 8 + 21 and 8 + 40 bytes.
std::string threeEvents(const std::string& name = "three.kelo") {
    return session(name,
                   {{0, command(Kelo::ResetWorld, 0)}, {0, created(4, {"x"})}, {0, moved(4)}});
}
constexpr size_t kSecond = 28 + 20, kThird = kSecond + 29;

// The frames of a session file, which must be whole.
std::vector<std::vector<uint8_t>> framesOf(const std::string& path) {
    Kelo::SessionReader reader;
    EXPECT_TRUE(reader.open(path)) << reader.error();
    std::vector<std::vector<uint8_t>> frames;
    std::vector<uint8_t> frame;
    uint64_t micros = 0;
    while (reader.nextFrame(micros, frame))
        frames.push_back(frame);
    EXPECT_FALSE(reader.damaged()) << reader.error();
    return frames;
}

TEST(Session, AReplayedResetIsSentAloneAndBadEventsAreCounted) {
    Kelo::ReplayWorld world;
    auto* backend = new RecordingBackend(world);
    for (const Event& e :
         {command(Kelo::CreateSource, 2), created(3), moved(3), command(Kelo::PlayEmitter, 3)})
        EXPECT_TRUE(world.apply(*e));
    EXPECT_FALSE(world.apply(*command(Kelo::DestroyEmitter, 8)));  // no such emitter
    EXPECT_FALSE(world.apply(*command(Kelo::CreateSource, 2)));    // it exists
    EXPECT_EQ(backend->take(),
              "createSource(2) createEmitter(3) setEmitterTransform(3) setEmitterState(3)");
    EXPECT_TRUE(world.apply(*command(Kelo::ResetWorld, 0)));
    EXPECT_EQ(backend->take(), "resetBackend");
    EXPECT_TRUE(world.emitters().empty() && world.sources().empty());
    EXPECT_EQ(world.applied(), 5u);
    EXPECT_EQ(world.refused(), 2u);
    world.deleteAllBackends();
}

TEST(Session, TheLimitKeepsAWholeFileAndNamesTakeTheTime) {
    const std::string path = scratch("limit.kelo");
    Kelo::SessionWriter writer;
    writer.setLimit(Kelo::SessionWriter::kHeaderSize + 3 * (8 + 40));
    ASSERT_TRUE(writer.open(path));
    int written = 0;
    while (writer.write(*moved(0)))
        ++written;
    EXPECT_EQ(written, 3);
    EXPECT_TRUE(writer.full());
    EXPECT_TRUE(writer.close());
    EXPECT_EQ(framesOf(path).size(), 3u);
    const uint8_t halfFrame[] = {8, 0, 0, 0, 200, 0};
    Kelo::SessionWriter other;
    ASSERT_TRUE(other.open(path));
    EXPECT_FALSE(other.write(halfFrame, sizeof halfFrame));  // not a whole frame
    EXPECT_EQ(other.records(), 0u);
    // Each start of a service keeps its own session.
    EXPECT_EQ(Kelo::SessionWriter::expandName("plain.kelo"), "plain.kelo");
    EXPECT_THAT(Kelo::SessionWriter::expandName("s-%Y%%.kelo"),
                ::testing::MatchesRegex("s-2[0-9][0-9][0-9]%\\.kelo"));
    EXPECT_EQ(Kelo::SessionWriter::expandName(std::string(5000, 'x') + "%Y"), "");
}

TEST(Session, DamageIsReportedWithItsOffsetAfterWhatCameBefore) {
    const std::string good = readFile(threeEvents());
    ASSERT_EQ(good.size(), kThird + 48);
    std::string badLength = good, refused = good.substr(0, good.size() - 4), backwards = good,
                version = good;
    badLength.replace(kSecond + 8, 4, "\xff\xff\xff\xff");
    refused[kThird + 8] = 32;                   // the transform's last float left out
    backwards.replace(kSecond + 5, 1, "\x01");  // 2^40 microseconds
    version[8] = 2;
    for (const auto& [bytes, message] : std::vector<std::pair<std::string, std::string>>{
             {good.substr(0, kThird + 30),
              "offset 77: record cut short: 18 of 36 bytes of its frame"},
             {good.substr(0, kThird + 5), "offset 77: record cut short: 5 of its first 12 bytes"},
             {badLength, "offset 48: frame length 4294967295 is not in 4..67108864"},
             {refused, "offset 77: frame refused: TransformEvent: truncated field"},
             {backwards, "offset 77: time 0.000000 s is before the previous record's 10995"},
             {"KELX" + good.substr(4),
              "offset 0: not a Kelo session file (it does not begin with KELOSESS)"},
             {good.substr(0, 20), "offset 12: header cut short"},
             {version, "offset 8: session format version 2; this program reads version 1"},
         }) {
        const std::string path = scratch("damaged.kelo");
        std::ofstream(path, std::ios::binary) << bytes;
        Kelo::SessionReader reader;
        size_t events = 0;
        if (reader.open(path)) {
            uint64_t micros;
            while (reader.next(micros))
                ++events;
            EXPECT_TRUE(reader.damaged()) << message;
        }
        EXPECT_THAT(reader.error(), StartsWith(message));
        if (message.rfind("offset 77", 0) == 0) {
            EXPECT_EQ(events, 2u) << message;  // everything before the damage
        }
    }
}

#if defined(KELO_REPLAY_PROGRAM) && defined(KELO_RECORD_PROGRAM)
std::ostream& operator<<(std::ostream& out, const osg::Vec3f& v) {
    return out << v[0] << ',' << v[1] << ',' << v[2];
}
std::ostream& operator<<(std::ostream& out, const osg::Quaternion& q) {
    return out << q[0] << ',' << q[1] << ',' << q[2] << ',' << q[3];
}

// Everything of a world that a session carries, a line an item, emitters by their wire id; not
// source 2, which servers have of their own.
std::string describe(const Kelo::World& w) {
    std::vector<std::string> lines;
    for (const auto& [id, e] : w.emitters()) {
        std::ostringstream line;
        line << std::setprecision(9) << "emitter " << Kelo::CommandEvent::wireId(id) << " "
             << e->position() << " " << e->rotation() << " state " << e->state() << " param "
             << e->spatialize() << " " << e->extraParam() << " " << e->gain() << " hull "
             << e->maxBack() << " " << e->maxFront() << " " << e->minBack() << " " << e->minFront()
             << " source " << (e->source() ? e->source()->id() : 0);
        for (const std::string& label : e->labels())
            line << " '" << label << "'";
        lines.push_back(line.str());
    }
    for (const auto& [id, s] : w.sources())
        if (id != 2)
            lines.push_back("source " + std::to_string(id) + " " + std::to_string(s->state()) +
                            " " + std::to_string(s->pitch()) + " " + std::to_string(s->loop()));
    std::sort(lines.begin(), lines.end());
    std::ostringstream out;
    out << std::setprecision(9) << "listener " << w.listenerPosition() << " "
        << w.listenerRotation();
    for (const std::string& line : lines)
        out << "\n" << line;
    return out.str();
}

// What an application does over a short while.
void scene(Kelo::World& world) {
    Kelo::Source* one = world.createSource(1);
    one->setParam(true, 1.5f);
    Kelo::Source* seven = world.createSource(7);  // the servers do not have it
    Kelo::Emitter* a = world.createEmitter({"front", ""});
    const osg::Quaternion q(0, 0.6f, 0, 0.8f);
    const osg::Vec3f p(1, 2, 3);
    a->setTransform(&p, &q);
    a->setHull(10, 30, 1, 3);
    a->setParam(false, 0.5f, 0.25f);
    a->setSource(one);
    Kelo::Emitter* b = world.createEmitter({"rear"}, 40000);  // travels as -25536
    b->setSource(one);
    a->setState(WorldPart::PLAY);  // reaches the source and, through it, b
    world.update();
    Kelo::Emitter* c = world.createEmitter({}, 5);
    c->setSource(seven);
    delete c;
    world.setListenerTransform(osg::Vec3f(0, 1, 0), q);
    const osg::Vec3f behind(1.9f, 0, -1);
    b->setTransform(&behind, nullptr);
    b->setState(WorldPart::PAUSE);
    delete seven;
    world.createEmitter({"end"}, 999);
    world.update();
}

// A client application's world connected to server.
struct App : Scene {
    explicit App(const std::string& server) {
        client = static_cast<Kelo::ClientBackend*>(
            addBackend("client", ("servers=" + server + " retry=0.05").c_str()));
    }
    Kelo::ClientBackend* client;
};

// A program that runs while the test goes on, both its streams into a file.
struct Background {
    explicit Background(std::vector<std::string> args) {
        static int count = 0;
        std::vector<char*> argv;
        for (std::string& a : args)
            argv.push_back(a.data());
        argv.push_back(nullptr);
        const int fd = ::open(log.assign(scratch("run" + std::to_string(++count))).c_str(),
                              O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        if ((pid = fork()) == 0) {
            dup2(fd, 1);
            dup2(fd, 2);
            execv(argv[0], argv.data());
            _exit(127);
        }
        close(fd);
    }
    ~Background() {
        if (status < 0 && kill(pid, SIGKILL) == 0)
            waitpid(pid, nullptr, 0);
    }
    std::string output() const { return readFile(log); }
    bool saw(const std::string& text) const { return output().find(text) != std::string::npos; }
    // Sends the signal; the exit code once it has ended (pump running meanwhile), else -1.
    int exitCode(int signal, const std::function<void()>& pump) {
        kill(pid, signal);
        int wait = 0;
        if (until([&] { return waitpid(pid, &wait, WNOHANG) == pid; }, pump, 10s))
            status = WIFEXITED(wait) ? WEXITSTATUS(wait) : 128;
        return status;
    }
    std::string log;
    pid_t pid = -1;
    int status = -1;
};

// A port on 127.0.0.1 that nobody listens on (the system's choice, given back).
std::string freeAddress() {
    boost::asio::io_context io;
    boost::asio::ip::tcp::acceptor acceptor(io, {boost::asio::ip::address_v4::loopback(), 0});
    return "127.0.0.1:" + std::to_string(acceptor.local_endpoint().port());
}

// An application's scene through kelo-record, then kelo-replay at four times the speed to a
// server that records in turn: the same scene, in a quarter of the time, byte for byte.
TEST(Session, ProgramsRecordAndReplayTheSceneExactlyAtFourTimesTheSpeed) {
    const std::string file = scratch("programs.kelo"), again = scratch("again.kelo"),
                      at = freeAddress();
    Background recorder({KELO_RECORD_PROGRAM, "--servers", at, file});
    ASSERT_TRUE(until([&] { return recorder.saw("recording into"); })) << recorder.output();
    App app(at);
    ASSERT_TRUE(until([&] { return app.client->servers() == 1; }, [&] { app.update(); }));
    // About 2 s: the scene, then a move every 20 ms.
    const auto start = std::chrono::steady_clock::now();
    scene(app);
    for (int i = 0; std::chrono::steady_clock::now() - start < 2s; ++i) {
        const osg::Vec3f p(static_cast<float>(i), 0, 0);
        app.getEmitter(999)->setTransform(&p, nullptr);
        std::this_thread::sleep_for(20ms);
    }
    std::this_thread::sleep_for(300ms);  // what was sent has arrived
    ASSERT_EQ(recorder.exitCode(SIGTERM, [] {}), 0) << recorder.output();
    EXPECT_THAT(recorder.output(), HasSubstr("kelo-record: recorded "));

    SoundServer server;
    Kelo::SessionWriter seen;
    ASSERT_TRUE(seen.open(again));
    server.setRecorder(&seen);
    const auto pump = [&] { server.receive(false); };
    Background replay(
        {KELO_REPLAY_PROGRAM, file, "--servers", server.address(), "--speed", "4", "--hold"});
    ASSERT_TRUE(until([&] { return replay.saw("holding the scene"); }, pump, 10s))
        << replay.output();
    const std::string out = replay.output();
    EXPECT_THAT(out, HasSubstr(", kelo-record on " + at + ") to 1 server at speed 4\n"));
    std::smatch times;
    ASSERT_TRUE(std::regex_search(
        out, times,
        std::regex(R"(played \d+ events \(([0-9.]+) s of the session\) in ([0-9.]+) s)")))
        << out;
    const double session = std::stod(times[1]), took = std::stod(times[2]);
    EXPECT_GT(session, 1.9);
    EXPECT_GT(took, session / 4 * 0.7) << out;
    EXPECT_LT(took, session / 4 * 1.5 + 0.1) << out;
    // Emitter 999's last place comes last: then the whole scene is there.
    ASSERT_TRUE(until([&] { return describe(app) == describe(server); }, pump))
        << describe(app) << "\nagainst\n"
        << describe(server);
    server.setRecorder(nullptr);  // before the player leaves, which resets the server
    ASSERT_TRUE(seen.close());
    // The player's own catch-up of its empty world (a reset and the listener), then everything
    // the application sent.
    const auto sent = framesOf(file), got = framesOf(again);
    ASSERT_EQ(got.size(), sent.size() + 2);
    EXPECT_TRUE(std::equal(sent.begin(), sent.end(), got.begin() + 2));
    EXPECT_EQ(replay.exitCode(SIGTERM, pump), 0) << replay.output();
    EXPECT_TRUE(until([&] { return server.getEmitter(999) == nullptr; }, pump));
}

TEST(Session, ReplayFromSkipsAheadStopsAtDamageAndLoopStartsAgainWithAReset) {
    const std::string late = session("late.kelo", {{0, command(Kelo::ResetWorld, 0)},
                                                   {0.1, created(4, {"x"})},
                                                   {30, moved(4, {1, 0, 0})},
                                                   {30.2, created(5)}});
    const std::string damage = "offset " + std::to_string(readFile(late).size()) +
                               ": record cut short: 5 of its first 12 bytes\n";
    std::ofstream(late, std::ios::binary | std::ios::app) << std::string(5, '\0');
    SoundServer server;
    const auto pump = [&] { server.receive(false); };
    {
        Background from(
            {KELO_REPLAY_PROGRAM, late, "--servers", server.address(), "--from", "30", "--hold"});
        // Not 30 s: what came before was applied at once.
        ASSERT_TRUE(until([&] { return from.saw("holding"); }, pump)) << from.output();
        EXPECT_THAT(from.output(), HasSubstr("kelo-replay: " + late + ": " + damage));
        ASSERT_TRUE(until([&] { return server.getEmitter(5) != nullptr; }, pump));
        EXPECT_EQ(server.getEmitter(4)->position(), osg::Vec3f(1, 0, 0));
        EXPECT_EQ(server.getEmitter(4)->labels(), std::vector<std::string>{"x"});
        EXPECT_EQ(from.exitCode(SIGTERM, pump), 1) << from.output();
    }
    const std::string file = scratch("loop-seen.kelo");
    Kelo::SessionWriter seen;
    ASSERT_TRUE(seen.open(file));
    server.setRecorder(&seen);
    {
        Background loop({KELO_REPLAY_PROGRAM,
                         session("loop.kelo", {{0.05, created(4)}, {0.15, created(5)}}),
                         "--servers", server.address(), "--loop"});
        until([] { return false; }, pump, 700ms);
        EXPECT_EQ(loop.exitCode(SIGINT, pump), 0) << loop.output();
        EXPECT_THAT(loop.output(), HasSubstr("kelo-replay: stopped after "));
    }
    server.setRecorder(nullptr);
    ASSERT_TRUE(seen.close());
    // Each pass after the first starts with a reset (10), then creates the two emitters (30).
    std::string commands;
    for (const auto& frame : framesOf(file))
        if (frame[8] != Kelo::SetListenerTransform)
            commands += std::to_string(frame[8]) + " ";
    EXPECT_THAT(commands, HasSubstr("10 30 30 10 30 30 10 30 30 "));
}

TEST(Session, ProgramsRefuseBadInputWithOneLine) {
    const std::string replay = KELO_REPLAY_PROGRAM, good = threeEvents("good.kelo"),
                      version = scratch("version.kelo"), closed = freeAddress(),
                      missing = scratch("missing.kelo"), nowhere = "/nonexistent/dir/x.kelo";
    std::ofstream(version, std::ios::binary)
        << std::string("KELOSESS\x02", 9) << std::string(19, '\0');
    for (const auto& [command, code, line] : std::vector<std::tuple<std::string, int, std::string>>{
             {replay, 2, "kelo-replay: FILE is required"},
             {replay + " " + good + " --speed 0", 2, "kelo-replay: --speed: 0 is not in 0.01..100"},
             {replay + " " + good + " --from -1", 2, "kelo-replay: --from: -1 is not"},
             {replay + " " + good + " --servers 127.0.0.1", 2,
              "kelo-replay: --servers: \"127.0.0.1\" is not host:port"},
             {replay + " " + good + " --servers " + closed + "," + closed, 2,
              "kelo-replay: --servers: " + closed + " is named twice"},
             {replay + " " + missing, 1, "kelo-replay: " + missing + ": cannot open: No such file"},
             {replay + " " + version, 1,
              "kelo-replay: " + version +
                  ": offset 8: session format version 2; this program reads version 1"},
             {replay + " " + good + " --servers " + closed + " --connect-timeout 0.3", 1,
              "kelo-replay: cannot reach " + closed + " within 0.30 s"},
             {KELO_RECORD_PROGRAM " --duration 0 " + good, 2,
              "kelo-record: --duration: 0 is not in"},
             {KELO_RECORD_PROGRAM " --servers " + closed + " " + nowhere, 1,
              "kelo-record: " + nowhere + ": cannot create: No such file or directory"},
#ifdef KELO_SERVER_PROGRAM
             {KELO_SERVER_PROGRAM " -b silent --host 127.0.0.1 --no-multicast --record " + nowhere,
              1, "kelo-server: --record: " + nowhere + ": cannot create: No such file"},
             {KELO_SERVER_PROGRAM " --record-limit 5", 2,
              "kelo-server: --record-limit requires --record"},
#endif
         }) {
        // Standard error alone, which must hold just the one line.
        const auto [status, errors] = runProgram("(" + command + " >/dev/null)");
        EXPECT_EQ(status, code) << command << "\n" << errors;
        EXPECT_THAT(errors, StartsWith(line)) << command;
        EXPECT_EQ(std::count(errors.begin(), errors.end(), '\n'), 1) << errors;
    }
}
#endif

}  // namespace
