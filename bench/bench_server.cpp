// Cost of a server applying transform events that have already arrived: the thread that sets
// a server's rate under a stream, timed without the network's noise. A client on loopback
// sends a batch, the batch is left to arrive with the clock stopped, and only the server's
// receive() is timed. Everything stays on 127.0.0.1; the server does not announce itself.
#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>

#include <Kelo/ClientBackend.h>
#include <Kelo/Emitter.h>
#include <Kelo/Server.h>
#include <Kelo/SilentBackend.h>
#include <Kelo/World.h>
#include <osg/Log.h>

namespace {

using Clock = std::chrono::steady_clock;

// Counts what the server applies, as an application's backend would see it.
struct Counter : Kelo::SilentBackend {
    explicit Counter(Kelo::World& world) : SilentBackend(world, "") {}
    void setEmitterTransform(Kelo::Emitter& e) override {
        last = e.position().x();
        ++moves;
    }
    float last = 0;
    long moves = 0;
};

constexpr long kBatch =
    10'000;  // 400 kB on the wire: all of it read ahead (the backlog is 768 KiB)

// range(0): the emitters the batch goes round, each looked up by its id on the server.
void BM_ServerApplyTransforms(benchmark::State& state) {
    osg::Log::the().setLevel(osg::LOG_LOG);
    Kelo::Server server(0, "127.0.0.1");
    server.setMulticastEnabled(false);
    auto* counter = new Counter(server);
    Kelo::World world;
    auto* client = static_cast<Kelo::ClientBackend*>(world.addBackend(
        "client",
        ("servers=127.0.0.1:" + std::to_string(server.port()) + " multicast=false retry=0.1")
            .c_str()));
    std::vector<Kelo::Emitter*> emitters(static_cast<size_t>(state.range(0)));
    for (auto& e : emitters)
        e = world.createEmitter();
    const auto end = Clock::now() + std::chrono::seconds(5);
    while (client->servers() < 1 && Clock::now() < end) {
        world.update();
        server.receive(false);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    if (client->servers() < 1) {
        state.SkipWithError("the client did not connect");
        return;
    }
    // The catch-up: every emitter exists on the server before the timing starts.
    while (server.emitters().size() < emitters.size() && Clock::now() < end)
        if (server.receive(false) == 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    long sent = 0;
    long empty = 0;  // receive() calls that found nothing yet: the batch was still arriving
    double timed = 0;
    for (auto _ : state) {
        for (long i = 0, at = 0; i < kBatch; ++i) {
            const osg::Vec3f p(static_cast<float>(++sent), 0, 0);
            emitters[static_cast<size_t>(at)]->setTransform(&p, nullptr);
            at = at + 1 == state.range(0) ? 0 : at + 1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        const long target = counter->moves + kBatch;
        const auto batchEnd = Clock::now() + std::chrono::seconds(5);
        const auto start = Clock::now();
        while (counter->moves < target && Clock::now() < batchEnd)
            if (server.receive(false) == 0)
                ++empty;
        const double took = std::chrono::duration<double>(Clock::now() - start).count();
        state.SetIterationTime(took);
        timed += took;
        if (counter->moves < target) {
            state.SkipWithError("events were lost");
            break;
        }
    }
    if (counter->last != static_cast<float>(sent))
        state.SkipWithError("the last event applied is not the last one sent");
    state.SetItemsProcessed(state.iterations() * kBatch);
    state.counters["ns_per_event"] = timed * 1e9 / static_cast<double>(state.iterations() * kBatch);
    state.counters["empty_receives"] = static_cast<double>(empty);
    world.clearWorld();
    world.deleteAllBackends();
    server.clearWorld();
    server.deleteAllBackends();
}
BENCHMARK(BM_ServerApplyTransforms)->Arg(1)->Arg(10'000)->UseManualTime()->Iterations(100);

}  // namespace

BENCHMARK_MAIN();
