// The sound server: holds the sounds it was given, renders what client applications do with
// them (through "openal" unless told otherwise), and makes itself known on a multicast group.
#include <atomic>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <unistd.h>
#include <CLI/CLI.hpp>

#include <Kelo/BackendFactory.h>
#include <Kelo/OALBackend.h>
#include <Kelo/Server.h>
#include <Kelo/SessionWriter.h>
#include <Kelo/Source.h>
#include <Lirra/InetAddress.h>
#include <Lirra/MultiCommunicator.h>
#include <Lirra/Multicast.h>
#include <Lirra/URL.h>
#include <Parmel/ParamLine.h>
#include <Tovan/Thread.h>
#include <osg/Log.h>

#include "AppOptions.h"
#include "AudioOutput.h"
#include "CommandLine.h"

using namespace AppOptions;

namespace {

std::atomic<bool> stopping{false};

void stop(int) {
    stopping = true;
}

// The main loop hands the world to its backends about 90 times a second. Events are applied in
// batches well under one frame, so that a client sending at full rate cannot stall the frames.
constexpr double kFrameSeconds = 1.0 / 90;
constexpr int kBatchEvents = 20000;
constexpr double kBatchSeconds = 0.004;

struct Sound {
    int id;
    std::string location;  // a path or URL
};

struct Backend {
    std::string type, params;
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
                             Lirra::URLImpl::withoutUserInfo(sound.location).c_str(), e.what());
                return false;
            }
        }
        return true;
    }

private:
    std::vector<Sound> _sounds;
};

std::string numericAddress(const std::string& option, const std::string& text) {
    if (!Lirra::InetAddress(text).valid())
        throw BadOption(option, shown(text) + " is not a numeric IPv4 or IPv6 address");
    return text;
}

// Everything the options ask for, checked before anything is started.
struct Settings {
    std::vector<Sound> sounds;
    std::vector<Backend> backends;
    std::string id, host, group, interface, wav;
    unsigned short port = 0, groupPort = 0;
    int ttl = 1, logLevel = osg::LOG_WARNING;
    bool noMulticast = false, exclusive = false, listDevices = false, localSocket = false;
    // Zero, or below zero for the idle limit: the library's default.
    size_t maxClients = 0, receiveBudget = 0;
    double idleLimit = -1;
    unsigned busyPoll = 0;  // microseconds; 0 sleeps at once
    unsigned slice = 0;     // microseconds; 0 leaves the kernel's
    // The session file (empty: none) and the bytes it may take (0: no limit).
    std::string record;
    uint64_t recordLimit = 0;
};

struct Texts {
    std::vector<std::string> backends{"openal"}, sounds;
    std::string id, host, port = "0", group = Lirra::Multicast::kDefaultGroup,
                          groupPort = std::to_string(Lirra::Multicast::kDefaultPort), ttl = "1",
                          interface = "0.0.0.0", logLevel, wav = "kelo-server.wav", maxClients,
                          receiveBudget, idleLimit, busyPoll, slice, device, hrtf, frequency;
    bool noMulticast = false, exclusive = false, listDevices = false, deviceGiven = false,
         localSocket = false;
    // --web, --web-host
    std::string web, webHost = "127.0.0.1";
    bool webGiven = false;
    // --record, --record-limit
    std::string record, recordLimit = "1024";
};

// A parameter value in double quotes, as the parameter text reads it.
std::string quoted(const std::string& value) {
    std::string out = "\"";
    for (char c : value)
        out += c == '"' || c == '\\' ? std::string("\\") + c : std::string(1, c);
    return out + "\"";
}

bool hasControl(const std::string& text) {
    for (char c : text)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f)
            return true;
    return false;
}

// The openal parameters that --device, --hrtf and --frequency ask for, in front of the
// backend's own ones, so that "openal:hrtf=off" still has the last word.
std::string audioParams(const Texts& in) {
    std::string out;
    if (in.deviceGiven) {
        if (in.device.empty() || hasControl(in.device))
            throw BadOption("--device", shown(in.device) + " is not a device name");
        out += "device=" + quoted(in.device) + " ";
    }
    if (!in.hrtf.empty()) {
        const bool named = in.hrtf.rfind("name:", 0) == 0 && in.hrtf.size() > 5;
        if (!named && in.hrtf != "auto" && in.hrtf != "on" && in.hrtf != "off")
            throw BadOption("--hrtf", shown(in.hrtf) + " is not auto, on, off or name:SPECIFIER");
        if (hasControl(in.hrtf))
            throw BadOption("--hrtf", shown(in.hrtf) + " is not a data set name");
        out += "hrtf=" + quoted(in.hrtf) + " ";
    }
    if (!in.frequency.empty())
        out += "frequency=" + std::to_string(integerIn("--frequency", in.frequency, 8000, 192000)) +
               " ";
    return out;
}

