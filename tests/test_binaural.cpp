// The OpenAL backend's device, HRTF and mixing-rate parameters, rendered through OpenAL Soft's
// wave driver and measured: where the interaural delay lies, how loud each ear is, how front and
// back differ, what rate the file has, and what bad parameters leave behind.
#include <random>

#include "RenderTest.h"

using namespace KeloTest;

namespace {

// Seconds of each listening position.
constexpr double kPhase = 0.4, kMs = 1e-3;

struct Binaural : Render {
    // Opens the backend with params and plays looped white noise from a spatial emitter at full
    // level within 1 m.
    void openNoise(const std::string& params) {
        open("openal", params.c_str());
        std::mt19937 random(7);
        std::uniform_int_distribution<int> sample(-8000, 8000);
        std::vector<unsigned char> pcm;
        for (int i = 0; i < 44100; ++i) {
            const int v = sample(random);
            pcm.push_back(static_cast<unsigned char>(v & 0xff));
            pcm.push_back(static_cast<unsigned char>((v >> 8) & 0xff));
        }
        emitter = play(sound(pcm, true), true);
        emitter->setHull(100, 100, 1, 1);
    }
    // Holds the emitter at position for phase number n.
    void hold(int n, const osg::Vec3f& position) {
        const osg::Quaternion still(0, 0, 0, 1);
        emitter->setTransform(&position, &still);
        at((n + 1) * kPhase);
    }
    Channels phase(int n) const { return window(n * kPhase, (n + 1) * kPhase); }
    // The right ear's delay behind the left in seconds (negative: the right ear leads).
    double itd(const Channels& c) const {
        return Measure::lag(c.left, c.right, rate * 2 / 1000) / static_cast<double>(rate);
    }
    Kelo::Emitter* emitter = nullptr;
};

}  // namespace

