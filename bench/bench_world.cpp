// Cost of the world's fan-out to "silent" backends, against a bare loop of virtual calls over
// the same backends; of creating and destroying an emitter; of building a catch-up's world; and
// of finding and moving emitters by id in a large world.
#include <cstdio>
#include <vector>

#include <benchmark/benchmark.h>

#include <Kelo/Backend.h>
#include <Kelo/Emitter.h>
#include <Kelo/Source.h>
#include <Kelo/World.h>

namespace {

struct Scene {
    explicit Scene(int backends) {
        for (int i = 0; i < backends; ++i)
            world.addBackend("silent", "");
        emitter = world.createEmitter();
    }
    ~Scene() {
        world.clearWorld();
        world.deleteAllBackends();
    }
    Kelo::World world;
    Kelo::Emitter* emitter;
};

void perBackendCall(benchmark::State& state) {
    state.counters["per_backend_call"] =
        benchmark::Counter(static_cast<double>(state.iterations() * state.range(0)),
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

// One notification through the world: World::setEmitterHull calls every backend.
void BM_FanOut(benchmark::State& state) {
    Scene scene(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        scene.world.setEmitterHull(*scene.emitter);
        benchmark::ClobberMemory();
    }
    perBackendCall(state);
}
BENCHMARK(BM_FanOut)->Arg(1)->Arg(6)->Arg(32);

// The same calls made directly, the floor that the fan-out is measured against.
void BM_BareVirtualLoop(benchmark::State& state) {
    Scene scene(static_cast<int>(state.range(0)));
    const std::vector<Kelo::Backend*>& backends = scene.world.backends();
    for (auto _ : state) {
        for (Kelo::Backend* backend : backends)
            backend->setEmitterHull(*scene.emitter);
        benchmark::ClobberMemory();
    }
    perBackendCall(state);
}
BENCHMARK(BM_BareVirtualLoop)->Arg(1)->Arg(6)->Arg(32);

// A whole emitter life: creation with its notification, destruction with its notification.
void BM_CreateDestroyEmitter(benchmark::State& state) {
    Scene scene(static_cast<int>(state.range(0)));
    for (auto _ : state)
        delete scene.world.createEmitter({}, 0);
}
BENCHMARK(BM_CreateDestroyEmitter)->Arg(6);

// Setting a connected emitter's state passes it to the source and its other emitters.
void BM_SharedStateChange(benchmark::State& state) {
    Scene scene(6);
    Kelo::Source* source = scene.world.createSource();
    scene.emitter->setSource(source);
    scene.world.createEmitter()->setSource(source);
    bool play = true;
    for (auto _ : state) {
        scene.emitter->setState(play ? Kelo::WorldPart::PLAY : Kelo::WorldPart::STOP);
        play = !play;
    }
}
BENCHMARK(BM_SharedStateChange);

// The world side of a catch-up, as a server applies it: 10,000 emitters over 1,000 sources,
// each created with a label, placed, shaped, connected and the last one played. Set against
// load_remote's catch-up figure, it shows how much of that is the world and how much the wire.
void BM_BuildWorld(benchmark::State& state) {
    const int emitters = static_cast<int>(state.range(0)), sources = emitters / 10;
    for (auto _ : state) {
        Kelo::World world;
        world.addBackend("silent", "");
        for (int id = 1; id <= sources; ++id)
            world.createSource(id)->setParam(true, 1.0f);
        for (int i = 0; i < emitters; ++i) {
            Kelo::Emitter* e = world.createEmitter({"label"}, sources + 1 + i);
            const osg::Vec3f p(static_cast<float>(i), 1, 2);
            e->setTransform(&p, nullptr);
            e->setHull(1, 1, 1, 1);
            e->setParam(true, 0, 1);
            e->setSource(world.getSource(1 + i % sources));
        }
        world.getEmitter(sources + emitters)->setState(Kelo::WorldPart::PLAY);
        state.PauseTiming();
        world.clearWorld();
        world.deleteAllBackends();
        state.ResumeTiming();
    }
}
BENCHMARK(BM_BuildWorld)->Arg(10'000)->Unit(benchmark::kMillisecond);

// What a server does for each transform in a large scene: find the emitter by its id, then
// move it. The ids go round 10,000 emitters, so the one found last is never the one asked for.
void BM_MoveByIdInLargeWorld(benchmark::State& state) {
    Scene scene(1);
    const int count = static_cast<int>(state.range(0));
    const int first = scene.emitter->id() + 1;
    for (int i = 0; i < count; ++i)
        scene.world.createEmitter();
    int id = first;
    float x = 0;
    for (auto _ : state) {
        const osg::Vec3f p(x += 1, 0, 0);
        scene.world.getEmitter(id)->setTransform(&p, nullptr);
        id = id + 7 < first + count ? id + 7 : first + (id + 7 - first) % count;
    }
}
BENCHMARK(BM_MoveByIdInLargeWorld)->Arg(10'000);

}  // namespace

int main(int argc, char** argv) {
    std::printf("sizeof(Kelo::Emitter) = %zu bytes, sizeof(Kelo::Source) = %zu bytes\n",
                sizeof(Kelo::Emitter), sizeof(Kelo::Source));
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