Settings check(const Texts& in) {
    Settings out;
    std::set<int> ids;
    for (const std::string& text : in.sounds) {
        const size_t equals = text.find('=');
        if (equals == std::string::npos || equals + 1 == text.size())
            throw BadOption(
                "--sound", shown(Lirra::URLImpl::withoutUserInfo(text)) + " is not ID=PATH_OR_URL");
        const std::string idText = text.substr(0, equals);
        // Source ids travel as signed 16-bit numbers.
        const int id = static_cast<int>(integerIn("--sound", idText, -32768, 32767));
        if (id == 0)
            throw BadOption("--sound", "the id must not be 0 (it asks for a new id)");
        if (!ids.insert(id).second)
            throw BadOption("--sound", "id " + idText + " is given twice");
        out.sounds.push_back({id, text.substr(equals + 1)});
    }
    const std::string audio = audioParams(in);
    for (const std::string& text : in.backends) {
        const size_t colon = text.find(':');
        Backend backend{text.substr(0, colon),
                        colon == std::string::npos ? "" : text.substr(colon + 1)};
        if (backend.type == "openal" || backend.type == "default")
            backend.params = audio + backend.params;
        if (!Kelo::BackendFactory::findBackendType(backend.type == "default" ? std::string("openal")
                                                                             : backend.type))
            throw BadOption("--backend", shown(backend.type) + " is not a backend type");
        try {
            Parmel::ParamLine().setParamLine(backend.params.c_str());
        } catch (const Parmel::ParseError& e) {
            throw BadOption("--backend", "the parameters of " + backend.type + ": " + e.what());
        }
        out.backends.push_back(std::move(backend));
    }
    out.id = in.id;
    if (out.id.size() > 255)
        throw BadOption("--id", "longer than 255 characters");
    // A number is taken as the id itself (what precedes any other character): it must fit.
    const size_t sign = !out.id.empty() && (out.id[0] == '-' || out.id[0] == '+') ? 1 : 0;
    const size_t digits = out.id.find_first_not_of("0123456789", sign);
    if ((digits == std::string::npos ? out.id.size() : digits) > sign)
        integerIn("--id", out.id.substr(0, digits), -32768, 32767);
    out.host = in.host.empty() ? in.host : numericAddress("--host", in.host);
    out.port = static_cast<unsigned short>(integerIn("--port", in.port, 0, 65535));
    out.group = numericAddress("--group", in.group);
    if (!Lirra::InetAddress(out.group).isMulticast())
        throw BadOption("--group", in.group + " is not a multicast address");
    out.groupPort = static_cast<unsigned short>(integerIn("--group-port", in.groupPort, 1, 65535));
    out.ttl = static_cast<int>(integerIn("--ttl", in.ttl, 0, 255));
    out.interface = numericAddress("--interface", in.interface);
    if (Lirra::InetAddress(out.interface).isMulticast())
        throw BadOption("--interface", in.interface + " is a multicast address, not a local one");
    if (!in.logLevel.empty())
        out.logLevel = static_cast<int>(integerIn("--log-level", in.logLevel, 0, 3));
    else
        out.logLevel = osg::Log::the().level();
    // It goes into a configuration file, one line.
    if (in.wav.empty() || in.wav.find_first_of("\r\n") != std::string::npos)
        throw BadOption("--wav", shown(in.wav) + " is not a file name");
    out.wav = in.wav;
    out.noMulticast = in.noMulticast;
    out.exclusive = in.exclusive;
    out.localSocket = in.localSocket;
    out.listDevices = in.listDevices;
    if (!in.maxClients.empty())
        out.maxClients = static_cast<size_t>(integerIn("--max-clients", in.maxClients, 1, 10000));
    if (!in.receiveBudget.empty())
        out.receiveBudget =
            static_cast<size_t>(integerIn("--receive-budget", in.receiveBudget, 1, 65536)) << 20;
    if (in.webGiven) {
        // A "web" backend after the others: status pages, the live scene and /metrics.
        const long long port = integerIn("--web", in.web, 1, 65535);
        const std::string host = numericAddress("--web-host", in.webHost);
        if (Lirra::InetAddress(host).isMulticast())
            throw BadOption("--web-host", host + " is a multicast address, not a local one");
        out.backends.push_back({"web", "host=" + quoted(host) + " port=" + std::to_string(port)});
    }
    if (!in.idleLimit.empty()) {
        out.idleLimit = numberIn("--idle-limit", in.idleLimit, 0, 86400);
        // Clients send a keep-alive every 5 s: a shorter limit would drop well-behaved ones.
        if (out.idleLimit > 0 && out.idleLimit < 10)
            throw BadOption("--idle-limit", in.idleLimit + " is not 0 and not in 10..86400");
    }
    if (!in.busyPoll.empty())
        out.busyPoll = static_cast<unsigned>(
            integerIn("--busy-poll", in.busyPoll, 0, Lirra::MultiCommunicator::kMaxBusyPollMicros));
    if (!in.slice.empty()) {
        out.slice = static_cast<unsigned>(
            integerIn("--scheduler-slice", in.slice, 0, Tovan::Thread::kMaxSliceMicros));
        if (!Tovan::Thread::validSlice(out.slice))
            throw BadOption("--scheduler-slice", in.slice + " is not 0 and not in 100..100000");
    }
    out.record = Kelo::SessionWriter::expandName(in.record);
    if (!in.record.empty() &&
        (out.record.empty() || out.record.find_first_of("\r\n") != std::string::npos))
        throw BadOption("--record", shown(in.record) + " is not a file name");
    out.recordLimit = static_cast<uint64_t>(integerIn("--record-limit", in.recordLimit, 0, 1 << 20))
                      << 20;
    return out;
}

