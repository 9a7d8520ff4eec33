// Records what a client application sends, without a sound server: it listens where the
// application looks for its servers (or announces itself as a server does), takes the catch-up
// and every change that follows, and writes them into a session file for kelo-replay.
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include <Kelo/Server.h>
#include <Kelo/SessionWriter.h>
#include <Lirra/Multicast.h>
#include <osg/Log.h>

#include "AppOptions.h"
#include "CommandLine.h"

using namespace AppOptions;

namespace {

std::atomic<bool> stopping{false};

void stop(int) {
    stopping = true;
}

struct Texts {
    std::string file, servers, group = Lirra::Multicast::kDefaultGroup,
                               groupPort = std::to_string(Lirra::Multicast::kDefaultPort), duration,
                               limit = "1024", logLevel;
    bool noMulticast = false;
};

struct Settings {
    std::string file;
    std::vector<Address> servers;  // empty: one on a port the system chooses
    std::string group;
    unsigned short groupPort = 0;
    bool noMulticast = false;
    double duration = 0;  // 0: until stopped
    uint64_t limit = 0;
    int logLevel = osg::LOG_WARNING;
};

Settings check(const Texts& in) {
    Settings out;
    out.file = Kelo::SessionWriter::expandName(in.file);
    if (out.file.empty() || out.file.find_first_of("\r\n") != std::string::npos)
        throw BadOption("FILE", shown(in.file) + " is not a file name");
    if (!in.servers.empty())
        out.servers = addressList("--servers", in.servers);
    out.group = multicastGroup("--group", in.group);
    out.groupPort = static_cast<unsigned short>(integerIn("--group-port", in.groupPort, 1, 65535));
    out.noMulticast = in.noMulticast;
    if (!in.duration.empty())
        out.duration = numberIn("--duration", in.duration, 0.001, 1e7);
    out.limit = static_cast<uint64_t>(integerIn("--record-limit", in.limit, 0, 1 << 20)) << 20;
    out.logLevel = in.logLevel.empty()
                       ? osg::Log::the().level()
                       : static_cast<int>(integerIn("--log-level", in.logLevel, 0, 3));
    return out;
}

}  // namespace

int main(int argc, char** argv) {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    CLI::App app{
        "Kelo session recorder: stands in for sound servers and records what a client "
        "application sends them (its catch-up first, then every change) into a session file "
        "for kelo-replay."};
#ifdef KELO_VERSION
    app.set_version_flag("--version", "kelo-record " KELO_VERSION);
#endif
    Texts in;
    app.add_option("FILE", in.file,
                   "The session file to write (an existing one is replaced); strftime conversions "
                   "such as %Y%m%d-%H%M%S become the time it starts")
        ->required();
    app.add_option("--servers", in.servers,
                   "Listen on these addresses, host:port[,host:port...], the text of the "
                   "application's servers= parameter; only what arrives on the first is "
                   "recorded (default: a port the system chooses, announced by multicast)")
        ->type_name("LIST");
    app.add_option("--group", in.group, "Multicast group to announce on")
        ->type_name("ADDRESS")
        ->capture_default_str();
    app.add_option("--group-port", in.groupPort, "Port of the multicast group")
        ->type_name("PORT")
        ->capture_default_str();
    app.add_flag("--no-multicast", in.noMulticast,
                 "Do not announce; the application must name the printed address");
    app.add_option("--duration", in.duration, "Stop after this many seconds (default: at SIGINT)")
        ->type_name("SECONDS");
    app.add_option("--record-limit", in.limit,
                   "MiB the session file may take, 0 for no limit; recording stops there")
        ->type_name("MiB")
        ->capture_default_str();
    app.add_option("--log-level", in.logLevel,
                   "0 progress only, 1 errors, 2 warnings, 3 notices (default: 2, or "
                   "KELO_LOG_LEVEL)")
        ->type_name("LEVEL");
    Settings settings;
    if (const auto exitCode =
            parseCommandLine(app, argc, argv, "kelo-record", [&] { settings = check(in); }))
        return *exitCode;
    osg::Log::the().setLevel(settings.logLevel);

    // Listening first: a file is created only once there is something to record it from.
    std::vector<std::unique_ptr<Kelo::Server>> servers;
    if (settings.servers.empty()) {
        servers.push_back(std::make_unique<Kelo::Server>());
        servers.back()->setMulticastAddress(Lirra::InetAddress(settings.group));
        servers.back()->setMulticastPort(settings.groupPort);
        servers.back()->setMulticastEnabled(!settings.noMulticast);
    } else {
        for (const Address& address : settings.servers) {
            servers.push_back(std::make_unique<Kelo::Server>(address.port, address.numeric));
            servers.back()->setMulticastEnabled(false);
        }
    }
    std::string where;
    for (size_t i = 0; i < servers.size(); ++i) {
        Kelo::Server& server = *servers[i];
        if (!server.listening()) {
            std::fprintf(stderr, "kelo-record: cannot listen on %s\n",
                         settings.servers.empty() ? "a port of this host"
                                                  : settings.servers[i].text.c_str());
            return 1;
        }
        server.setRecordOnly(true);
        where += (i ? ", " : "") + server.host() + ":" + std::to_string(server.port());
    }

    Kelo::SessionWriter writer;
    writer.setLimit(settings.limit);
    if (!writer.open(settings.file, "kelo-record on " + where)) {
        std::fprintf(stderr, "kelo-record: %s: %s\n", settings.file.c_str(),
                     writer.error().c_str());
        return 1;
    }
    // An application sends the same to each of its servers: one copy is enough.
    servers.front()->setRecorder(&writer);

    std::signal(SIGINT, stop);
    std::signal(SIGTERM, stop);
    std::printf("kelo-record: listening on %s", where.c_str());
    if (settings.servers.empty() && !settings.noMulticast)
        std::printf(", announcing on %s:%u", settings.group.c_str(), settings.groupPort);
    std::printf("; recording into %s\n", settings.file.c_str());

    const auto start = std::chrono::steady_clock::now();
    auto summaries = start;
    bool full = false;
    while (!stopping) {
        const auto now = std::chrono::steady_clock::now();
        if (settings.duration > 0 &&
            now - start >= std::chrono::duration<double>(settings.duration))
            break;
        servers.front()->waitForEvents(0.05);
        for (auto& server : servers)
            server->receive(false);
        if (writer.failed())
            break;
        if (writer.full() && !full) {
            full = true;
            std::printf("kelo-record: %s reached its limit of %llu MiB: recording stopped\n",
                        settings.file.c_str(),
                        static_cast<unsigned long long>(settings.limit >> 20));
        }
        if (now - summaries >= std::chrono::seconds(1)) {
            osg::LogLimiter::flushAll();
            summaries = now;
        }
    }

    servers.front()->setRecorder(nullptr);
    servers.clear();
    const bool written = writer.close();
    osg::LogLimiter::flushAll(true);
    if (!written) {
        std::fprintf(stderr, "kelo-record: %s: %s (the file holds the session up to there)\n",
                     settings.file.c_str(), writer.error().c_str());
        return 1;
    }
    std::printf(
        "kelo-record: recorded %llu events (%llu bytes, %s) into %s\n",
        static_cast<unsigned long long>(writer.records()),
        static_cast<unsigned long long>(writer.bytes()),
        secondsText(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count())
            .c_str(),
        settings.file.c_str());
    return 0;
}
