// The OpenAL backend's device, HRTF and mixing-rate parameters, rendered through OpenAL Soft's
// wave driver and measured: where the interaural delay lies, how loud each ear is, how front and
// back differ, what rate the file has, and what bad parameters leave behind.
#include <sndfile.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <thread>

#include <Kelo/OALBackend.h>

#include "support.h"

using namespace KeloTest;

namespace {

// OpenAL Soft reads its configuration once per process: every test renders into one file. No
// rate is configured, so that the frequency parameter decides it.
const std::string& waveFile() {
    static const std::string path = [] {
        const std::string wav = scratch("binaural.wav"), conf = scratch("binaural.conf");
        std::ofstream(conf) << "[general]\ndrivers=wave\nchannels=stereo\nsample-type=int16\n"
                               "[wave]\nfile="
                            << wav << "\n";
        setenv("ALSOFT_CONF", conf.c_str(), 1);
        return wav;
    }();
    return path;
}

// Seconds of each listening position; the first and last parts of each are left unmeasured
// (the mixer runs ahead of the clock and changes take a period to be heard).
constexpr double kPhase = 0.4, kMargin = 0.08;
constexpr double kMs = 1e-3;
const osg::Quaternion kQuarterTurn(0, std::sin(M_PI / 4), 0, std::cos(M_PI / 4));  // about +Y

struct Channels {
    std::vector<float> left, right;
};

struct Binaural : ::testing::Test {
    // Opens the backend with params and plays looped white noise from a spatial emitter.
    Kelo::OALBackend* open(const char* params) {
        waveFile();
        backend = static_cast<Kelo::OALBackend*>(world.addBackend("openal", params));
        start = std::chrono::steady_clock::now();
        std::mt19937 random(7);
        std::uniform_int_distribution<int> sample(-8000, 8000);
        std::vector<unsigned char> pcm;
        for (int i = 0; i < 44100; ++i) {
            const int v = sample(random);
            pcm.push_back(static_cast<unsigned char>(v & 0xff));
            pcm.push_back(static_cast<unsigned char>((v >> 8) & 0xff));
        }
        Kelo::Source* noise = world.createSource();
        setPcm(*noise, pcm);
        noise->setParam(true, 1);
        emitter = world.createEmitter();
        emitter->setHull(100, 100, 1, 1);  // full level at 1 m
        emitter->setParam(true, 0, 1);
        emitter->setSource(noise);
        emitter->setState(Kelo::WorldPart::PLAY);
        return backend;
    }
    // Holds the emitter at position for phase number n.
    void hold(int n, const osg::Vec3f& position) {
        const osg::Quaternion still(0, 0, 0, 1);
        emitter->setTransform(&position, &still);
        std::this_thread::sleep_until(start + std::chrono::duration<double>((n + 1) * kPhase));
    }
    // Closes the device (completing the file) and reads it.
    void finish() {
        world.clearWorld();
        world.deleteAllBackends();
        SF_INFO info{};
        SNDFILE* file = sf_open(waveFile().c_str(), SFM_READ, &info);
        ASSERT_TRUE(file && info.channels == 2) << sf_strerror(nullptr);
        rate = info.samplerate;
        std::vector<float> frames(static_cast<size_t>(2 * info.frames));
        sf_readf_float(file, frames.data(), info.frames);
        sf_close(file);
        for (size_t i = 0; i + 1 < frames.size(); i += 2) {
            wav.left.push_back(frames[i]);
            wav.right.push_back(frames[i + 1]);
        }
    }
    // The measurable middle of phase n.
    Channels phase(int n) const {
        const auto a = static_cast<size_t>((n * kPhase + kMargin) * rate),
                   b = static_cast<size_t>(((n + 1) * kPhase - kMargin) * rate);
        EXPECT_LE(b, wav.left.size()) << "phase past the end of the render";
        const size_t end = std::min(b, wav.left.size());
        Channels out;
        out.left.assign(wav.left.begin() + static_cast<long>(std::min(a, end)),
                        wav.left.begin() + static_cast<long>(end));
        out.right.assign(wav.right.begin() + static_cast<long>(std::min(a, end)),
                         wav.right.begin() + static_cast<long>(end));
        return out;
    }
    // The right ear's delay behind the left in seconds (negative: the right ear leads).
    double itd(const Channels& c) const {
        return Measure::lag(c.left, c.right, rate * 2 / 1000) / static_cast<double>(rate);
    }

    Scene world;
    Kelo::OALBackend* backend = nullptr;
    Kelo::Emitter* emitter = nullptr;
    std::chrono::steady_clock::time_point start;
    Channels wav;
    int rate = 0;
};

}  // namespace

