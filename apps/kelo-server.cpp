// The sound server: holds the sounds it was given, renders what client applications do with
// them (through "openal" unless told otherwise), and makes itself known on a multicast group.
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include <Kelo/Server.h>
#include <Lirra/Multicast.h>
#include <Kelo/Source.h>
#include <osg/Log.h>

#include "AudioOutput.h"

namespace {

std::atomic<bool> stopping{false};

void stop(int) {
    stopping = true;
}

struct Sound {
    int id;
    std::string location;  // a path or URL
};

// A client's reset empties the world; this server then puts its own sounds back, with their
// ids, so that every client finds them.
class SoundServer : public Kelo::Server {
public:
    SoundServer(unsigned short port, const std::string& host, std::vector<Sound> sounds)
        : Kelo::Server(port, host), _sounds(std::move(sounds)) {}
    ~SoundServer() override { clearWorld(); }

    void resetWorld() override {
        Kelo::Server::resetWorld();
        loadSounds();
    }

    bool loadSounds() {
        for (const Sound& sound : _sounds) {
            Kelo::Source* source = getSource(sound.id);
            if (!source)
                source = createSource(sound.id);
            if (!source)
                return false;
            try {
                source->setDataFromURL(sound.location);
            } catch (const std::exception& e) {
                std::fprintf(stderr, "kelo-server: sound %d: %s: %s\n", sound.id,
                             sound.location.c_str(), e.what());
                return false;
            }
        }
        return true;
    }

private:
    std::vector<Sound> _sounds;
};

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"Kelo sound server: renders the sound scenes that client applications send."};
    std::vector<std::string> backends{"openal"};
    std::vector<std::string> soundTexts;
    std::string id, host, group = Lirra::Multicast::kDefaultGroup, interface = "0.0.0.0";
    std::string wav = "kelo-server.wav";
    unsigned short port = 0, groupPort = Lirra::Multicast::kDefaultPort;
    int ttl = 1, logLevel = osg::Log::the().level();
    bool noMulticast = false;
    app.add_option("-b,--backend", backends,
                   "Backend as TYPE or TYPE:PARAMETERS (repeatable), e.g. \"log\" or "
                   "\"openal:labels=front\"")
        ->capture_default_str();
    app.add_option("-s,--sound", soundTexts,
                   "A sound as ID=PATH_OR_URL (repeatable); clients use it by that source id");
    app.add_option("--id", id, "Server id announced to clients (a number, or any text)");
    app.add_option("--host", host, "Address to listen on (default: every interface)");
    app.add_option("-p,--port", port, "Port to listen on (default: chosen by the system)");
    app.add_option("--group", group, "Multicast group to announce on")->capture_default_str();
    app.add_option("--group-port", groupPort, "Port of the multicast group")->capture_default_str();
    app.add_option("--ttl", ttl, "Time-to-live of the announcements")->capture_default_str();
    app.add_option("--interface", interface, "Local address that announcements leave by")
        ->capture_default_str();
    app.add_flag("--no-multicast", noMulticast, "Do not announce; clients must name this server");
    app.add_option("--log-level", logLevel, "0 progress only, 1 errors, 2 warnings, 3 notices")
        ->capture_default_str();
    app.add_option("--wav", wav, "Where to render when there is no sound device")
        ->capture_default_str();
    CLI11_PARSE(app, argc, argv);

    std::vector<Sound> sounds;
    for (const std::string& text : soundTexts) {
        const size_t equals = text.find('=');
        char* end = nullptr;
        const long soundId = equals == std::string::npos ? 0 : std::strtol(text.c_str(), &end, 10);
        if (equals == std::string::npos || end != text.c_str() + equals || soundId == 0 ||
            equals + 1 == text.size()) {
            std::fprintf(stderr,
                         "kelo-server: --sound wants ID=PATH_OR_URL with an id other "
                         "than 0, not \"%s\"\n",
                         text.c_str());
            return 2;
        }
        sounds.push_back({static_cast<int>(soundId), text.substr(equals + 1)});
    }

    osg::Log::the().setLevel(logLevel);
    const std::string rendering = chooseAudioOutput(wav);

    SoundServer server(port, host, sounds);
    if (!server.listening())
        return 1;
    server.setId(id.c_str());
    server.setMulticastAddress(Lirra::InetAddress(group));
    server.setMulticastPort(groupPort);
    server.setMulticastTtl(ttl);
    server.setMulticastInterface(Lirra::InetAddress(interface));
    server.setMulticastEnabled(!noMulticast);
    for (const std::string& backend : backends) {
        const size_t colon = backend.find(':');
        const std::string type = backend.substr(0, colon);
        const std::string params = colon == std::string::npos ? "" : backend.substr(colon + 1);
        if (!server.addBackend(type.c_str(), params.c_str())) {
            std::fprintf(stderr, "kelo-server: cannot create the backend \"%s\"\n", type.c_str());
            server.clearWorld();
            server.deleteAllBackends();
            return 1;
        }
    }
    if (!server.loadSounds()) {
        server.clearWorld();
        server.deleteAllBackends();
        return 1;
    }

    std::signal(SIGINT, stop);
    std::signal(SIGTERM, stop);
    std::printf("kelo-server: listening on %s:%u", server.host().c_str(), server.port());
    if (noMulticast)
        std::printf(", not announcing");
    else
        std::printf(", announcing on %s:%u (ttl %d, interface %s) as server id %d", group.c_str(),
                    groupPort, ttl, interface.c_str(), server.id());
    std::printf("\n");
    if (!rendering.empty())
        std::printf("kelo-server: no sound device; rendering into %s\n", rendering.c_str());
    std::fflush(stdout);

    // One thread for the world, its backends and the network: receive what clients sent, then
    // let the backends do their frame's work, about 90 times a second when idle.
    while (!stopping) {
        server.waitForEvents(1.0 / 90);
        server.receive(false);
        server.update();
    }

    server.clearWorld();
    server.deleteAllBackends();
    forgetAudioOutput();
    std::printf("kelo-server: stopped after %lld events\n",
                static_cast<long long>(server.receivedCount()));
    return 0;
}
