// Encoding and decoding of each event class, and the heap allocations they make: encoding
// into a reused buffer should make none.
#include <atomic>
#include <cstdlib>
#include <memory>
#include <new>
#include <vector>

#include <benchmark/benchmark.h>

#include <Kelo/CreateEmitterEvent.h>
#include <Kelo/EmitterConnectionEvent.h>
#include <Kelo/EmitterHullEvent.h>
#include <Kelo/EmitterParamEvent.h>
#include <Kelo/SourceDataEvent.h>
#include <Kelo/SourceDurationEvent.h>
#include <Kelo/SourceParamEvent.h>
#include <Kelo/TransformEvent.h>
#include <Lirra/EventDecoder.h>

namespace {
std::atomic<long> allocations{0};
}  // namespace

// Counts every allocation of the process. GCC takes the replaced operators' malloc/free for a
// mismatch with the library's new/delete; they are the same pair.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void* operator new(std::size_t size) {
    allocations.fetch_add(1, std::memory_order_relaxed);
    if (void* p = std::malloc(size ? size : 1))
        return p;
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept {
    std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
    std::free(p);
}

namespace {

template <typename T>
T sample();

template <>
Kelo::TransformEvent sample() {
    Kelo::TransformEvent e;
    e.setCommand(Kelo::SetEmitterTransform);
    e.setId(7);
    e.setPosition(osg::Vec3f(1, 2, 3));
    e.setRotation(osg::Quaternion(0, 0.7071f, 0, 0.7071f));
    return e;
}
template <>
Kelo::CommandEvent sample() {
    return Kelo::CommandEvent(Kelo::PlayEmitter, 7);
}
template <>
Kelo::CreateEmitterEvent sample() {
    Kelo::CreateEmitterEvent e;
    e.setLabels({"front", "rear wall"});
    return e;
}
template <>
Kelo::EmitterConnectionEvent sample() {
    Kelo::EmitterConnectionEvent e;
    e.setSourceId(3);
    return e;
}
template <>
Kelo::EmitterHullEvent sample() {
    Kelo::EmitterHullEvent e;
    e.setHull(10, 30, 1, 3);
    return e;
}
template <>
Kelo::EmitterParamEvent sample() {
    Kelo::EmitterParamEvent e;
    e.setParam(false, 0.5f, 2);
    return e;
}
template <>
Kelo::SourceParamEvent sample() {
    Kelo::SourceParamEvent e;
    e.setParam(true, 1.5f);
    return e;
}
template <>
Kelo::SourceDataEvent sample() {
    Kelo::SourceDataEvent e;
    e.setName("beep.wav");
    std::vector<unsigned char> bytes(4096, 0x11);
    e.setData(bytes.data(), bytes.size());
    return e;
}
template <>
Kelo::SourceDurationEvent sample() {
    Kelo::SourceDurationEvent e;
    e.setDuration(2.5f);
    return e;
}

template <typename T>
void BM_Encode(benchmark::State& state) {
    T event = sample<T>();
    std::vector<uint8_t> buffer;
    event.encode(buffer);  // grows the buffer once
    const long before = allocations.load();
    for (auto _ : state) {
        buffer.clear();
        event.encode(buffer);
        benchmark::DoNotOptimize(buffer.data());
    }
    state.counters["allocs_per_encode"] = benchmark::Counter(
        static_cast<double>(allocations.load() - before) / static_cast<double>(state.iterations()));
}

// Encode, then decode through the type registry as a server does: into the decoder's object
// for the frame's type, reused from the second frame on.
template <typename T>
void BM_RoundTrip(benchmark::State& state) {
    T event = sample<T>();
    std::vector<uint8_t> buffer;
    Lirra::EventDecoder decoder;
    event.encode(buffer);
    decoder.decode(buffer.data() + 4, buffer.size() - 4);  // makes the type's object
    const long before = allocations.load();
    for (auto _ : state) {
        buffer.clear();
        event.encode(buffer);
        Lirra::Event* back = decoder.decode(buffer.data() + 4, buffer.size() - 4);
        benchmark::DoNotOptimize(back);
        decoder.done();
    }
    state.counters["allocs_per_round_trip"] = benchmark::Counter(
        static_cast<double>(allocations.load() - before) / static_cast<double>(state.iterations()));
}

// The same into a new object per frame, as Event::decode makes.
template <typename T>
void BM_RoundTripNew(benchmark::State& state) {
    T event = sample<T>();
    std::vector<uint8_t> buffer;
    for (auto _ : state) {
        buffer.clear();
        event.encode(buffer);
        std::unique_ptr<Lirra::Event> back(
            Lirra::Event::decode(buffer.data() + 4, buffer.size() - 4));
        benchmark::DoNotOptimize(back.get());
    }
}

// Decode into one reused object: no factory, no allocation for fixed-size events.
template <typename T>
void BM_DecodeInto(benchmark::State& state) {
    T event = sample<T>();
    std::vector<uint8_t> buffer;
    event.encode(buffer);
    T target;
    const long before = allocations.load();
    for (auto _ : state)
        benchmark::DoNotOptimize(target.decodeInto(buffer.data() + 4, buffer.size() - 4));
    state.counters["allocs_per_decode"] = benchmark::Counter(
        static_cast<double>(allocations.load() - before) / static_cast<double>(state.iterations()));
}

// Sending a transform through Event::send, as a client backend does, after the sending thread
// has sent a sound's data of range(0) bytes (0: none). The buffer keeps up to 1 MiB of room;
// what each small event costs must not depend on it.
void BM_SendAfterLargeFrame(benchmark::State& state) {
    struct Discard : Lirra::Sender {
        bool write(const uint8_t* bytes, size_t count) override {
            benchmark::DoNotOptimize(bytes);
            return count > 0;
        }
    } sink;
    if (const auto size = static_cast<uint64_t>(state.range(0))) {
        Kelo::SourceDataEvent data = sample<Kelo::SourceDataEvent>();
        const std::vector<unsigned char> bytes(size, 1);
        data.setData(bytes.data(), size);
        data.send(&sink);
    }
    Kelo::TransformEvent event = sample<Kelo::TransformEvent>();
    for (auto _ : state)
        benchmark::DoNotOptimize(event.send(&sink));
}
BENCHMARK(BM_SendAfterLargeFrame)->Arg(0)->Arg(600'000);

#define KELO_EVENT_BENCHMARKS(T)            \
    BENCHMARK_TEMPLATE(BM_Encode, T);       \
    BENCHMARK_TEMPLATE(BM_RoundTrip, T);    \
    BENCHMARK_TEMPLATE(BM_RoundTripNew, T); \
    BENCHMARK_TEMPLATE(BM_DecodeInto, T)

KELO_EVENT_BENCHMARKS(Kelo::TransformEvent);
KELO_EVENT_BENCHMARKS(Kelo::CommandEvent);
KELO_EVENT_BENCHMARKS(Kelo::CreateEmitterEvent);
KELO_EVENT_BENCHMARKS(Kelo::EmitterConnectionEvent);
KELO_EVENT_BENCHMARKS(Kelo::EmitterHullEvent);
KELO_EVENT_BENCHMARKS(Kelo::EmitterParamEvent);
KELO_EVENT_BENCHMARKS(Kelo::SourceParamEvent);
KELO_EVENT_BENCHMARKS(Kelo::SourceDataEvent);
KELO_EVENT_BENCHMARKS(Kelo::SourceDurationEvent);

}  // namespace

BENCHMARK_MAIN();
