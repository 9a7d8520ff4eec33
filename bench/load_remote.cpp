// Load on a client backend and its servers over loopback, bounded in count and time:
//   - throughput: transform events from one client to one and to four servers, counted and
//     checked for order on arrival; to one emitter, or going round many (--moving);
//   - latency: a play command from Emitter::setState to the server's Emitter::setState, then
//     again over the server's local socket (--local), with the server busy-polling
//     (--busy-poll), and twice with the client's thread busy after each command
//     (--client-work): as the server is, then asking for a short scheduler slice (--slice);
//   - catch-up: a world of 10,000 emitters and 1,000 sources brought to a new server.
// Everything stays on 127.0.0.1; servers do not announce themselves. --help lists the options
// that scale the runs down (or up, within bounds).
#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <sys/resource.h>

#include <Kelo/ClientBackend.h>
#include <Kelo/Emitter.h>
#include <Kelo/Server.h>
#include <Kelo/SilentBackend.h>
#include <Kelo/Source.h>
#include <Kelo/World.h>
#include <osg/Log.h>

namespace {

using Clock = std::chrono::steady_clock;

double seconds(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration<double>(to - from).count();
}

// Processor time of the whole process (every thread, both ends), in seconds: unlike the rates,
// it does not depend on how much of the machine the other guests leave us.
double cpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// Watches what arrives on a server: every emitter position must be one step further along x.
struct Watcher : Kelo::SilentBackend {
    explicit Watcher(Kelo::World& world) : SilentBackend(world, "") {}
    void setEmitterTransform(Kelo::Emitter& e) override {
        const float x = e.position().x();
        if (x != expected)
            disorder = true;
        expected = x + 1;
        ++moves;
    }
    void setEmitterState(Kelo::Emitter& e) override {
        if (watch == 0 || e.id() == watch) {
            played = Clock::now();
            emittersThen = e.world().emitters().size();
            std::lock_guard<std::mutex> lock(mutex);
            changed.notify_all();
        }
    }
    // Waits, asleep, until a state change later than before has been seen.
    void waitPlayed(Clock::time_point before) {
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait_for(lock, std::chrono::seconds(5), [&] { return played.load() != before; });
    }
    std::atomic<int> watch{0};            // the emitter whose state change counts; 0 for any
    std::atomic<size_t> emittersThen{0};  // in the server's world at that change
    float expected = 1;
    std::atomic<long> moves{0};
    bool disorder = false;
    std::atomic<Clock::time_point> played{};
    std::mutex mutex;
    std::condition_variable changed;
};

// A server with its own sources 1..n, applying what arrives as kelo-server does: on a thread
// of its own, or (with threaded false) on the caller's in run().
struct ServerThread {
    explicit ServerThread(int sources = 0, bool threaded = true)
        : server(0, "127.0.0.1"), sources(sources) {
        server.setMulticastEnabled(false);
        watcher = new Watcher(server);
        own();
        if (threaded)
            thread = std::thread([this] { run(); });
    }
    ~ServerThread() {
        stop = true;
        if (thread.joinable())
            thread.join();
        server.clearWorld();
        server.deleteAllBackends();
    }
    void run() {
        while (!stop) {
            server.waitForEvents(0.01);
            server.receive(false);
        }
    }
    void own() {
        for (int id = 1; id <= sources; ++id)
            server.createSource(id);
    }
    struct Owning : Kelo::Server {
        using Kelo::Server::Server;
        std::function<void()> onReset;
        void resetWorld() override {
            Kelo::Server::resetWorld();
            if (onReset)
                onReset();
        }
    };
    Owning server;
    int sources;
    Watcher* watcher;
    std::atomic<bool> stop{false};
    std::thread thread;
};

std::string named(const std::vector<std::unique_ptr<ServerThread>>& servers,
                  const std::string& extra = "") {
    std::string list;
    for (const auto& s : servers)
        list += (list.empty() ? "" : ",") + std::string("127.0.0.1:") +
                std::to_string(s->server.port());
    return "servers=" + list + " multicast=false retry=0.1 " + extra;
}

bool connect(Kelo::World& world, Kelo::ClientBackend* client, size_t count) {
    const auto end = Clock::now() + std::chrono::seconds(5);
    while (client->servers() < count && Clock::now() < end) {
        world.update();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return client->servers() == count;
}

void throughput(int serverCount, long events, int moving) {
    std::vector<std::unique_ptr<ServerThread>> servers;
    for (int i = 0; i < serverCount; ++i)
        servers.push_back(std::make_unique<ServerThread>());
    Kelo::World world;
    // The burst goes out as fast as the client can make it. With the default send limit a
    // server that the host slows down for a moment falls 64 MiB behind and is dropped, as it
    // should be; here it may fall behind by the whole burst.
    auto* client = static_cast<Kelo::ClientBackend*>(
        world.addBackend("client", named(servers, "sendLimit=1073741824").c_str()));
    std::vector<Kelo::Emitter*> emitters(static_cast<size_t>(moving));
    for (auto& e : emitters)
        e = world.createEmitter();
    if (!connect(world, client, servers.size())) {
        std::printf("throughput: servers did not connect\n");
        return;
    }
    const auto wait = [&](long n) {
        // A server dropped on the way never gets the rest: no use waiting for it.
        const auto end = Clock::now() + std::chrono::seconds(60);
        for (auto& s : servers)
            while (s->watcher->moves < n && Clock::now() < end &&
                   client->servers() == servers.size())
                std::this_thread::sleep_for(std::chrono::microseconds(200));
    };
    const double cpuStart = cpuSeconds();
    const auto start = Clock::now();
    // Round the emitters: the server looks each one up by its id.
    for (long i = 1, at = 0; i <= events; ++i, at = at + 1 == moving ? 0 : at + 1) {
        const osg::Vec3f p(static_cast<float>(i), 0, 0);
        emitters[static_cast<size_t>(at)]->setTransform(&p, nullptr);
    }
    const auto sent = Clock::now();
    wait(events);
    const auto arrived = Clock::now();
    const double cpu = cpuSeconds() - cpuStart;
    if (client->servers() != servers.size())
        std::printf("  A SERVER WAS DROPPED\n");
    std::printf(
        "throughput, %d server%s: %ld transform events to %d emitter%s sent in %.2f s "
        "(%.2f M/s sent)\n",
        serverCount, serverCount > 1 ? "s" : "", events, moving, moving > 1 ? "s" : "",
        seconds(start, sent), events / seconds(start, sent) / 1e6);
    for (size_t i = 0; i < servers.size(); ++i) {
        const Watcher& w = *servers[i]->watcher;
        std::printf("  server %zu: %ld arrived in %.2f s = %.2f M events/s, %s, %s\n", i + 1,
                    w.moves.load(), seconds(start, arrived),
                    w.moves / seconds(start, arrived) / 1e6,
                    w.disorder ? "OUT OF ORDER" : "in order",
                    w.moves == events ? "none lost" : "SOME LOST");
    }
    std::printf("  processor time, both ends: %.2f s, %.0f ns per event sent (%.0f per delivery)\n",
                cpu, cpu / static_cast<double>(events) * 1e9,
                cpu / static_cast<double>(events * serverCount) * 1e9);
    world.clearWorld();
    world.deleteAllBackends();
}

// With clientWork, the client's thread keeps its processor for that many microseconds after
// each command, as an application drawing its next frame would, before it waits.
void latency(int rounds, unsigned busyPoll, unsigned clientWork = 0, unsigned slice = 0,
             bool local = false) {
    std::vector<std::unique_ptr<ServerThread>> servers;
    servers.push_back(std::make_unique<ServerThread>());
    servers[0]->server.setBusyPoll(busyPoll);
    servers[0]->server.setSchedulerSlice(slice);
    if (local && !servers[0]->server.setLocalSocket(true))
        return;
    Kelo::World world;
    auto* client = static_cast<Kelo::ClientBackend*>(
        world.addBackend("client", named(servers, local ? "local=true" : "").c_str()));
    Kelo::Emitter* e = world.createEmitter();
    if (!connect(world, client, 1))
        return;
    std::vector<double> micros;
    Watcher& w = *servers[0]->watcher;
    for (int i = 0; i < rounds; ++i) {
        const auto before = w.played.load();
        const auto start = Clock::now();
        e->setState(i % 2 ? Kelo::WorldPart::STOP : Kelo::WorldPart::PLAY);
        for (const auto sent = Clock::now();
             Clock::now() - sent < std::chrono::microseconds(clientWork);) {
        }
        // Asleep, as the bare ping-pong waits in recv(): a spinning waiter would take one of
        // the processors from the server it measures. The time is taken on the server's side.
        w.waitPlayed(before);
        micros.push_back(
            std::chrono::duration<double, std::micro>(w.played.load() - start).count());
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    std::sort(micros.begin(), micros.end());
    std::string how =
        busyPoll ? ", the server busy-polling " + std::to_string(busyPoll) + " us" : "";
    if (clientWork)
        how += ", the client's thread busy " + std::to_string(clientWork) + " us after each";
    if (slice)
        how += ", the server asking for a " + std::to_string(slice) + " us scheduler slice";
    if (local)
        how += ", over the local socket";
    std::printf("latency of a play command, %d rounds%s: p50 %.0f us, p99 %.0f us, max %.0f us\n",
                rounds, how.c_str(), micros[micros.size() / 2], micros[micros.size() * 99 / 100],
                micros.back());
    world.clearWorld();
    world.deleteAllBackends();
}

// The server applies on the process's main thread, as kelo-server does, and the client's world
// lives on a thread of its own. (The other way round, the new server's world would grow the heap
// of a fresh thread, which glibc extends a page at a time: building it takes a quarter longer.)
void catchUp(int emitters, int sources) {
    std::vector<std::unique_ptr<ServerThread>> servers;
    servers.push_back(std::make_unique<ServerThread>(sources, false));
    ServerThread& s = *servers[0];
    s.server.onReset = [&s] { s.own(); };
    const std::string params = named(servers);
    Clock::time_point start{};
    std::thread client([&] {
        Kelo::World world;
        for (int i = 1; i <= sources; ++i)
            world.createSource(i)->setParam(true, 1.0f);
        Kelo::Emitter* last = nullptr;
        for (int i = 0; i < emitters; ++i) {
            last = world.createEmitter({"label"});
            const osg::Vec3f p(static_cast<float>(i), 1, 2);
            last->setTransform(&p, nullptr);
            last->setSource(world.getSource(1 + i % sources));
        }
        last->setState(Kelo::WorldPart::PLAY);
        s.watcher->watch = last->id();  // its state comes last in the catch-up
        start = Clock::now();
        world.addBackend("client", params.c_str());
        // Until the last part of the catch-up, the playing emitter's state, has been applied.
        const auto end = start + std::chrono::seconds(30);
        while (Clock::now() < end && s.watcher->played.load() == Clock::time_point{}) {
            world.update();
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
        world.clearWorld();
        world.deleteAllBackends();
        s.stop = true;
    });
    s.run();
    client.join();
    const auto done = s.watcher->played.load();
    if (done == Clock::time_point{}) {
        std::printf("catch-up of %d emitters and %d sources: not done within 30 s\n", emitters,
                    sources);
        return;
    }
    std::printf(
        "catch-up of %d emitters and %d sources: %.1f ms until the server's world "
        "matched (%zu emitters there)\n",
        emitters, sources, seconds(start, done) * 1e3, s.watcher->emittersThen.load());
}

struct Option {
    const char* name;
    const char* help;
    long value, low, high;
};

// A whole decimal number in [low, high].
bool parseCount(const std::string& text, long low, long high, long& out) {
    if (text.empty() || text.size() > 12 ||
        text.find_first_not_of("0123456789") != std::string::npos)
        return false;
    const long value = std::stol(text);
    if (value < low || value > high)
        return false;
    out = value;
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    Option options[] = {
        {"--events", "transform events sent to one server (to four: 2/5 of it)", 5'000'000, 1,
         50'000'000},
        {"--rounds", "play commands timed for the latency", 1000, 1, 100'000},
        // With a tenth as many sources, the ids stay within the 16 bits they travel in.
        {"--emitters", "emitters in the world caught up", 10'000, 1, 29'000},
        {"--moving", "emitters the transform events go round", 1, 1, 30'000},
        {"--busy-poll", "us the server busy-polls in a second latency run (0: none)", 5000, 0,
         1'000'000},
        // Up to a frame at 100 Hz, so that a run of the most --rounds ends within 20 minutes.
        {"--client-work", "us the client works after each command in two more runs (0: none)", 1000,
         0, 10'000},
        {"--slice", "us of the scheduler slice the server asks for in the last run (0: none)", 100,
         0, 100'000},
        {"--local", "1: a latency run over the server's local socket too (0: none)", 1, 0, 1},
    };
    // Every option is checked before anything starts; a bad one exits with 2.
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "-h" || arg == "--help") {
            std::printf("Usage: load_remote [OPTION N]...\n");
            for (const Option& o : options)
                std::printf("  %-11s N  %s, %ld to %ld (default %ld)\n", o.name, o.help, o.low,
                            o.high, o.value);
            return 0;
        }
        Option* option = nullptr;
        for (Option& o : options)
            if (arg == o.name)
                option = &o;
        if (!option) {
            std::fprintf(stderr, "load_remote: unknown argument \"%s\" (see --help)\n",
                         arg.c_str());
            return 2;
        }
        if (i + 1 == argc || !parseCount(argv[i + 1], option->low, option->high, option->value)) {
            std::fprintf(stderr, "load_remote: %s needs a whole number from %ld to %ld, got %s\n",
                         option->name, option->low, option->high,
                         i + 1 == argc ? "nothing" : argv[i + 1]);
            return 2;
        }
        ++i;
    }
    if (options[6].value > 0 && options[6].value < 100) {
        std::fprintf(stderr,
                     "load_remote: --slice needs 0 or a whole number from 100 to 100000, "
                     "got %ld\n",
                     options[6].value);
        return 2;
    }
    const long events = options[0].value;
    // Only progress lines: the catch-up's source creations are refused by design, one line each.
    osg::Log::the().setLevel(osg::LOG_LOG);
    const int moving = static_cast<int>(options[3].value);
    throughput(1, events, moving);
    throughput(4, std::max(1L, events * 2 / 5), moving);
    latency(static_cast<int>(options[1].value), 0);
    if (options[7].value)
        latency(static_cast<int>(options[1].value), 0, 0, 0, true);
    if (options[4].value > 0)
        latency(static_cast<int>(options[1].value), static_cast<unsigned>(options[4].value));
    if (const auto work = static_cast<unsigned>(options[5].value)) {
        latency(static_cast<int>(options[1].value), 0, work);
        if (options[6].value > 0)
            latency(static_cast<int>(options[1].value), 0, work,
                    static_cast<unsigned>(options[6].value));
    }
    const int emitters = static_cast<int>(options[2].value);
    catchUp(emitters, std::max(1, emitters / 10));
    return 0;
}