TEST_F(Binaural, HrtfAtTheChosenRatePutsTheDelayOnTheFarEarAndTellsFrontFromBack) {
    openNoise("frequency=48000 hrtf=on");
    ASSERT_TRUE(backend->context());
    ASSERT_TRUE(backend->hrtfEnabled()) << backend->describe();
    EXPECT_FALSE(backend->hrtfName().empty());
    EXPECT_EQ(backend->frequency(), 48000);
    hold(0, {-1, 0, 0});  // 90 degrees to the left
    hold(1, {1, 0, 0});   // to the right
    hold(2, {0, 0, -1});  // straight ahead
    hold(3, {0, 0, 1});   // straight behind
    finish();
    EXPECT_EQ(rate, 48000);

    const Channels left = phase(0), right = phase(1), front = phase(2), back = phase(3);
    EXPECT_NEAR(itd(left), 0.65 * kMs, 0.25 * kMs);
    EXPECT_NEAR(itd(right), -0.65 * kMs, 0.25 * kMs);
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

TEST_F(Binaural, OnTheDeviceAndDataSetByNameAQuarterTurnMovesTheDelayToTheOtherEar) {
    waveFile();
    const std::vector<std::string> sets = Kelo::OALBackend::hrtfNamesOf("");
    ASSERT_FALSE(sets.empty()) << "OpenAL Soft offers no HRTF data set here";
    openNoise("hrtf=\"name:" + sets.back() + "\" device=\"Wave File Writer\"");
    ASSERT_TRUE(backend->hrtfEnabled()) << backend->describe();
    EXPECT_EQ(backend->hrtfName(), sets.back());
    EXPECT_NE(backend->describe().find(sets.back()), std::string::npos);
    EXPECT_EQ(backend->deviceName(), "Wave File Writer");
    const osg::Vec3f frontLeft(-0.7071f, 0, -0.7071f);
    hold(0, frontLeft);
    world.setListenerTransform({0, 0, 0}, kQuarterTurn);  // now facing -X: the sound is front right
    hold(1, frontLeft);
    finish();
    EXPECT_GT(itd(phase(0)), 0.15 * kMs);
    EXPECT_LT(itd(phase(1)), -0.15 * kMs);
}

TEST_F(Binaural, WithoutHrtfThePanningHasNoDelayAndTheRateIsStillChosen) {
    openNoise("frequency=48000 hrtf=off");
    ASSERT_TRUE(backend->context());
    EXPECT_FALSE(backend->hrtfEnabled());
    EXPECT_EQ(backend->frequency(), 48000);
    hold(0, {-0.7071f, 0, -0.7071f});  // front left: both ears hear it
    hold(1, {-1, 0, 0});               // hard left
    finish();
    EXPECT_EQ(rate, 48000);
    const Channels frontLeft = phase(0), left = phase(1);
    EXPECT_NEAR(itd(frontLeft), 0, 1.0 / rate);
    EXPECT_GT(Measure::dB(frontLeft.left) - Measure::dB(frontLeft.right), 3);
    EXPECT_GT(Measure::dB(frontLeft.right), -50);
    // Plain panning leaves the far ear all but silent, where a head would let some through.
    EXPECT_LT(Measure::dB(left.right), Measure::dB(left.left) - 40);
}

// An unknown device leaves the backend inert; other bad values fall back to the defaults.
TEST_F(Binaural, BadValuesAreNamedAndTheDefaultsUsed) {
    waveFile();
    const std::vector<std::string> devices = Kelo::OALBackend::playbackDevices();
    ASSERT_FALSE(devices.empty());
    LogCapture log;
    openNoise("device=\"No Such Card\"");
    EXPECT_FALSE(backend->context());
    EXPECT_TRUE(log.has("no playback device named \"No Such Card\""));
    for (const std::string& name : devices)
        EXPECT_TRUE(log.has("  " + name + "\n")) << name;
    EXPECT_EQ(backend->describe(), "no device (inert)");
    world.setListenerTransform({}, osg::Quaternion());  // ignored, and no crash
    EXPECT_TRUE(backend->checkALError(nullptr));
    world.clearWorld();
    world.deleteAllBackends();

    openNoise("frequency=9999999999 hrtf=name:no-such-set");
    EXPECT_TRUE(log.has("frequency=9999999999 is not a whole number of Hz"));
    EXPECT_TRUE(log.has("no HRTF data set named \"no-such-set\""));
    for (const std::string& set : Kelo::OALBackend::hrtfNames(backend->device()))
        EXPECT_TRUE(log.has("  " + set + "\n")) << set;
    EXPECT_EQ(backend->frequency(), 44100);
    world.clearWorld();
    world.deleteAllBackends();
    log.messages.clear();
    openNoise("hrtf=sideways frequency=-5 device=\"\"");
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

#ifdef KELO_SERVER_PROGRAM
// Runs kelo-server with args, rendering where the tests do: exit code and both streams.
std::pair<int, std::string> server(const std::string& args) {
    waveFile();
    return runProgram(std::string(KELO_SERVER_PROGRAM) + " " + args);
}

TEST(BinauralServer, ListsDevicesAndDataSetsAndRefusesBadAudioOptions) {
    const auto [status, out] = server("--list-devices");
    EXPECT_EQ(status, 0) << out;
    const std::vector<std::string> sets = Kelo::OALBackend::hrtfNamesOf("");
    ASSERT_FALSE(sets.empty());
    for (const auto& list : {Kelo::OALBackend::playbackDevices(), sets})
        for (const std::string& name : list)
            EXPECT_NE(out.find("  " + name + "\n"), std::string::npos) << out;
    for (const auto& [args, line] : std::vector<std::pair<std::string, std::string>>{
             {"--hrtf sideways", "--hrtf: \"sideways\" is not auto, on, off or name:SPECIFIER"},
             {"--frequency -5", "--frequency: -5 is not in 8000..192000"},
             {"--device ''", "--device: \"\" is not a device name"}})
        EXPECT_EQ(server(args), std::make_pair(2, "kelo-server: " + line + "\n"));
}

TEST(BinauralServer, PassesTheOptionsToItsOpenALBackendAndSaysWhatItGot) {
    const auto [status, out] = server(
        "--host 127.0.0.1 --no-multicast --hrtf on --frequency 48000 & pid=$!; sleep 0.5; "
        "kill -INT $pid; wait $pid");
    EXPECT_EQ(status, 0) << out;
    EXPECT_NE(out.find("kelo-server: openal: device \"Wave File Writer\", 48000 Hz, HRTF on: "
                       "enabled, data set \""),
              std::string::npos)
        << out;
}
#endif
