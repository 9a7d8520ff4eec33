// A pulsing sound circling the listener, and a quiet hum that stays on the listener.
//
//   kelo-demo --write-sounds DIR     writes the two sounds as DIR/pulses.wav and DIR/hum.wav
//   kelo-demo --server HOST:PORT     drives a kelo-server that holds them as sources 1 and 2
//   kelo-demo                        renders the scene itself through OpenAL
//
// Without a sound device, OpenAL renders into a WAV file (kelo-demo.wav when local).
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include <CLI/CLI.hpp>

#include <Kelo/ClientBackend.h>
#include <Kelo/Emitter.h>
#include <Kelo/Source.h>
#include <Kelo/World.h>

#include "AudioOutput.h"

namespace {

constexpr unsigned kRate = 44100;
constexpr double kSeconds = 6.0;  // how long the scene runs
constexpr double kOrbit = 4.0;    // seconds per circle
constexpr float kRadius = 3.0f;
constexpr int kPulses = 1, kHum = 2;  // source ids, the same on a server

void append16(std::vector<unsigned char>& bytes, double value) {
    const auto s = static_cast<uint16_t>(static_cast<int16_t>(std::lround(value)));
    bytes.push_back(static_cast<unsigned char>(s & 0xff));
    bytes.push_back(static_cast<unsigned char>(s >> 8));
}

// Two seconds of a bright tone pulsing four times a second, easy to follow around the head.
std::vector<unsigned char> pulses() {
    std::vector<unsigned char> bytes;
    for (unsigned i = 0; i < 2 * kRate; ++i) {
        const double t = static_cast<double>(i) / kRate;
        const double envelope = std::pow(std::sin(M_PI * std::fmod(4 * t, 1.0)), 2);
        const double wave = std::sin(2 * M_PI * 660 * t) + 0.3 * std::sin(2 * M_PI * 1320 * t);
        append16(bytes, 16000 * envelope * wave);
    }
    return bytes;
}

// One second of a low hum, a whole number of cycles so that it loops without a click.
std::vector<unsigned char> hum() {
    std::vector<unsigned char> bytes;
    for (unsigned i = 0; i < kRate; ++i)
        append16(bytes, 9000 * std::sin(2 * M_PI * 110 * i / kRate));
    return bytes;
}

void setSound(Kelo::Source& source, const std::vector<unsigned char>& pcm) {
    source.setData(kRate, 16, 1, pcm.data(), static_cast<unsigned>(pcm.size()));
}

int writeSounds(const std::string& dir) {
    Kelo::World world;
    Kelo::Source* source = world.createSource();
    setSound(*source, pulses());
    source->dumpWavFile(dir + "/pulses.wav");
    setSound(*source, hum());
    source->dumpWavFile(dir + "/hum.wav");
    world.clearWorld();
    return 0;
}

// "HOST:PORT" with a port from 1 to 65535; the port after the last colon, as the client
// backend reads it. Empty when good, else what is wrong.
std::string checkServer(const std::string& text) {
    const size_t colon = text.rfind(':');
    const std::string port = colon == std::string::npos ? "" : text.substr(colon + 1);
    const bool digits = !port.empty() && port.size() <= 5 &&
                        port.find_first_not_of("0123456789") == std::string::npos;
    if (colon == 0 || colon == std::string::npos || !digits || std::stoul(port) == 0 ||
        std::stoul(port) > 65535 || text.find_first_of(", \t=") != std::string::npos)
        return "expected HOST:PORT with a port from 1 to 65535, got \"" + text + "\"";
    return "";
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"Kelo demo: a sound circling the listener."};
    std::string server, soundDir;
    CLI::Option* serverOption =
        app.add_option("--server", server, "Drive the kelo-server at HOST:PORT")
            ->check(CLI::Validator(checkServer, "HOST:PORT", "server address"));
    app.add_option("--write-sounds", soundDir, "Write the demo's sounds into this directory")
        ->check(CLI::ExistingDirectory)
        ->excludes(serverOption);
    // Everything is checked before anything starts; a bad option exits with 2.
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        app.exit(e);
        return 2;
    }
    if (!soundDir.empty())
        return writeSounds(soundDir);

    const bool remote = !server.empty();
    const std::string wav = remote ? "" : chooseAudioOutput("kelo-demo.wav");

    Kelo::World world;
    Kelo::ClientBackend* client = nullptr;
    if (remote) {
        // A named server and no multicast: nothing leaves this machine but that connection.
        const std::string params = "servers=" + server + " multicast=false retry=0.2";
        client = static_cast<Kelo::ClientBackend*>(world.addBackend("client", params.c_str()));
    } else if (!world.addBackend("openal", "")) {
        return 1;
    }

    // On a server the sounds are its own sources 1 and 2; here they need data only when local.
    Kelo::Source* pulse = world.createSource(kPulses);
    Kelo::Source* drone = world.createSource(kHum);
    if (!remote) {
        setSound(*pulse, pulses());
        setSound(*drone, hum());
    }
    pulse->setParam(true, 1.0f);
    drone->setParam(true, 1.0f);

    Kelo::Emitter* circling = world.createEmitter({"circling"});
    circling->setHull(12, 12, 1, 1);
    circling->setSource(pulse);
    Kelo::Emitter* onListener = world.createEmitter({"ambience"});
    onListener->setParam(false, 0, 0.25f);  // not spatial: always on the listener
    onListener->setTransform(nullptr, nullptr);
    onListener->setSource(drone);

    if (remote) {
        for (int i = 0; i < 500 && client->servers() == 0; ++i) {
            world.update();  // catches up a server that has connected
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        if (client->servers() == 0) {
            std::fprintf(stderr, "kelo-demo: no kelo-server answered at %s\n", server.c_str());
            world.clearWorld();
            world.deleteAllBackends();
            return 1;
        }
        std::printf("kelo-demo: connected to the kelo-server at %s\n", server.c_str());
    }

    circling->setState(Kelo::WorldPart::PLAY);
    onListener->setState(Kelo::WorldPart::PLAY);
    std::printf("kelo-demo: the pulses circle the listener every %.0f s, starting in front\n",
                kOrbit);
    std::fflush(stdout);

    // 60 frames a second: move the emitter, then let the backends do their frame's work (the
    // client backend applies what servers reported there).
    bool reported = false;
    const auto start = std::chrono::steady_clock::now();
    for (int frame = 0;; ++frame) {
        const auto due = start + std::chrono::microseconds(frame * 1000000 / 60);
        std::this_thread::sleep_until(due);
        const double t = std::chrono::duration<double>(due - start).count();
        if (t >= kSeconds)
            break;
        const double angle = 2 * M_PI * t / kOrbit;  // front, right, behind, left
        const osg::Vec3f position(kRadius * static_cast<float>(std::sin(angle)), 0,
                                  -kRadius * static_cast<float>(std::cos(angle)));
        circling->setTransform(&position, nullptr);
        world.update();
        if (!reported && pulse->duration() > 0 && drone->duration() > 0) {
            std::printf("kelo-demo: %s the pulses last %.2f s, the hum %.2f s\n",
                        remote ? "the server reports" : "OpenAL reports",
                        static_cast<double>(pulse->duration()),
                        static_cast<double>(drone->duration()));
            std::fflush(stdout);
            reported = true;
        }
    }

    circling->setState(Kelo::WorldPart::STOP);
    onListener->setState(Kelo::WorldPart::STOP);
    world.clearWorld();
    world.deleteAllBackends();
    forgetAudioOutput();
    if (!reported)
        std::printf("kelo-demo: no playing time was reported\n");
    if (!wav.empty())
        std::printf("kelo-demo: no sound device here; what would be heard is in %s\n", wav.c_str());
    return reported ? 0 : 1;
}