TEST_F(Binaural, HrtfPutsTheDelayOnTheFarEarAndTellsFrontFromBack) {
    open("hrtf=on");
    ASSERT_TRUE(backend->context());
    ASSERT_TRUE(backend->hrtfEnabled()) << backend->describe();
    EXPECT_FALSE(backend->hrtfName().empty());
    hold(0, {-1, 0, 0});  // 90 degrees to the left
    hold(1, {1, 0, 0});   // to the right
    hold(2, {0, 0, -1});  // straight ahead
    hold(3, {0, 0, 1});   // straight behind
    finish();

    const Channels left = phase(0), right = phase(1), front = phase(2), back = phase(3);
    EXPECT_GE(itd(left), 0.4 * kMs);
    EXPECT_LE(itd(left), 0.9 * kMs);
    EXPECT_LE(itd(right), -0.4 * kMs);
    EXPECT_GE(itd(right), -0.9 * kMs);
    // The far ear is quieter, shadowed by the head, but hears the sound.
    EXPECT_GT(Measure::dB(left.left) - Measure::dB(left.right), 3);
    EXPECT_GT(Measure::dB(left.right), -50);
    EXPECT_GT(Measure::dB(right.right) - Measure::dB(right.left), 3);
    EXPECT_GT(Measure::dB(right.left), -50);

    // Ahead and behind both reach the two ears alike, but with different colour.
    for (const Channels* c : {&front, &back}) {
        EXPECT_NEAR(Measure::dB(c->left), Measure::dB(c->right), 1.5);
        EXPECT_NEAR(itd(*c), 0, 2.0 / rate);
    }
    const double frontHigh = Measure::highBandDB(front.left, rate, 4000),
                 backHigh = Measure::highBandDB(back.left, rate, 4000);
    EXPECT_GT(std::fabs(frontHigh - backHigh), 3) << frontHigh << " vs " << backHigh;
}

TEST_F(Binaural, AQuarterTurnOfTheListenerMovesTheDelayToTheOtherEar) {
    open("hrtf=on");
    ASSERT_TRUE(backend->hrtfEnabled()) << backend->describe();
    const osg::Vec3f frontLeft(-0.7071f, 0, -0.7071f);
    hold(0, frontLeft);
    world.setListenerTransform({0, 0, 0}, kQuarterTurn);  // now facing -X: the sound is front right
    hold(1, frontLeft);
    finish();
    EXPECT_GT(itd(phase(0)), 0.15 * kMs);
    EXPECT_LT(itd(phase(1)), -0.15 * kMs);
}

TEST_F(Binaural, WithoutHrtfThePanningHasNoDelay) {
    open("hrtf=off");
    ASSERT_TRUE(backend->context());
    EXPECT_FALSE(backend->hrtfEnabled());
    hold(0, {-0.7071f, 0, -0.7071f});  // front left: both ears hear it
    hold(1, {-1, 0, 0});               // hard left
    finish();
    const Channels frontLeft = phase(0), left = phase(1);
    EXPECT_NEAR(itd(frontLeft), 0, 1.0 / rate);
    EXPECT_GT(Measure::dB(frontLeft.left) - Measure::dB(frontLeft.right), 3);
    EXPECT_GT(Measure::dB(frontLeft.right), -50);
    // Plain panning leaves the far ear all but silent, where a head would let some through.
    EXPECT_LT(Measure::dB(left.right), Measure::dB(left.left) - 40);
}

TEST_F(Binaural, WithHrtfTheRateChoosesTheDataSet) {
    open("frequency=48000 hrtf=on");
    EXPECT_TRUE(backend->hrtfEnabled()) << backend->describe();
    EXPECT_EQ(backend->frequency(), 48000) << backend->describe();
    hold(0, {-1, 0, 0});
    finish();
    EXPECT_EQ(rate, 48000);
    EXPECT_GE(itd(phase(0)), 0.4 * kMs);
    EXPECT_LE(itd(phase(0)), 0.9 * kMs);
}

TEST_F(Binaural, TheFrequencyParameterSetsTheFileRate) {
    open("frequency=48000 hrtf=off");
    EXPECT_EQ(backend->frequency(), 48000);
    hold(0, {0, 0, -1});
    finish();
    EXPECT_EQ(rate, 48000);
    EXPECT_GT(Measure::dB(phase(0).left), -30);
}

TEST_F(Binaural, AnUnknownDeviceLeavesTheBackendInertAndListsTheDevices) {
    waveFile();
    const std::vector<std::string> devices = Kelo::OALBackend::playbackDevices();
    ASSERT_FALSE(devices.empty());
    LogCapture log;
    open("device=\"No Such Card\"");
    ASSERT_TRUE(backend);
    EXPECT_FALSE(backend->context());
    EXPECT_TRUE(log.has("no playback device named \"No Such Card\""));
    for (const std::string& name : devices)
        EXPECT_TRUE(log.has("  " + name + "\n")) << name;
    EXPECT_EQ(backend->describe(), "no device (inert)");
    world.setListenerTransform({1, 2, 3}, kQuarterTurn);  // ignored, and no crash
    EXPECT_TRUE(backend->checkALError(nullptr));
}

