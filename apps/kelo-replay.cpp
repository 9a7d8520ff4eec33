// Plays a session file to sound servers as the application that was recorded would: a local
// world with a "client" backend is driven by the recorded events with their original timing,
// so every server, also one that connects late or comes back, gets the catch-up of the world
// as it is at that moment and then the same changes the application sent.
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include <CLI/CLI.hpp>

#include <Kelo/ClientBackend.h>
#include <Kelo/CommandEvent.h>
#include <Kelo/ReplayWorld.h>
#include <Kelo/SessionReader.h>
#include <Kelo/Source.h>
#include <Lirra/Multicast.h>
#include <osg/Log.h>

#include "AppOptions.h"
#include "CommandLine.h"

using namespace AppOptions;
using Clock = std::chrono::steady_clock;

namespace {

std::atomic<bool> stopping{false};

void stop(int) {
    stopping = true;
}

// How often the world is updated (catch-ups for servers that join, playing times reported)
// while waiting for the next event.
constexpr auto kTick = std::chrono::milliseconds(5);
// A looping pass takes at least this long, so that a session without events cannot spin.
constexpr double kMinPassSeconds = 0.1;

struct Texts {
    std::string file, servers, speed = "1", from = "0", connectTimeout = "5",
                               group = Lirra::Multicast::kDefaultGroup,
                               groupPort = std::to_string(Lirra::Multicast::kDefaultPort), logLevel;
    bool loop = false, hold = false;
};

struct Settings {
    std::string file;
    std::vector<Address> servers;  // empty: discovery
    std::string group;
    unsigned short groupPort = 0;
    double speed = 1, from = 0, connectTimeout = 5;
    bool loop = false, hold = false;
    int logLevel = osg::LOG_WARNING;
};

Settings check(const Texts& in) {
    Settings out;
    if (in.file.empty())
        throw BadOption("FILE", "no file name given");
    out.file = in.file;
    if (!in.servers.empty())
        out.servers = addressList("--servers", in.servers);
    out.group = multicastGroup("--group", in.group);
    out.groupPort = static_cast<unsigned short>(integerIn("--group-port", in.groupPort, 1, 65535));
    out.speed = numberIn("--speed", in.speed, 0.01, 100);
    out.from = numberIn("--from", in.from, 0, 1e7);
    out.connectTimeout = numberIn("--connect-timeout", in.connectTimeout, 0.1, 3600);
    out.loop = in.loop;
    out.hold = in.hold;
    out.logLevel = in.logLevel.empty()
                       ? osg::Log::the().level()
                       : static_cast<int>(integerIn("--log-level", in.logLevel, 0, 3));
    return out;
}

// The replayed world; prints the playing times that servers report, each once per value.
class Player : public Kelo::ReplayWorld {
public:
    // The client backend goes first: it leaves the servers with a reset, as an application
    // that ends in good order does.
    ~Player() override { deleteAllBackends(); }

    void setSourceDuration(Kelo::Source& source) override {
        auto it = _shown.find(source.id());
        if (it != _shown.end() && it->second == source.duration())
            return;
        _shown[source.id()] = source.duration();
        std::printf("kelo-replay: source %d: %s\n", source.id(),
                    secondsText(source.duration()).c_str());
    }

private:
    std::map<int, float> _shown;
};

// Updates the world until the time has come, or it is stopped; false when stopped.
bool waitUntil(Player& world, Clock::time_point due) {
    for (;;) {
        world.update();
        if (stopping)
            return false;
        const auto now = Clock::now();
        if (now >= due)
            return true;
        std::this_thread::sleep_for(std::min<Clock::duration>(due - now, kTick));
    }
}

std::string startText(const Kelo::SessionReader& reader) {
    const std::time_t seconds = static_cast<std::time_t>(reader.startTime() / 1000000);
    std::tm local{};
    char text[64] = "?";
    if (localtime_r(&seconds, &local))
        std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    return text;
}

std::string clientParams(const Settings& settings) {
    if (settings.servers.empty())
        return "multicast=true group=" + settings.group +
               " groupPort=" + std::to_string(settings.groupPort);
    std::string list;
    for (const Address& address : settings.servers)
        list += (list.empty() ? "" : ",") + address.text;
    // Quick retries: a server started a moment after the replay is reached in time.
    return "servers=\"" + list + "\" retry=0.25";
}

}  // namespace