// --list-devices: what OpenAL offers here (on a machine without a sound device, the wave writer).
// The wave writer is pointed at a file of its own, so that asking leaves any render alone.
int listDevices(const std::string& device) {
    std::string scratch = "kelo-list-devices.wav";
    try {
        scratch = (std::filesystem::temp_directory_path() /
                   ("kelo-" + std::to_string(getpid()) + ".list-devices.wav"))
                      .string();
    } catch (const std::filesystem::filesystem_error&) {
    }
    const std::string rendering = chooseAudioOutput(scratch);
    std::printf("playback devices:\n");
    for (const std::string& name : Kelo::OALBackend::playbackDevices())
        std::printf("  %s\n", name.c_str());
    std::printf("HRTF data sets (of %s):\n",
                device.empty() ? "the default device" : ("\"" + device + "\"").c_str());
    for (const std::string& name : Kelo::OALBackend::hrtfNamesOf(device))
        std::printf("  %s\n", name.c_str());
    forgetAudioOutput();
    if (!rendering.empty())
        std::remove(rendering.c_str());
    return 0;
}

// --check-options: the sound files named by path or file: URL must be readable (URLs of
// other schemes are only parsed: checking them would open a connection).
void checkSoundFiles(const std::vector<Sound>& sounds) {
    for (const Sound& sound : sounds) {
        const std::string name = "sound " + std::to_string(sound.id);
        try {
            const auto url = Lirra::URLImpl::create(sound.location, &Lirra::URLFile::_cwd);
            if (url->scheme() == "file")
                url->fetch();
        } catch (const Lirra::URLImpl::Exception& e) {
            throw BadOption("--sound", name + ": " + e.what());
        }
    }
}

bool wantsOpenAL(const std::vector<Backend>& backends) {
    for (const Backend& backend : backends)
        if (backend.type == "openal" || backend.type == "default")
            return true;
    return false;
}

}  // namespace

