// Session files: what a server records from a client application, replayed to a fresh server,
// leaves it as the application left the live one; kelo-record and kelo-replay end to end, with
// timing; damaged files; bad options. Every socket is on 127.0.0.1.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <memory>
#include <regex>
#include <sstream>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <boost/asio.hpp>

#include <Kelo/ClientBackend.h>
#include <Kelo/CommandEvent.h>
#include <Kelo/CreateEmitterEvent.h>
#include <Kelo/Emitter.h>
#include <Kelo/ReplayWorld.h>
#include <Kelo/Server.h>
#include <Kelo/SessionReader.h>
#include <Kelo/SessionWriter.h>
#include <Kelo/Source.h>
#include <Kelo/TransformEvent.h>

#include "SoundServer.h"
#include "support.h"

using Kelo::WorldPart;
using KeloTest::scratch;
using KeloTest::SoundServer;
using KeloTest::until;
using ::testing::HasSubstr;
using namespace std::chrono_literals;

namespace {

// The first difference between two worlds, or nothing.
std::string difference(const Kelo::World& a, const Kelo::World& b) {
    std::ostringstream out;
    if (a.listenerPosition() != b.listenerPosition() ||
        a.listenerRotation() != b.listenerRotation())
        out << "listener; ";
    if (a.emitters().size() != b.emitters().size())
        out << a.emitters().size() << " emitters against " << b.emitters().size() << "; ";
    for (const auto& [id, e] : a.emitters()) {
        const Kelo::Emitter* f = b.getEmitter(Kelo::CommandEvent::wireId(id));
        if (!f) {
            out << "no emitter " << id << "; ";
            continue;
        }
        if (e->labels() != f->labels() || e->position() != f->position() ||
            e->rotation() != f->rotation() || e->state() != f->state() || e->gain() != f->gain() ||
            e->extraParam() != f->extraParam() || e->spatialize() != f->spatialize() ||
            e->maxBack() != f->maxBack() || e->maxFront() != f->maxFront() ||
            e->minBack() != f->minBack() || e->minFront() != f->minFront() ||
            (e->source() ? e->source()->id() : 0) != (f->source() ? f->source()->id() : 0))
            out << "emitter " << id << "; ";
    }
    // Sources: those of a (a server has its own besides).
    for (const auto& [id, s] : a.sources()) {
        const Kelo::Source* t = b.getSource(id);
        if (!t || s->state() != t->state() || s->pitch() != t->pitch() || s->loop() != t->loop())
            out << "source " << id << "; ";
    }
    return out.str();
}

// What an application does over a short while; it ends by creating emitter 999, so a receiver
// that has it has everything before.
void scene(Kelo::World& world, const std::function<void()>& pump) {
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
    pump();
    Kelo::Emitter* c = world.createEmitter({}, 5);
    c->setSource(seven);
    delete c;
    world.setListenerTransform(osg::Vec3f(0, 1, 0), q);
    for (int i = 0; i < 20; ++i) {
        const osg::Vec3f at(0.1f * static_cast<float>(i), 0, -1);
        b->setTransform(&at, nullptr);
        pump();
    }
    b->setState(WorldPart::PAUSE);
    delete seven;
    world.createEmitter({"end"}, 999);
    pump();
}

// The frames of a session file, or the damage that stopped the reading.
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

TEST(Session, ReplayedToAFreshServerItSeesWhatTheLiveOneSaw) {
    const std::string live = scratch("live.kelo"), again = scratch("again.kelo");
    SoundServer first, second;
    Kelo::SessionWriter recording, check;
    ASSERT_TRUE(recording.open(live, "test")) << recording.error();
    ASSERT_TRUE(check.open(again)) << check.error();
    first.setRecorder(&recording);
    second.setRecorder(&check);
    {
        Kelo::World app;
        auto* client = static_cast<Kelo::ClientBackend*>(
            app.addBackend("client", ("servers=" + first.address() + " retry=0.05").c_str()));
        auto pump = [&] {
            app.update();
            first.receive(false);
        };
        ASSERT_TRUE(until([&] { return client->servers() == 1; }, pump));
        scene(app, pump);
        ASSERT_TRUE(until([&] { return first.getEmitter(999) != nullptr; }, pump));
        app.clearWorld();
        // Detached before it leaves: its leaving reset is not part of this session.
        first.setRecorder(nullptr);
        app.deleteAllBackends();
    }
    ASSERT_TRUE(recording.close());

    Kelo::ReplayWorld replay;
    auto* client = static_cast<Kelo::ClientBackend*>(
        replay.addBackend("client", ("servers=" + second.address() + " retry=0.05").c_str()));
    auto pump = [&] {
        replay.update();
        second.receive(false);
    };
    ASSERT_TRUE(until([&] { return client->servers() == 1; }, pump));
    Kelo::SessionReader reader;
    ASSERT_TRUE(reader.open(live)) << reader.error();
    EXPECT_EQ(reader.note(), "test");
    uint64_t micros = 0, last = 0;
    while (auto event = reader.next(micros)) {
        EXPECT_GE(micros, last);
        last = micros;
        EXPECT_TRUE(replay.apply(*event)) << event->command() << "/" << event->id();
    }
    EXPECT_FALSE(reader.damaged()) << reader.error();
    ASSERT_TRUE(until([&] { return second.getEmitter(999) != nullptr; }, pump));
    EXPECT_EQ(difference(first, second), "");
    ASSERT_NE(second.getEmitter(-25536), nullptr);
    EXPECT_EQ(second.getEmitter(-25536)->state(), WorldPart::PAUSE);
    EXPECT_EQ(second.getEmitter(-25536)->position(), osg::Vec3f(1.9f, 0, -1));
    second.setRecorder(nullptr);
    ASSERT_TRUE(check.close());

    // Byte for byte: the replay's own catch-up of its empty world (a reset and the listener),
    // then everything the application sent.
    const auto sent = framesOf(live), seen = framesOf(again);
    ASSERT_EQ(seen.size(), sent.size() + 2);
    EXPECT_TRUE(std::equal(sent.begin(), sent.end(), seen.begin() + 2));
    replay.deleteAllBackends();
}

TEST(Session, AReplayedResetIsSentAloneAndAnUnchangedMoveIsSentAgain) {
    Kelo::ReplayWorld world;
    auto* backend = new KeloTest::RecordingBackend(world);
    Kelo::CreateEmitterEvent create;
    create.setCommand(Kelo::CreateEmitter);
    create.setId(3);
    Kelo::TransformEvent move;
    move.setCommand(Kelo::SetEmitterTransform);
    move.setId(3);
    Kelo::CommandEvent source(Kelo::CreateSource, 2), play(Kelo::PlayEmitter, 3),
        reset(Kelo::ResetWorld, 0), unknown(Kelo::DestroyEmitter, 8);
    for (const Kelo::CommandEvent* e :
         std::initializer_list<const Kelo::CommandEvent*>{&source, &create, &move, &play})
        EXPECT_TRUE(world.apply(*e));
    EXPECT_FALSE(world.apply(unknown));
    EXPECT_FALSE(world.apply(source));  // it exists
    EXPECT_EQ(backend->take(),
              "createSource(2) createEmitter(3) setEmitterTransform(3) setEmitterState(3)");
    EXPECT_TRUE(world.apply(reset));
    EXPECT_EQ(backend->take(), "resetBackend");
    EXPECT_TRUE(world.emitters().empty() && world.sources().empty());
    EXPECT_EQ(world.applied(), 5u);
    EXPECT_EQ(world.refused(), 2u);
    world.deleteAllBackends();
}

TEST(Session, TheLimitKeepsAWholeFile) {
    const std::string path = scratch("limit.kelo");
    Kelo::SessionWriter writer;
    writer.setLimit(Kelo::SessionWriter::kHeaderSize + 3 * (8 + 40));
    ASSERT_TRUE(writer.open(path));
    Kelo::TransformEvent move;
    move.setCommand(Kelo::SetEmitterTransform);
    int written = 0;
    while (writer.write(move))
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
    // Names with the time in them, so that each start of a service keeps its own session.
    EXPECT_EQ(Kelo::SessionWriter::expandName("plain.kelo"), "plain.kelo");
    EXPECT_THAT(Kelo::SessionWriter::expandName("s-%Y%%.kelo"),
                ::testing::MatchesRegex("s-2[0-9][0-9][0-9]%\\.kelo"));
    EXPECT_EQ(Kelo::SessionWriter::expandName(std::string(5000, 'x') + "%Y"), "");
}

// A session of three events: a reset, emitter 4's creation and a move of it.
std::string threeEvents() {
    const std::string path = scratch("three.kelo");
    Kelo::SessionWriter writer;
    EXPECT_TRUE(writer.open(path));
    Kelo::CommandEvent reset(Kelo::ResetWorld, 0);
    Kelo::CreateEmitterEvent create;
    create.setCommand(Kelo::CreateEmitter);
    create.setId(4);
    create.setLabels({"x"});
    Kelo::TransformEvent move;
    move.setCommand(Kelo::SetEmitterTransform);
    move.setId(4);
    for (Kelo::CommandEvent* e : std::initializer_list<Kelo::CommandEvent*>{&reset, &create, &move})
        EXPECT_TRUE(writer.write(*e));
    EXPECT_TRUE(writer.close());
    return KeloTest::readFile(path);
}

std::string damaged(const std::string& bytes, const std::string& name) {
    const std::string path = scratch(name);
    std::ofstream(path, std::ios::binary) << bytes;
    return path;
}

// Header 28, then records of 8 + 12, 8 + 21 and 8 + 40 bytes.
constexpr size_t kSecond = 28 + 20, kThird = kSecond + 29;

TEST(Session, DamageIsReportedWithItsOffset) {
    const std::string good = threeEvents();
    ASSERT_EQ(good.size(), kThird + 48);
    std::string badLength = good, refused = good.substr(0, good.size() - 4), backwards = good,
                version = good;
    badLength.replace(kSecond + 8, 4, "\xff\xff\xff\xff");
    refused[kThird + 8] = 32;                   // the transform's last float left out
    backwards.replace(kSecond + 5, 1, "\x01");  // 2^40 microseconds
    backwards.replace(kThird, 8, std::string(8, '\0'));
    version[8] = 2;
    for (const auto& [bytes, message] : std::vector<std::pair<std::string, std::string>>{
             {good.substr(0, kThird + 30),
              "offset 77: record cut short: 18 of 36 bytes of its frame"},
             {good.substr(0, kThird + 5), "offset 77: record cut short: 5 of its first 12 bytes"},
             {badLength, "offset 48: frame length 4294967295 is not in 4..67108864"},
             {refused, "offset 77: frame refused: TransformEvent: truncated field"},
             {backwards, "offset 77: time 0.000000 s is before the previous record's 10995"},
             {"KELX" + good.substr(4),
              "offset 0: not a Kelo session file (it does not begin "
              "with KELOSESS)"},
             {good.substr(0, 20), "offset 12: header cut short"},
             {version, "offset 8: session format version 2; this program reads version 1"},
         }) {
        Kelo::SessionReader reader;
        size_t events = 0;
        if (reader.open(damaged(bytes, "damaged.kelo"))) {
            uint64_t micros;
            while (reader.next(micros))
                ++events;
            EXPECT_TRUE(reader.damaged()) << message;
        }
        EXPECT_THAT(reader.error(), ::testing::StartsWith(message));
        // Everything before the damage is read.
        if (message.rfind("offset 77", 0) == 0) {
            EXPECT_EQ(events, 2u) << message;
        }
    }
}

#if defined(KELO_REPLAY_PROGRAM) && defined(KELO_RECORD_PROGRAM)
// A program started with its two output streams on pipes, read as they come.
class Program {
public:
    explicit Program(std::vector<std::string> args) {
        int out[2], err[2];
        if (pipe(out) != 0 || pipe(err) != 0)
            return;
        _pid = fork();
        if (_pid == 0) {
            dup2(out[1], 1);
            dup2(err[1], 2);
            for (int fd : {out[0], out[1], err[0], err[1]})
                close(fd);
            std::vector<char*> argv;
            for (std::string& a : args)
                argv.push_back(a.data());
            argv.push_back(nullptr);
            execv(argv[0], argv.data());
            _exit(127);
        }
        close(out[1]);
        close(err[1]);
        _fds[0] = out[0];
        _fds[1] = err[0];
        for (int fd : _fds)
            fcntl(fd, F_SETFL, O_NONBLOCK);
    }
    ~Program() {
        if (_pid > 0 && _status < 0) {
            kill(_pid, SIGKILL);
            waitpid(_pid, nullptr, 0);
        }
        for (int fd : _fds)
            if (fd >= 0)
                close(fd);
    }
    // Reads what has come; true once text is among it (either stream).
    bool saw(const std::string& text) {
        char buffer[4096];
        for (int i : {0, 1}) {
            ssize_t got;
            while (_fds[i] >= 0 && (got = read(_fds[i], buffer, sizeof buffer)) > 0) {
                _output.append(buffer, static_cast<size_t>(got));
                if (i == 1)
                    _errors.append(buffer, static_cast<size_t>(got));
            }
        }
        return _output.find(text) != std::string::npos;
    }
    void signal(int number) { kill(_pid, number); }
    // The exit code once it has ended (within the limit), else -1.
    int exitCode(
        const std::function<void()>& pump = [] {}, std::chrono::milliseconds limit = 10s) {
        until(
            [&] {
                int status = 0;
                if (_status < 0 && waitpid(_pid, &status, WNOHANG) == _pid)
                    _status = WIFEXITED(status) ? WEXITSTATUS(status) : 128;
                return _status >= 0;
            },
            [&] {
                pump();
                std::this_thread::sleep_for(2ms);
            },
            limit);
        saw("");
        return _status;
    }
    // Both streams, and standard error alone.
    const std::string& output() const { return _output; }
    const std::string& errors() const { return _errors; }

private:
    pid_t _pid = -1;
    int _fds[2] = {-1, -1};
    int _status = -1;
    std::string _output, _errors;
};

// A port on 127.0.0.1 that nobody listens on (the system's choice, given back).
unsigned short freePort() {
    boost::asio::io_context io;
    boost::asio::ip::tcp::acceptor acceptor(io, {boost::asio::ip::address_v4::loopback(), 0});
    return acceptor.local_endpoint().port();
}

TEST(Session, ProgramsRecordAndReplayAtFourTimesTheSpeed) {
    const std::string file = scratch("programs.kelo");
    const std::string at = "127.0.0.1:" + std::to_string(freePort());
    Program recorder({KELO_RECORD_PROGRAM, "--servers", at, file});
    ASSERT_TRUE(until([&] { return recorder.saw("recording into"); })) << recorder.output();
    Kelo::World app;
    auto* client = static_cast<Kelo::ClientBackend*>(
        app.addBackend("client", ("servers=" + at + " retry=0.05").c_str()));
    ASSERT_TRUE(until([&] { return client->servers() == 1; }, [&] { app.update(); }));
    // About 2 s: the scene, then a move every 20 ms.
    const auto start = std::chrono::steady_clock::now();
    scene(app, [&] { app.update(); });
    Kelo::Emitter* moving = app.getEmitter(999);
    for (int i = 0; std::chrono::steady_clock::now() - start < 2s; ++i) {
        const osg::Vec3f p(static_cast<float>(i), 0, 0);
        moving->setTransform(&p, nullptr);
        std::this_thread::sleep_for(20ms);
    }
    std::this_thread::sleep_for(300ms);  // what was sent has arrived
    recorder.signal(SIGTERM);
    ASSERT_EQ(recorder.exitCode(), 0) << recorder.output();
    EXPECT_THAT(recorder.output(), HasSubstr("kelo-record: recorded "));

    SoundServer server;
    Program replay(
        {KELO_REPLAY_PROGRAM, file, "--servers", server.address(), "--speed", "4", "--hold"});
    ASSERT_TRUE(
        until([&] { return replay.saw("holding the scene"); }, [&] { server.receive(false); }, 10s))
        << replay.output();
    // "played N events (2.31 s of the session) in 0.58 s"
    std::smatch times;
    ASSERT_TRUE(std::regex_search(replay.output(), times,
                                  std::regex(R"(played \d+ events \(([0-9.]+) s of the session\) )"
                                             R"(in ([0-9.]+) s)")))
        << replay.output();
    const double session = std::stod(times[1]), took = std::stod(times[2]);
    EXPECT_GT(session, 1.9);
    EXPECT_GT(took, session / 4 * 0.6) << replay.output();
    EXPECT_LT(took, session / 4 * 2 + 0.2) << replay.output();
    ASSERT_TRUE(
        until([&] { return difference(app, server).empty(); }, [&] { server.receive(false); }))
        << difference(app, server);
    replay.signal(SIGTERM);
    EXPECT_EQ(replay.exitCode([&] { server.receive(false); }), 0) << replay.output();
    // A player that leaves resets the server, as the application would have.
    EXPECT_TRUE(
        until([&] { return server.getEmitter(999) == nullptr; }, [&] { server.receive(false); }));
    app.clearWorld();
    app.deleteAllBackends();
}

TEST(Session, ReplayStopsAtTheDamageAfterPlayingWhatCameBefore) {
    const std::string path = damaged(threeEvents().substr(0, kThird + 30), "cut.kelo");
    SoundServer server;
    Program replay({KELO_REPLAY_PROGRAM, path, "--servers", server.address(), "--hold"});
    ASSERT_TRUE(until([&] { return replay.saw("holding"); }, [&] { server.receive(false); }))
        << replay.output();
    EXPECT_THAT(replay.output(),
                HasSubstr("kelo-replay: " + path +
                          ": offset 77: record cut short: 18 of 36 bytes of its frame\n"));
    ASSERT_TRUE(
        until([&] { return server.getEmitter(4) != nullptr; }, [&] { server.receive(false); }));
    EXPECT_EQ(server.getEmitter(4)->labels(), std::vector<std::string>{"x"});
    replay.signal(SIGINT);
    EXPECT_EQ(replay.exitCode([&] { server.receive(false); }), 1);
}

// A session with chosen times: a header, then each event at its time in seconds.
std::string timed(const std::vector<std::pair<double, Kelo::CommandEvent*>>& events) {
    const std::string path = scratch("timed.kelo");
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

TEST(Session, FromSkipsAheadAndLoopStartsAgainWithAReset) {
    Kelo::CommandEvent reset(Kelo::ResetWorld, 0);
    Kelo::CreateEmitterEvent four, five;
    four.setCommand(Kelo::CreateEmitter);
    four.setId(4);
    five.setCommand(Kelo::CreateEmitter);
    five.setId(5);
    Kelo::TransformEvent move;
    move.setCommand(Kelo::SetEmitterTransform);
    move.setId(4);
    move.setPosition(osg::Vec3f(1, 0, 0));
    const std::string late = timed({{0, &reset}, {0.1, &four}, {30, &move}, {30.2, &five}});
    SoundServer server;
    auto pump = [&] { server.receive(false); };
    {
        Program from(
            {KELO_REPLAY_PROGRAM, late, "--servers", server.address(), "--from", "30", "--hold"});
        // Not 30 s: what came before was applied at once.
        ASSERT_TRUE(until([&] { return from.saw("holding"); }, pump)) << from.output();
        ASSERT_TRUE(until([&] { return server.getEmitter(5) != nullptr; }, pump));
        EXPECT_EQ(server.getEmitter(4)->position(), osg::Vec3f(1, 0, 0));
        from.signal(SIGTERM);
        EXPECT_EQ(from.exitCode(pump), 0) << from.output();
    }
    const std::string file = scratch("loop-seen.kelo");
    Kelo::SessionWriter seen;
    ASSERT_TRUE(seen.open(file));
    server.setRecorder(&seen);
    {
        Program loop({KELO_REPLAY_PROGRAM, timed({{0.05, &four}, {0.15, &five}}), "--servers",
                      server.address(), "--loop"});
        // Each pass after the first starts with a reset, then creates the two emitters.
        until([] { return false; }, pump, 700ms);
        loop.signal(SIGINT);
        EXPECT_EQ(loop.exitCode(pump), 0) << loop.output();
        EXPECT_THAT(loop.output(), HasSubstr("kelo-replay: stopped after "));
    }
    server.setRecorder(nullptr);
    ASSERT_TRUE(seen.close());
    std::string commands;
    for (const auto& frame : framesOf(file))
        if (frame[8] != Kelo::SetListenerTransform)
            commands += std::to_string(frame[8]) + " ";
    EXPECT_THAT(commands, HasSubstr("10 30 30 10 30 30 10 30 30 "));
}

TEST(Session, ProgramsRefuseBadInputWithOneLine) {
    const std::string good = damaged(threeEvents(), "good.kelo");
    const std::string version =
        damaged(std::string("KELOSESS\x02", 9) + std::string(19, '\0'), "version.kelo");
    const std::string closed = "127.0.0.1:" + std::to_string(freePort());
    for (const auto& [args, code, line] :
         std::vector<std::tuple<std::vector<std::string>, int, std::string>>{
             {{KELO_REPLAY_PROGRAM}, 2, "kelo-replay: FILE is required"},
             {{KELO_REPLAY_PROGRAM, good, "--speed", "0"},
              2,
              "kelo-replay: --speed: 0 is not in 0.01..100"},
             {{KELO_REPLAY_PROGRAM, good, "--from", "-1"}, 2, "kelo-replay: --from: -1 is not"},
             {{KELO_REPLAY_PROGRAM, good, "--servers", "127.0.0.1"},
              2,
              "kelo-replay: --servers: \"127.0.0.1\" is not host:port"},
             {{KELO_REPLAY_PROGRAM, good, "--servers", closed + "," + closed},
              2,
              "kelo-replay: --servers: " + closed + " is named twice"},
             {{KELO_REPLAY_PROGRAM, scratch("missing.kelo")},
              1,
              "kelo-replay: " + scratch("missing.kelo") + ": cannot open: No such file"},
             {{KELO_REPLAY_PROGRAM, version},
              1,
              "kelo-replay: " + version +
                  ": offset 8: session format version 2; this program reads version 1"},
             {{KELO_REPLAY_PROGRAM, good, "--servers", closed, "--connect-timeout", "0.3"},
              1,
              "kelo-replay: cannot reach " + closed + " within 0.30 s"},
             {{KELO_RECORD_PROGRAM, "--duration", "0", good},
              2,
              "kelo-record: --duration: 0 is not in"},
             {{KELO_RECORD_PROGRAM, "--servers", closed, "/nonexistent/dir/x.kelo"},
              1,
              "kelo-record: /nonexistent/dir/x.kelo: cannot create: No such file or directory"},
#ifdef KELO_SERVER_PROGRAM
             {{KELO_SERVER_PROGRAM, "-b", "silent", "--host", "127.0.0.1", "--no-multicast",
               "--record", "/nonexistent/dir/x.kelo"},
              1,
              "kelo-server: --record: /nonexistent/dir/x.kelo: cannot create: No such file"},
             {{KELO_SERVER_PROGRAM, "--record-limit", "5"},
              2,
              "kelo-server: --record-limit requires --record"},
#endif
         }) {
        Program program(args);
        EXPECT_EQ(program.exitCode(), code) << args[1] << " " << program.output();
        EXPECT_THAT(program.errors(), ::testing::StartsWith(line)) << program.output();
        EXPECT_EQ(std::count(program.errors().begin(), program.errors().end(), '\n'), 1)
            << program.output();
    }
}
#endif

}  // namespace