int main(int argc, char** argv) {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    CLI::App app{
        "Kelo session player: plays a session file (kelo-record, kelo-server --record) to sound "
        "servers as the recorded application would, with its original timing."};
#ifdef KELO_VERSION
    app.set_version_flag("--version", "kelo-replay " KELO_VERSION);
#endif
    Texts in;
    app.add_option("FILE", in.file, "The session file to play")->required();
    app.add_option("--servers", in.servers,
                   "Servers to play to, host:port[,host:port...] (default: those that announce "
                   "themselves on the multicast group)")
        ->type_name("LIST");
    app.add_option("--speed", in.speed, "Time scale, 0.01..100: 2 plays twice as fast")
        ->type_name("X")
        ->capture_default_str();
    app.add_flag("--loop", in.loop, "Start again, with a reset, at the end");
    app.add_option("--from", in.from,
                   "Start this many seconds into the session (what comes before is applied at "
                   "once)")
        ->type_name("SECONDS")
        ->capture_default_str();
    app.add_flag("--hold", in.hold,
                 "At the end, keep the connections and the scene until SIGINT or SIGTERM "
                 "(default: leave, which resets the servers)");
    app.add_option("--connect-timeout", in.connectTimeout,
                   "Seconds to wait for the servers (every named one, or the first to "
                   "announce itself) before giving up")
        ->type_name("SECONDS")
        ->capture_default_str();
    app.add_option("--group", in.group, "Multicast group servers announce themselves on")
        ->type_name("ADDRESS")
        ->capture_default_str();
    app.add_option("--group-port", in.groupPort, "Port of the multicast group")
        ->type_name("PORT")
        ->capture_default_str();
    app.add_option("--log-level", in.logLevel,
                   "0 progress only, 1 errors, 2 warnings, 3 notices (default: 2, or "
                   "KELO_LOG_LEVEL)")
        ->type_name("LEVEL");
    Settings settings;
    if (const auto exitCode =
            parseCommandLine(app, argc, argv, "kelo-replay", [&] { settings = check(in); }))
        return *exitCode;
    osg::Log::the().setLevel(settings.logLevel);

    Kelo::SessionReader reader;
    if (!reader.open(settings.file)) {
        std::fprintf(stderr, "kelo-replay: %s: %s\n", settings.file.c_str(),
                     reader.error().c_str());
        return 1;
    }

    std::signal(SIGINT, stop);
    std::signal(SIGTERM, stop);
    Player world;
    auto* client = dynamic_cast<Kelo::ClientBackend*>(
        world.addBackend("client", clientParams(settings).c_str()));
    if (!client) {
        std::fprintf(stderr, "kelo-replay: cannot create the client backend\n");
        return 1;
    }

    // Every named server, or the first that announces itself, before the first event.
    const size_t wanted = settings.servers.empty() ? 1 : settings.servers.size();
    const auto giveUp = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                           std::chrono::duration<double>(settings.connectTimeout));
    while (client->servers() < wanted && Clock::now() < giveUp && !stopping) {
        world.update();
        std::this_thread::sleep_for(kTick);
    }
    if (stopping)
        return 0;
    if (client->servers() < wanted) {
        const std::string within = "within " + secondsText(settings.connectTimeout);
        if (settings.servers.empty())
            std::fprintf(stderr, "kelo-replay: no server announced itself on %s:%u %s\n",
                         settings.group.c_str(), settings.groupPort, within.c_str());
        else if (wanted == 1)
            std::fprintf(stderr, "kelo-replay: cannot reach %s %s\n",
                         settings.servers.front().text.c_str(), within.c_str());
        else
            std::fprintf(stderr, "kelo-replay: reached %zu of the %zu servers %s (%s)\n",
                         client->servers(), wanted, within.c_str(), in.servers.c_str());
        return 1;
    }
    std::printf("kelo-replay: playing %s (recorded %s%s%s) to %zu server%s at speed %g\n",
                settings.file.c_str(), startText(reader).c_str(), reader.note().empty() ? "" : ", ",
                reader.note().c_str(), client->servers(), client->servers() == 1 ? "" : "s",
                settings.speed);

    const auto began = Clock::now();
    uint64_t played = 0, micros = 0, reached = 0;
    for (;;) {
        const auto passStart = Clock::now();
        while (!stopping) {
            std::unique_ptr<Kelo::CommandEvent> event = reader.next(micros);
            if (!event)
                break;
            const double at = static_cast<double>(micros) / 1e6;
            if (at > settings.from) {
                const auto due =
                    passStart +
                    std::chrono::duration_cast<Clock::duration>(
                        std::chrono::duration<double>((at - settings.from) / settings.speed));
                if (!waitUntil(world, due))
                    break;
            }
            world.apply(*event);
            ++played;
            reached = micros;
        }
        world.update();
        if (stopping || reader.damaged() || !settings.loop)
            break;
        waitUntil(world, passStart + std::chrono::duration_cast<Clock::duration>(
                                         std::chrono::duration<double>(kMinPassSeconds)));
        if (stopping || !reader.rewind())
            break;
        world.reset();
    }

    const double took = std::chrono::duration<double>(Clock::now() - began).count();
    std::printf("kelo-replay: %s %llu events (%s of the session) in %s\n",
                stopping ? "stopped after" : "played", static_cast<unsigned long long>(played),
                secondsText(static_cast<double>(reached) / 1e6).c_str(), secondsText(took).c_str());
    const bool damaged = reader.damaged();
    if (damaged)
        std::fprintf(stderr, "kelo-replay: %s: %s\n", settings.file.c_str(),
                     reader.error().c_str());
    if (settings.hold && !stopping) {
        std::printf("kelo-replay: holding the scene until SIGINT or SIGTERM\n");
        waitUntil(world, Clock::time_point::max());
    }
    return damaged ? 1 : 0;
}