int main(int argc, char** argv) {
    // Under a service manager stdout is a pipe: line by line, so that the journal has each
    // line when it is written.
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    CLI::App app{"Kelo sound server: renders the sound scenes that client applications send."};
    Texts in;
    app.set_version_flag("--version", "kelo-server " KELO_VERSION);
    bool checkOptions = false;
    app.add_flag("--check-options", checkOptions,
                 "Check every option and that sound files can be read, start nothing, exit 0 "
                 "(or 2 naming the first bad option)");
    app.add_option("-b,--backend", in.backends,
                   "Backend as TYPE or TYPE:PARAMETERS (repeatable), e.g. \"log\" or "
                   "\"openal:labels=front\"")
        ->type_name("TYPE[:PARAMETERS]")
        ->capture_default_str();
    app.add_option("-s,--sound", in.sounds,
                   "A sound as ID=PATH_OR_URL (repeatable); clients use it by that source id "
                   "(-32768..32767, not 0)")
        ->type_name("ID=PATH_OR_URL");
    app.add_option("--id", in.id, "Server id announced to clients (a number, or any text)")
        ->type_name("ID");
    app.add_option("--host", in.host, "Numeric address to listen on (default: every interface)")
        ->type_name("ADDRESS");
    app.add_option("-p,--port", in.port, "Port to listen on (0: chosen by the system)")
        ->type_name("PORT")
        ->capture_default_str();
    app.add_option("--group", in.group, "Multicast group to announce on")
        ->type_name("ADDRESS")
        ->capture_default_str();
    app.add_option("--group-port", in.groupPort, "Port of the multicast group")
        ->type_name("PORT")
        ->capture_default_str();
    app.add_option("--ttl", in.ttl, "Time-to-live of the announcements (0..255)")
        ->type_name("HOPS")
        ->capture_default_str();
    app.add_option("--interface", in.interface, "Local address that announcements leave by")
        ->type_name("ADDRESS")
        ->capture_default_str();
    app.add_flag("--no-multicast", in.noMulticast,
                 "Do not announce; clients must name this server");
    app.add_option("--log-level", in.logLevel,
                   "0 progress only, 1 errors, 2 warnings, 3 notices (default: 2, or "
                   "KELO_LOG_LEVEL)")
        ->type_name("LEVEL");
    app.add_option("--wav", in.wav, "Where to render when there is no sound device")
        ->type_name("FILE")
        ->capture_default_str();
    app.add_option("--device", in.device,
                   "The OpenAL playback device, by its exact name (see --list-devices)")
        ->type_name("NAME");
    app.add_option("--hrtf", in.hrtf,
                   "Binaural rendering for headphones: auto (default), on, off, or "
                   "name:SPECIFIER for one HRTF data set")
        ->type_name("MODE");
    app.add_option("--frequency", in.frequency,
                   "Mixing rate asked of the OpenAL device, 8000..192000 (default: the device's)")
        ->type_name("HZ");
    app.add_flag("--list-devices", in.listDevices,
                 "Print the OpenAL playback devices and HRTF data sets, then exit");
    app.add_flag("--exclusive", in.exclusive,
                 "Serve one client at a time: refuse others while one is connected");
    app.add_option("--max-clients", in.maxClients,
                   "Client connections held at once, 1..10000 (default: 64)")
        ->type_name("N");
    app.add_option("--receive-budget", in.receiveBudget,
                   "MiB of received, unread data all clients together may hold, 1..65536 "
                   "(default: 256)")
        ->type_name("MiB");
    app.add_option("--idle-limit", in.idleLimit,
                   "Seconds of silence after which a client is dropped, 0 (never) or 10..86400 "
                   "(default: 30)")
        ->type_name("SECONDS");
    app.add_option("--busy-poll", in.busyPoll,
                   "Microseconds after the last input during which the server polls its clients "
                   "without sleeping, 0..1000000: play commands arrive sooner, at the price of a "
                   "busy processor (default: 0)")
        ->type_name("MICROSECONDS");
    app.add_option("--scheduler-slice", in.slice,
                   "Microseconds of the scheduler slice the server's thread asks Linux 6.12 and "
                   "later for, 0 or 100..100000: with a short one, play commands from a busy "
                   "client on the same machine are taken at once (default: 0, the kernel's)")
        ->type_name("MICROSECONDS");
    app.add_flag("--local-socket", in.localSocket,
                 "Also take clients on this machine through the local socket @kelo-PORT "
                 "(@kelo6-PORT for ::1; client backend parameter local=true): play commands "
                 "arrive in about 60% of the time");
    CLI::Option* web =
        app.add_option("--web", in.web,
                       "Serve status pages, the live scene and Prometheus /metrics over HTTP on "
                       "this port, 1..65535 (the system chooses another when it is taken)")
            ->type_name("PORT");
    app.add_option("--web-host", in.webHost,
                   "Numeric address the web pages are served on (0.0.0.0: every interface)")
        ->type_name("ADDRESS")
        ->capture_default_str()
        ->needs(web);
    CLI::Option* record =
        app.add_option("--record", in.record,
                       "Write every command event clients send, with its arrival time, into this "
                       "session file for kelo-replay (an existing one is replaced; strftime "
                       "conversions such as %Y%m%d-%H%M%S become the time it starts)")
            ->type_name("FILE");
    app.add_option("--record-limit", in.recordLimit,
                   "MiB the session file may take, 0 for no limit; recording stops there")
        ->type_name("MiB")
        ->capture_default_str()
        ->needs(record);
    Settings settings;
    if (const auto exitCode = parseCommandLine(app, argc, argv, "kelo-server", [&] {
            in.deviceGiven = app.count("--device") > 0;
            in.webGiven = app.count("--web") > 0;
            settings = check(in);
        }))
        return *exitCode;
    if (checkOptions) {
        try {
            checkSoundFiles(settings.sounds);
        } catch (const BadOption& e) {
            std::fprintf(stderr, "kelo-server: %s\n", e.what());
            return 2;
        }
        return 0;
    }

    osg::Log::the().setLevel(settings.logLevel);
    if (settings.listDevices)
        return listDevices(in.device);
    const std::string rendering =
        wantsOpenAL(settings.backends) ? chooseAudioOutput(settings.wav) : std::string();

    SoundServer server(settings.port, settings.host, settings.sounds);
    if (!server.listening())
        return 1;
    server.setId(settings.id.c_str());
    server.setMulticastAddress(Lirra::InetAddress(settings.group));
    server.setMulticastPort(settings.groupPort);
    server.setMulticastTtl(settings.ttl);
    server.setMulticastInterface(Lirra::InetAddress(settings.interface));
    server.setMulticastEnabled(!settings.noMulticast);
    server.setExclusive(settings.exclusive);
    if (settings.maxClients > 0)
        server.setMaxClients(settings.maxClients);
    if (settings.receiveBudget > 0)
        server.setReceiveBudget(settings.receiveBudget);
    if (settings.idleLimit >= 0)
        server.setIdleLimit(settings.idleLimit);
    server.setBusyPoll(settings.busyPoll);
    server.setSchedulerSlice(settings.slice);
    if (settings.localSocket && !server.setLocalSocket(true)) {
        std::fprintf(stderr, "kelo-server: cannot listen on a local socket for port %u\n",
                     static_cast<unsigned>(server.port()));
        return 1;
    }
    server.setReceiveBatch(kBatchEvents, kBatchSeconds);
    for (const Backend& backend : settings.backends) {
        if (!server.addBackend(backend.type.c_str(), backend.params.c_str())) {
            std::fprintf(stderr, "kelo-server: cannot create the backend \"%s\"\n",
                         backend.type.c_str());
            server.clearWorld();
            server.deleteAllBackends();
            forgetAudioOutput();
            return 1;
        }
    }
    if (!server.loadSounds()) {
        server.clearWorld();
        server.deleteAllBackends();
        forgetAudioOutput();
        return 1;
    }

    Kelo::SessionWriter recorder;
    if (!settings.record.empty()) {
        recorder.setLimit(settings.recordLimit);
        if (!recorder.open(settings.record, "kelo-server --record on " + server.host() + ":" +
                                                std::to_string(server.port()))) {
            std::fprintf(stderr, "kelo-server: --record: %s: %s\n", settings.record.c_str(),
                         recorder.error().c_str());
            server.clearWorld();
            server.deleteAllBackends();
            forgetAudioOutput();
            return 1;
        }
        server.setRecorder(&recorder);
    }

    std::signal(SIGINT, stop);
    std::signal(SIGTERM, stop);
    std::printf("kelo-server: listening on %s:%u", server.host().c_str(), server.port());
    if (settings.noMulticast)
        std::printf(", not announcing");
    else
        std::printf(", announcing on %s:%u (ttl %d, interface %s) as server id %d",
                    settings.group.c_str(), settings.groupPort, settings.ttl,
                    settings.interface.c_str(), server.id());
    if (settings.exclusive)
        std::printf(", one client at a time");
    if (!settings.record.empty())
        std::printf(", recording into %s", settings.record.c_str());
    std::printf("\n");
    if (!rendering.empty())
        std::printf("kelo-server: no sound device; rendering into %s\n", rendering.c_str());
    for (const Kelo::Backend* backend : server.backends())
        if (const auto* audio = dynamic_cast<const Kelo::OALBackend*>(backend))
            std::printf("kelo-server: openal: %s\n", audio->describe().c_str());
    std::fflush(stdout);

    // One thread for the world, its backends and the network: receive a batch of what clients
    // sent, then let the backends do their frame's work, about 90 times a second when idle.
    auto summaries = std::chrono::steady_clock::now();
    while (!stopping) {
        server.waitForEvents(kFrameSeconds);
        server.receive(false);
        server.update();
        // Messages held back by the log's limiters are counted once a second.
        const auto now = std::chrono::steady_clock::now();
        if (now - summaries >= std::chrono::seconds(1)) {
            osg::LogLimiter::flushAll();
            summaries = now;
        }
    }

    server.setRecorder(nullptr);
    if (!settings.record.empty() && !recorder.close())
        std::fprintf(stderr,
                     "kelo-server: --record: %s: %s (the file holds the session up to "
                     "there)\n",
                     settings.record.c_str(), recorder.error().c_str());
    server.clearWorld();
    server.deleteAllBackends();
    forgetAudioOutput();
    osg::LogLimiter::flushAll(true);  // count what was held back until now, too
    std::printf("kelo-server: stopped after %lld events\n",
                static_cast<long long>(server.receivedCount()));
    return 0;
}