TEST_F(Binaural, TheWaveDeviceByItsNameRenders) {
    waveFile();
    std::string wave;
    for (const std::string& name : Kelo::OALBackend::playbackDevices())
        if (name.find("Wave") != std::string::npos)
            wave = name;
    ASSERT_FALSE(wave.empty());
    open(("device=\"" + wave + "\"").c_str());
    ASSERT_TRUE(backend->context());
    EXPECT_EQ(backend->deviceName(), wave);
    hold(0, {0, 0, -1});
    finish();
    EXPECT_GT(Measure::dB(phase(0).left), -30);
}

TEST_F(Binaural, BadValuesAreNamedAndTheDefaultsUsed) {
    LogCapture log;
    open("hrtf=sideways frequency=-5 device=\"\"");
    ASSERT_TRUE(backend->context());
    EXPECT_TRUE(log.has("hrtf=sideways is not auto, on, off or name:SPECIFIER; using auto"));
    EXPECT_TRUE(log.has("frequency=-5 is not a whole number of Hz"));
    EXPECT_TRUE(log.has("device= is empty; using the default device"));
    EXPECT_EQ(backend->requestedHrtf(), Kelo::OALBackend::Hrtf::Auto);
    EXPECT_EQ(backend->requestedFrequency(), 0);
    EXPECT_EQ(backend->frequency(), 44100);  // OpenAL Soft's own default rate
    EXPECT_FALSE(backend->hrtfEnabled());    // auto: the wave writer is no pair of headphones
    EXPECT_TRUE(log.has("HRTF off"));
    hold(0, {0, 0, -1});
    finish();
    EXPECT_GT(Measure::dB(phase(0).left), -30);
}

TEST_F(Binaural, AbsurdRatesAndUnknownDataSetsFallBack) {
    LogCapture log;
    open("frequency=9999999999 hrtf=name:no-such-set");
    ASSERT_TRUE(backend->context());
    EXPECT_TRUE(log.has("frequency=9999999999 is not a whole number of Hz"));
    EXPECT_TRUE(log.has("no HRTF data set named \"no-such-set\""));
    for (const std::string& set : Kelo::OALBackend::hrtfNames(backend->device()))
        EXPECT_TRUE(log.has("  " + set + "\n")) << set;
    EXPECT_EQ(backend->frequency(), 44100);
}

TEST_F(Binaural, ADataSetIsChosenByName) {
    waveFile();
    std::string wanted;
    {
        Scene probe;  // the data sets are offered per open device
        auto* first = static_cast<Kelo::OALBackend*>(probe.addBackend("openal", ""));
        const std::vector<std::string> sets = Kelo::OALBackend::hrtfNames(first->device());
        ASSERT_FALSE(sets.empty()) << "OpenAL Soft offers no HRTF data set here";
        wanted = sets.back();
    }
    open(("hrtf=\"name:" + wanted + "\"").c_str());
    EXPECT_TRUE(backend->hrtfEnabled());
    EXPECT_EQ(backend->hrtfName(), wanted);
    EXPECT_NE(backend->describe().find(wanted), std::string::npos);
}

#ifdef KELO_SERVER_PROGRAM
namespace {

// Runs kelo-server with args; its standard output and error, and its exit status.
std::pair<std::string, int> server(const std::string& args) {
    waveFile();  // the server renders where the tests do
    auto [status, out] = KeloTest::runProgram(std::string(KELO_SERVER_PROGRAM) + " " + args);
    return {std::move(out), status};
}

}  // namespace

TEST(BinauralServer, ListsDevicesAndDataSets) {
    const auto [out, status] = server("--list-devices");
    EXPECT_EQ(status, 0) << out;
    for (const std::string& name : Kelo::OALBackend::playbackDevices())
        EXPECT_NE(out.find("  " + name + "\n"), std::string::npos) << out;
    const std::vector<std::string> sets = Kelo::OALBackend::hrtfNamesOf("");
    ASSERT_FALSE(sets.empty());
    for (const std::string& name : sets)
        EXPECT_NE(out.find("  " + name + "\n"), std::string::npos) << out;
}

TEST(BinauralServer, RefusesBadAudioOptions) {
    EXPECT_EQ(
        server("--hrtf sideways"),
        std::make_pair(std::string("kelo-server: --hrtf: \"sideways\" is not auto, on, off or "
                                   "name:SPECIFIER\n"),
                       2));
    EXPECT_EQ(
        server("--frequency -5"),
        std::make_pair(std::string("kelo-server: --frequency: -5 is not in 8000..192000\n"), 2));
    EXPECT_EQ(server("--device ''"),
              std::make_pair(std::string("kelo-server: --device: \"\" is not a device name\n"), 2));
}

TEST(BinauralServer, PassesTheOptionsToItsOpenALBackendAndSaysWhatItGot) {
    const auto [out, status] = server(
        "--host 127.0.0.1 --no-multicast --hrtf on --frequency 48000 & pid=$!; sleep 0.5; "
        "kill -INT $pid; wait $pid");
    EXPECT_EQ(status, 0) << out;
    EXPECT_NE(out.find("kelo-server: openal: device \"Wave File Writer\", 48000 Hz, HRTF on: "
                       "enabled, data set \""),
              std::string::npos)
        << out;
}
#endif
