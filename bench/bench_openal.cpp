// The cost of moving N playing emitters through the world and the OpenAL backend, one frame at
// a time, on OpenAL Soft's null driver (which mixes in real time and discards the result); and
// the mixer's CPU load with 256 spatial emitters playing, which says whether they are rendered
// in real time.
#include <sys/resource.h>

#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include <Kelo/Emitter.h>
#include <Kelo/OALBackend.h>
#include <Kelo/Source.h>
#include <Kelo/World.h>
#include <osg/Log.h>

namespace {

struct Scene {
    explicit Scene(int count) {
        backend = static_cast<Kelo::OALBackend*>(world.addBackend("openal", ""));
        std::vector<unsigned char> pcm;
        for (int i = 0; i < 44100; ++i) {
            const auto s = static_cast<uint16_t>(
                static_cast<int16_t>(8000 * std::sin(2 * M_PI * 441 * i / 44100.0)));
            pcm.push_back(static_cast<unsigned char>(s & 0xff));
            pcm.push_back(static_cast<unsigned char>(s >> 8));
        }
        Kelo::Source* source = world.createSource();
        source->setData(44100, 16, 1, pcm.data(), static_cast<unsigned>(pcm.size()));
        source->setParam(true, 1.0f);
        for (int i = 0; i < count; ++i) {
            Kelo::Emitter* e = world.createEmitter();
            e->setHull(20, 20, 1, 1);
            e->setSource(source);
            emitters.push_back(e);
        }
        source->setState(Kelo::WorldPart::PLAY);  // plays every emitter
    }
    ~Scene() {
        world.clearWorld();
        world.deleteAllBackends();
    }
    Kelo::World world;
    Kelo::OALBackend* backend = nullptr;
    std::vector<Kelo::Emitter*> emitters;
};

void BM_MoveEmitters(benchmark::State& state) {
    Scene scene(static_cast<int>(state.range(0)));
    if (!scene.backend || scene.backend->sources().size() != scene.emitters.size()) {
        state.SkipWithError("OpenAL did not give every emitter a source");
        return;
    }
    float t = 0;
    for (auto _ : state) {
        t += 0.01f;
        for (size_t i = 0; i < scene.emitters.size(); ++i) {
            const float a = t + static_cast<float>(i);
            const osg::Vec3f p(5 * std::sin(a), 0, 5 * std::cos(a));
            scene.emitters[i]->setTransform(&p, nullptr);
        }
    }
    state.counters["per_emitter"] =
        benchmark::Counter(static_cast<double>(state.iterations() * state.range(0)),
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_MoveEmitters)->Arg(64)->Arg(256)->Unit(benchmark::kMicrosecond);

double cpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// With the main thread asleep, the process's CPU time is the mixer's.
void reportMixerLoad(int count) {
    Scene scene(count);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    int playing = 0;
    if (scene.backend && scene.backend->context()) {
        for (const auto& [id, name] : scene.backend->sources()) {
            ALint state = 0;
            alGetSourcei(name, AL_SOURCE_STATE, &state);
            playing += state == AL_PLAYING;
        }
    }
    const double before = cpuSeconds();
    std::this_thread::sleep_for(std::chrono::seconds(2));
    const double load = (cpuSeconds() - before) / 2.0;
    std::printf(
        "%d spatial emitters playing (OpenAL says %d): the mixer uses %.1f%% of one "
        "core (real time while below 100%%)\n",
        count, playing, 100 * load);
}

}  // namespace

int main(int argc, char** argv) {
    // Before OpenAL's first call: it reads its configuration once.
    const auto conf = std::filesystem::temp_directory_path() / "kelo-bench-null.conf";
    std::ofstream(conf) << "[general]\ndrivers=null\n";
    setenv("ALSOFT_CONF", conf.c_str(), 1);
    osg::Log::the().setLevel(osg::LOG_FATAL);

    reportMixerLoad(0);
    reportMixerLoad(256);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    std::filesystem::remove(conf);
    return 0;
}
