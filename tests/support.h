#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <Kelo/Backend.h>
#include <Kelo/BackendType.h>
#include <Kelo/Emitter.h>
#include <Kelo/Source.h>
#include <Kelo/World.h>
#include <osg/Log.h>

namespace KeloTest {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

// A world that deletes its parts and then its backends when it goes, as a derived world must.
struct Scene : Kelo::World {
    ~Scene() override {
        clearWorld();
        deleteAllBackends();
    }
};

// Records every notification as "name(id)" ("setEnabled", "createSource(3)" …), separated by
// blanks, in its own log and, when given one, tagged in a journal shared with other backends to
// check the interleaving.
class RecordingBackend : public Kelo::Backend {
public:
    RecordingBackend(Kelo::World& world, const char* params = "", std::string* journal = nullptr,
                     std::string tag = "")
        : Backend(world, params), _journal(journal), _tag(std::move(tag)) {}
    ~RecordingBackend() override;
    void resetBackend() override { record("resetBackend"); }
    void setEnabled() override { record("setEnabled"); }
    void setListenerTransform() override { record("setListenerTransform"); }
    bool update() override {  // the world ignores the answer
        ++updates;
        return false;
    }
    const Kelo::BackendType* type() const override { return &_type; }
    // The calls recorded since the last take().
    std::string take() { return std::exchange(calls, ""); }
    // clang-format off
#define KELO_RECORD(op, Part) void op(Kelo::Part& p) override { record(#op, p.id()); }
    // clang-format on
    KELO_RECORD(createSource, Source)
    KELO_RECORD(destroySource, Source)
    KELO_RECORD(setSourceData, Source)
    KELO_RECORD(setSourceParam, Source)
    KELO_RECORD(setSourceState, Source)
    KELO_RECORD(createEmitter, Emitter)
    KELO_RECORD(destroyEmitter, Emitter)
    KELO_RECORD(setEmitterTransform, Emitter)
    KELO_RECORD(setEmitterHull, Emitter)
    KELO_RECORD(setEmitterParam, Emitter)
    KELO_RECORD(setEmitterConnection, Emitter)
    KELO_RECORD(setEmitterState, Emitter)
#undef KELO_RECORD

    std::string calls;
    int updates = 0;
    bool* deleted = nullptr;         // set by the destructor
    static Kelo::BackendType _type;  // registered as "record"

private:
    void record(const std::string& call);
    void record(const char* op, int id) {
        record(op + ("(" + std::to_string(id) + ")"));
    }
    std::string* _journal;
    std::string _tag;
};

// Captures log messages for its lifetime, at the given threshold. Network threads may log while
// a test reads: texts() and text() take the capture's lock; reading messages directly is for
// tests without such threads.
struct LogCapture {
    explicit LogCapture(int level = osg::LOG_NOTICE);
    ~LogCapture();
    // The texts in order, all or at one level, listed or joined.
    std::vector<std::string> texts(int level = -1) const;
    std::string text(int level = -1) const;
    // Whether any text, and how many, contain part.
    bool has(const std::string& part) const { return count(part) > 0; }
    size_t count(const std::string& part) const;

    std::vector<osg::LogMessage> messages;
    mutable std::mutex mutex;
    int oldLevel;
    osg::Log::Sink oldSink;
};

// What f writes on standard error.
template <typename F>
std::string stderrOf(F&& f) {
    ::testing::internal::CaptureStderr();
    f();
    return ::testing::internal::GetCapturedStderr();
}

// The message of the E that f throws.
template <typename E = std::exception, typename F>
std::string errorOf(F&& f) {
    try {
        f();
    } catch (const E& e) {
        return e.what();
    }
    return "(no exception)";
}

// Sets PCM samples, swallowing the "Source::setData call" trace.
void setPcm(Kelo::Source& source, const std::vector<unsigned char>& bytes, unsigned rate = 44100,
            unsigned bits = 16, unsigned channels = 1);

// A 16-bit sine, one interleaved channel per amplitude.
std::vector<unsigned char> tone(double hz, double seconds, int rate = 44100,
                                std::vector<double> amplitudes = {10000});

std::string readFile(const std::string& path);

// Runs a shell command; its exit code (-1 when it did not exit) and what it wrote on both
// streams.
std::pair<int, std::string> runProgram(const std::string& command);

// A file name in the temporary directory unique to this process; removed when the process ends.
std::string scratch(const std::string& name);

// Runs step until done() or the time is up; whether done() came true.
bool until(
    const std::function<bool()>& done, const std::function<void()>& step = [] {},
    std::chrono::milliseconds limit = std::chrono::milliseconds(5000));

// This process's resident memory (VmRSS) in KiB, or -1 when it cannot be read.
long residentKiB();

// The few measurements the rendering tests make on one channel of samples (full scale 1.0).
// Kept to these three on purpose: anything more belongs in a signal-processing library.
namespace Measure {
// RMS level in dB relative to full scale.
double dB(const std::vector<float>& x);
// The lag in samples, within +-maxLag, of the best cross-correlation of b against a:
// positive when b comes later than a.
int lag(const std::vector<float>& a, const std::vector<float>& b, int maxLag);
// Level in dB of what lies above cutoff Hz (a second-order Butterworth high-pass).
double highBandDB(const std::vector<float>& x, double rate, double cutoff);
}  // namespace Measure

}  // namespace KeloTest
