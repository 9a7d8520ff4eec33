// A sound circling the listener, with a quiet drone that stays on the listener: the library
// driving OpenAL in real time. With a sound device it plays; without one OpenAL Soft renders
// what would be heard into kelo-demo.wav.
#include <AL/alc.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <Kelo/Emitter.h>
#include <Kelo/OALBackend.h>
#include <Kelo/Source.h>
#include <Kelo/World.h>

namespace {

constexpr unsigned kRate = 44100;
constexpr double kSeconds = 6.0;  // how long the scene runs
constexpr double kOrbit = 4.0;    // seconds per circle
constexpr float kRadius = 3.0f;

// Whether the default OpenAL device opens. Asked in a child process: OpenAL Soft reads its
// configuration once, at its first call, and this process may still have to choose one.
bool defaultDeviceOpens() {
    const pid_t child = fork();
    if (child == 0) {
        std::freopen("/dev/null", "w", stderr);  // the drivers' own complaints
        ALCdevice* device = alcOpenDevice(nullptr);
        _exit(device ? 0 : 1);
    }
    int status = 0;
    return child > 0 && waitpid(child, &status, 0) == child && WIFEXITED(status) &&
           WEXITSTATUS(status) == 0;
}

// Points OpenAL Soft at its wave writer, which renders in real time into a file.
std::string renderToFile() {
    const std::string wav = std::filesystem::absolute("kelo-demo.wav").string();
    const std::string conf = (std::filesystem::temp_directory_path() /
                              ("kelo-demo-" + std::to_string(getpid()) + ".alsoft.conf"))
                                 .string();
    std::ofstream(conf) << "[general]\ndrivers=wave\nchannels=stereo\nsample-type=int16\n"
                           "frequency=44100\n[wave]\nfile="
                        << wav << "\n";
    setenv("ALSOFT_CONF", conf.c_str(), 1);
    return wav;
}

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
std::vector<unsigned char> drone() {
    std::vector<unsigned char> bytes;
    for (unsigned i = 0; i < kRate; ++i)
        append16(bytes, 9000 * std::sin(2 * M_PI * 110 * i / kRate));
    return bytes;
}

}  // namespace

int main() {
    std::string wav;
    if (!std::getenv("ALSOFT_CONF") && !defaultDeviceOpens())
        wav = renderToFile();

    Kelo::World world;
    auto* audio = static_cast<Kelo::OALBackend*>(world.addBackend("openal", ""));
    if (!audio || !audio->context()) {
        std::fprintf(stderr, "kelo-demo: OpenAL could not open a device\n");
        return 1;
    }

    const std::vector<unsigned char> pulseData = pulses(), droneData = drone();
    Kelo::Source* pulse = world.createSource();
    pulse->setData(kRate, 16, 1, pulseData.data(), static_cast<unsigned>(pulseData.size()));
    pulse->setParam(true, 1.0f);
    Kelo::Source* hum = world.createSource();
    hum->setData(kRate, 16, 1, droneData.data(), static_cast<unsigned>(droneData.size()));
    hum->setParam(true, 1.0f);
    std::printf("kelo-demo: the pulses last %.2f s, the hum %.2f s (reported by OpenAL)\n",
                static_cast<double>(pulse->duration()), static_cast<double>(hum->duration()));

    Kelo::Emitter* circling = world.createEmitter({"circling"});
    circling->setHull(12, 12, 1, 1);
    circling->setSource(pulse);
    Kelo::Emitter* onListener = world.createEmitter({"ambience"});
    onListener->setParam(false, 0, 0.25f);  // not spatial: always on the listener
    onListener->setTransform(nullptr, nullptr);
    onListener->setSource(hum);

    circling->setState(Kelo::WorldPart::PLAY);
    onListener->setState(Kelo::WorldPart::PLAY);
    std::printf("kelo-demo: the pulses circle the listener every %.0f s, starting in front\n",
                kOrbit);

    // 60 frames a second: move the emitter, then let the backends do their frame's work.
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
    }

    circling->setState(Kelo::WorldPart::STOP);
    onListener->setState(Kelo::WorldPart::STOP);
    world.clearWorld();
    world.deleteAllBackends();
    if (const char* conf = std::getenv("ALSOFT_CONF"); conf && !wav.empty())
        std::remove(conf);
    if (!wav.empty())
        std::printf("kelo-demo: no sound device here; what would be heard is in %s\n", wav.c_str());
    return 0;
}
