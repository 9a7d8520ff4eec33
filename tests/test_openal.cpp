// The OpenAL backend, rendered for real through OpenAL Soft's wave driver and measured: where a
// sound is heard, how loud, at what pitch, when it is silent; plus the OpenAL state read back
// from the live context, durations, and every failure path.
#include <AL/al.h>
#include <AL/alc.h>
#include <sndfile.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <limits>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <Kelo/Emitter.h>
#include <Kelo/OALBackend.h>
#include <Kelo/Source.h>
#include <Kelo/World.h>

#include "LoopbackServer.h"
#include "support.h"

using Kelo::WorldPart;
using KeloTest::LogCapture;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

// OpenAL Soft reads its configuration once per process, at the first ALC call: every test of
// this process renders through the wave driver into the same file, one render at a time.
std::string scratch(const std::string& name) {
    return ::testing::TempDir() + "kelo-openal-" + std::to_string(getpid()) + "-" + name;
}

void useConfig(const std::string& text) {
    static const std::string path = scratch("alsoft.conf");
    std::ofstream(path) << text;
    setenv("ALSOFT_CONF", path.c_str(), 1);
}

const std::string& waveFile() {
    static const std::string path = [] {
        const std::string wav = scratch("out.wav");
        useConfig(
            "[general]\ndrivers=wave\nchannels=stereo\nsample-type=int16\n"
            "frequency=44100\n[wave]\nfile=" +
            wav + "\n");
        return wav;
    }();
    return path;
}

// 16-bit mono sine.
std::vector<unsigned char> tone(double hz, double seconds, double amplitude = 10000,
                                int rate = 44100) {
    std::vector<unsigned char> bytes;
    const int n = static_cast<int>(seconds * rate);
    for (int i = 0; i < n; ++i) {
        const auto s = static_cast<uint16_t>(
            static_cast<int16_t>(std::lround(amplitude * std::sin(2 * M_PI * hz * i / rate))));
        bytes.push_back(static_cast<unsigned char>(s & 0xff));
        bytes.push_back(static_cast<unsigned char>(s >> 8));
    }
    return bytes;
}

void setPcm(Kelo::Source& source, const std::vector<unsigned char>& bytes, unsigned rate = 44100,
            unsigned bits = 16, unsigned channels = 1) {
    ::testing::internal::CaptureStderr();  // the "Source::setData call" trace
    source.setData(rate, bits, channels, bytes.data(), static_cast<unsigned>(bytes.size()));
    ::testing::internal::GetCapturedStderr();
}

// A rendered stereo file.
struct Wav {
    int rate = 0;
    std::vector<float> left, right;

    // RMS level in dB relative to full scale over [from, to) seconds.
    double level(const std::vector<float>& ch, double from, double to) const {
        const size_t a = static_cast<size_t>(from * rate), b = static_cast<size_t>(to * rate);
        EXPECT_LE(b, ch.size()) << "window past the end of the render";
        double sum = 1e-20;
        for (size_t i = a; i < b && i < ch.size(); ++i)
            sum += ch[i] * ch[i];
        return 10 * std::log10(sum / static_cast<double>(b - a));
    }
    double left_dB(double from, double to) const { return level(left, from, to); }
    double right_dB(double from, double to) const { return level(right, from, to); }

    // Frequency from the rising zero crossings of the left channel.
    double frequency(double from, double to) const {
        const size_t a = static_cast<size_t>(from * rate), b = static_cast<size_t>(to * rate);
        size_t first = 0, last = 0, count = 0;
        for (size_t i = a + 1; i < b && i < left.size(); ++i) {
            if (left[i - 1] < 0 && left[i] >= 0) {
                if (count == 0)
                    first = i;
                last = i;
                ++count;
            }
        }
        return count < 2 ? 0 : (count - 1) * static_cast<double>(rate) / (last - first);
    }
};

Wav readWav(const std::string& path) {
    SF_INFO info{};
    SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
    Wav wav;
    if (!file) {
        ADD_FAILURE() << "cannot read " << path << ": " << sf_strerror(nullptr);
        return wav;
    }
    EXPECT_EQ(info.channels, 2);
    std::vector<float> frames(static_cast<size_t>(info.frames * info.channels));
    sf_readf_float(file, frames.data(), info.frames);
    sf_close(file);
    wav.rate = info.samplerate;
    for (size_t i = 0; i + 1 < frames.size(); i += 2) {
        wav.left.push_back(frames[i]);
        wav.right.push_back(frames[i + 1]);
    }
    return wav;
}

// One real-time render: the device opens with the backend, and the file is complete once the
// backend has closed it.
struct Render {
    Render() {
        waveFile();
        backend = static_cast<Kelo::OALBackend*>(world.addBackend("openal", ""));
        start = std::chrono::steady_clock::now();
    }
    ~Render() {
        world.clearWorld();
        world.deleteAllBackends();
    }
    // Waits until the given time since the device opened.
    void at(double seconds) const {
        std::this_thread::sleep_until(start + std::chrono::duration<double>(seconds));
    }
    Wav finish() {
        world.clearWorld();
        world.deleteAllBackends();
        return readWav(waveFile());
    }
    Kelo::World world;
    Kelo::OALBackend* backend;
    std::chrono::steady_clock::time_point start;
};

constexpr double kSilent = -80;  // dB: nothing audible
constexpr double kApart = 40;    // dB: one channel against the other when panned fully

// The part of a phase [from, to) of wall-clock time that is safe to measure: the mixer writes a
// few tens of milliseconds ahead of the clock, and changes take a period to be heard.
struct Phase {
    double from, to;
};
Phase phase(double from, double to) {
    return {from + 0.05, to - 0.06};
}
double leftOf(const Wav& w, Phase p) {
    return w.left_dB(p.from, p.to);
}
double rightOf(const Wav& w, Phase p) {
    return w.right_dB(p.from, p.to);
}

TEST(OpenALRender, PlacesSoundsInSpaceAndFollowsTheListener) {
    Render r;
    ASSERT_NE(r.backend->context(), nullptr);
    Kelo::Source* s = r.world.createSource();
    setPcm(*s, tone(441, 1.0));
    s->setParam(true, 1);
    Kelo::Emitter* e = r.world.createEmitter();
    const osg::Vec3f left(-2, 0, 0), right(2, 0, 0), front(0, 0, -2), front2(0, 0, -2.1f);
    e->setHull(10, 10, 1, 1);
    e->setTransform(&left, nullptr);
    e->setSource(s);
    e->setState(WorldPart::PLAY);
    r.at(0.3);
    e->setTransform(&right, nullptr);
    r.at(0.6);
    // A quarter turn about +Y faces the listener to -x: what was in front is now on the right.
    e->setTransform(&front, nullptr);
    r.world.setListenerTransform(osg::Vec3f(),
                                 osg::Quaternion(0, std::sin(M_PI / 4), 0, std::cos(M_PI / 4)));
    r.at(0.9);
    // The world's switch off puts the sound on the listener, equally in both ears.
    r.world.setSpatialize(false);
    e->setTransform(&front2, nullptr);
    r.at(1.2);
    const Wav w = r.finish();

    const Phase onLeft = phase(0, 0.3), onRight = phase(0.3, 0.6), turned = phase(0.6, 0.9),
                flat = phase(0.9, 1.2);
    EXPECT_GT(leftOf(w, onLeft), -30);
    EXPECT_GT(leftOf(w, onLeft) - rightOf(w, onLeft), kApart);
    EXPECT_GT(rightOf(w, onRight) - leftOf(w, onRight), kApart);
    EXPECT_GT(rightOf(w, turned) - leftOf(w, turned), kApart);
    EXPECT_NEAR(leftOf(w, flat), rightOf(w, flat), 0.1);
    EXPECT_GT(leftOf(w, flat), -30);
    EXPECT_NEAR(w.frequency(onLeft.from, onLeft.to), 441, 3);
}

TEST(OpenALRender, GainSwitchesAndTransport) {
    Render r;
    Kelo::Source* s = r.world.createSource();
    setPcm(*s, tone(441, 1.0));
    s->setParam(true, 1);
    Kelo::Source* other = r.world.createSource();
    setPcm(*other, tone(441, 1.0));
    Kelo::Emitter* e = r.world.createEmitter();
    e->setParam(false, 0, 1);  // on the listener
    e->setTransform(nullptr, nullptr);
    e->setSource(s);
    e->setState(WorldPart::PLAY);
    r.at(0.2);
    e->setParam(false, 0, 0.5f);
    r.at(0.4);
    r.world.setEnabled(false);
    r.at(0.6);
    // A listener move restores full gain even in a disabled world. (Only a turn: OpenAL Soft
    // shifts the level of listener-relative sources a little when the listener changes place.)
    r.world.setListenerTransform(osg::Vec3f(),
                                 osg::Quaternion(0, std::sin(M_PI / 4), 0, std::cos(M_PI / 4)));
    r.at(0.8);
    e->setState(WorldPart::PAUSE);
    r.at(1.0);
    e->setState(WorldPart::PLAY);
    r.at(1.2);
    e->setSource(other);                     // reconnecting stops the OpenAL source
    EXPECT_EQ(e->state(), WorldPart::PLAY);  // though the world still says play
    r.at(1.4);
    const Wav w = r.finish();

    const Phase start = phase(0, 0.2);
    const double full = leftOf(w, start);
    EXPECT_GT(full, -30);
    EXPECT_NEAR(full, rightOf(w, start), 0.1);
    EXPECT_NEAR(leftOf(w, phase(0.2, 0.4)) - full, -6.02, 0.5);  // gain 0.5
    EXPECT_LT(leftOf(w, phase(0.4, 0.6)), kSilent);              // world disabled
    EXPECT_NEAR(leftOf(w, phase(0.6, 0.8)) - full, -6.02, 0.5);  // listener moved
    EXPECT_LT(leftOf(w, phase(0.8, 1.0)), kSilent);              // paused
    EXPECT_NEAR(leftOf(w, phase(1.0, 1.2)) - full, -6.02, 0.5);  // playing again
    EXPECT_LT(leftOf(w, phase(1.2, 1.4)), kSilent);              // reconnected
}

TEST(OpenALRender, LoopKeepsSoundingAndPitchScalesTheFrequency) {
    Render r;
    Kelo::Source* s = r.world.createSource();
    setPcm(*s, tone(440, 0.1));  // a whole number of cycles, so the loop is seamless
    Kelo::Emitter* e = r.world.createEmitter();
    e->setParam(false, 0, 1);
    e->setTransform(nullptr, nullptr);
    e->setSource(s);
    e->setState(WorldPart::PLAY);  // 0.1 s, once
    r.at(0.3);
    s->setParam(true, 1);
    e->setState(WorldPart::STOP);
    e->setState(WorldPart::PLAY);
    r.at(0.6);
    s->setParam(true, 2);
    r.at(0.9);
    e->setState(WorldPart::STOP);
    r.at(1.1);
    const Wav w = r.finish();

    const Phase once = phase(0.1, 0.3), looping = phase(0.3, 0.6), doubled = phase(0.6, 0.9);
    EXPECT_LT(leftOf(w, once), kSilent);  // past the buffer's end
    EXPECT_GT(leftOf(w, looping), -30);   // past it again, looping
    EXPECT_NEAR(w.frequency(looping.from, looping.to), 440, 3);
    EXPECT_NEAR(w.frequency(doubled.from, doubled.to), 880, 6);
    EXPECT_LT(leftOf(w, phase(0.9, 1.1)), kSilent);  // stopped
}

// The OpenAL state behind each mapping, read back from the live context.
struct OpenALState : ::testing::Test {
    OpenALState() {
        waveFile();
        backend = static_cast<Kelo::OALBackend*>(world.addBackend("default", ""));
    }
    ~OpenALState() override {
        world.clearWorld();
        world.deleteAllBackends();
    }
    ALuint sourceOf(const Kelo::Emitter* e) const { return backend->sources().at(e->id()); }
    float get(const Kelo::Emitter* e, ALenum param) const {
        ALfloat value = -1;
        alGetSourcef(sourceOf(e), param, &value);
        return value;
    }
    ALint geti(const Kelo::Emitter* e, ALenum param) const {
        ALint value = -1;
        alGetSourcei(sourceOf(e), param, &value);
        return value;
    }
    std::vector<float> listener(ALenum param, int n) const {
        std::vector<float> v(6, NAN);
        alGetListenerfv(param, v.data());
        v.resize(static_cast<size_t>(n));
        return v;
    }
    Kelo::World world;
    Kelo::OALBackend* backend;
};

void expectNear(const std::vector<float>& got, const std::vector<float>& want) {
    ASSERT_EQ(got.size(), want.size());
    for (size_t i = 0; i < got.size(); ++i)
        EXPECT_NEAR(got[i], want[i], 1e-6f) << "at " << i;
}

TEST_F(OpenALState, HullMapsToDistanceAttenuation) {
    ASSERT_EQ(backend->type()->name(), "openal");  // "default" found it
    Kelo::Emitter* e = world.createEmitter();
    e->setHull(10, 30, 1, 3);
    EXPECT_FLOAT_EQ(get(e, AL_REFERENCE_DISTANCE), 2.0f);
    EXPECT_FLOAT_EQ(get(e, AL_MAX_DISTANCE), 20.0f);
    EXPECT_FLOAT_EQ(get(e, AL_ROLLOFF_FACTOR), 1.0f);
    EXPECT_FLOAT_EQ(get(e, AL_CONE_INNER_ANGLE), 360.0f);
    e->setHull(0, 0, 0, 0);
    EXPECT_FLOAT_EQ(get(e, AL_REFERENCE_DISTANCE), 0.001f * 0.999f);
    EXPECT_FLOAT_EQ(get(e, AL_MAX_DISTANCE), 0.001f);
    e->setHull(5, 5, 5, 5);
    EXPECT_FLOAT_EQ(get(e, AL_REFERENCE_DISTANCE), 5 * 0.999f);
    EXPECT_FLOAT_EQ(get(e, AL_MAX_DISTANCE), 5.0f);
    // Not spatial: the fixed listener-bound values.
    world.setSpatialize(false);
    e->setHull(10, 30, 1, 3);
    EXPECT_FLOAT_EQ(get(e, AL_REFERENCE_DISTANCE), 1.0f);
    EXPECT_FLOAT_EQ(get(e, AL_MAX_DISTANCE), 2.0f);
    EXPECT_FLOAT_EQ(get(e, AL_ROLLOFF_FACTOR), 0.0f);
}

TEST_F(OpenALState, PositionRelativeFlagListenerAndBuffers) {
    Kelo::Emitter* e = world.createEmitter();
    const osg::Vec3f p(1, 2, 3);
    e->setTransform(&p, nullptr);
    std::vector<float> pos(3);
    alGetSourcefv(sourceOf(e), AL_POSITION, pos.data());
    expectNear(pos, {1, 2, 3});
    EXPECT_EQ(geti(e, AL_SOURCE_RELATIVE), AL_FALSE);
    e->setParam(false, 0, 0.25f);
    EXPECT_FLOAT_EQ(get(e, AL_GAIN), 0.25f);
    // A changed spatial flag takes effect at the next transform.
    const osg::Vec3f q(1, 2, 4);
    e->setTransform(&q, nullptr);
    alGetSourcefv(sourceOf(e), AL_POSITION, pos.data());
    expectNear(pos, {0, 0, 0});
    EXPECT_EQ(geti(e, AL_SOURCE_RELATIVE), AL_TRUE);

    expectNear(listener(AL_ORIENTATION, 6), {0, 0, -1, 0, 1, 0});
    const float h = std::sin(static_cast<float>(M_PI) / 4);
    world.setListenerTransform(osg::Vec3f(4, 5, 6), osg::Quaternion(0, h, 0, h));
    expectNear(listener(AL_ORIENTATION, 6), {-1, 0, 0, 0, 1, 0});
    expectNear(listener(AL_POSITION, 3), {4, 5, 6});
    world.setEnabled(false);
    expectNear(listener(AL_GAIN, 1), {0});
    world.setListenerTransform(osg::Vec3f(4, 5, 7), world.listenerRotation());
    expectNear(listener(AL_GAIN, 1), {1});

    Kelo::Source* s = world.createSource();
    s->setParam(true, 1.5f);
    e->setSource(s);
    EXPECT_EQ(geti(e, AL_BUFFER), static_cast<ALint>(backend->buffers().at(s->id())));
    EXPECT_FLOAT_EQ(get(e, AL_PITCH), 1.5f);
    EXPECT_EQ(geti(e, AL_LOOPING), AL_TRUE);
    s->setParam(false, 0.5f);
    EXPECT_FLOAT_EQ(get(e, AL_PITCH), 0.5f);
    EXPECT_EQ(geti(e, AL_LOOPING), AL_FALSE);
    e->setSource(nullptr);
    EXPECT_EQ(geti(e, AL_BUFFER), 0);
}

TEST_F(OpenALState, LabelsDecideWhichEmittersGetASource) {
    Kelo::World labelled;
    auto* b = static_cast<Kelo::OALBackend*>(labelled.addBackend("openal", "labels=front"));
    Kelo::Emitter* side = labelled.createEmitter({"side"});
    Kelo::Emitter* front = labelled.createEmitter({"front", "side"});
    Kelo::Emitter* any = labelled.createEmitter();
    EXPECT_EQ(b->sources().count(side->id()), 0u);
    EXPECT_EQ(b->sources().count(front->id()), 1u);
    EXPECT_EQ(b->sources().count(any->id()), 1u);
    LogCapture log;
    side->setHull(1, 1, 1, 1);
    side->setState(WorldPart::PLAY);
    EXPECT_THAT(log.messages, IsEmpty());
    labelled.clearWorld();
    labelled.deleteAllBackends();
}

TEST_F(OpenALState, DurationsOfPcmData) {
    Kelo::Source* stereo = world.createSource();
    setPcm(*stereo, std::vector<unsigned char>(176400), 44100, 16, 2);
    EXPECT_FLOAT_EQ(stereo->duration(), 1.0f);
    Kelo::Source* mono = world.createSource();
    setPcm(*mono, std::vector<unsigned char>(4000), 8000, 8, 1);
    EXPECT_FLOAT_EQ(mono->duration(), 0.5f);
}

TEST_F(OpenALState, DurationsOfWavFilesByFileAndHttp) {
    Kelo::World maker;
    Kelo::Source* pcm = maker.createSource();
    setPcm(*pcm, tone(441, 0.5, 10000, 22050), 22050);
    const std::string path = scratch("tone.wav");
    pcm->dumpWavFile(path);
    maker.clearWorld();

    LogCapture log;
    Kelo::Source* byFile = world.createSource();
    byFile->setDataFromURL("file://" + path);
    EXPECT_FLOAT_EQ(byFile->duration(), 0.5f);
    EXPECT_THAT(log.texts(osg::LOG_NOTICE),
                Contains("Set alBufferData from URL data: 4353, 22050, 22050\n"));

    std::ifstream in(path, std::ios::binary);
    const std::string body{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    KeloTest::LoopbackServer server(
        "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body);
    Kelo::Source* byHttp = world.createSource();
    byHttp->setDataFromURL(server.url("/tone.wav"));
    EXPECT_FLOAT_EQ(byHttp->duration(), 0.5f);
    EXPECT_THAT(log.texts(osg::LOG_LOG), Contains("loading: >" + server.url("/tone.wav") + "<\n"));
    std::remove(path.c_str());
}

TEST(OpenALErrors, DecodingTable) {
    EXPECT_EQ(Kelo::OALBackend::errorText(AL_INVALID_NAME),
              "Invalid Name parameter passed to AL call");
    EXPECT_EQ(Kelo::OALBackend::errorText(AL_INVALID_ENUM), "Invalid parameter passed to AL call");
    EXPECT_EQ(Kelo::OALBackend::errorText(AL_INVALID_VALUE), "Invalid enum parameter value");
    EXPECT_EQ(Kelo::OALBackend::errorText(AL_INVALID_OPERATION), "Illegal call");
    EXPECT_EQ(Kelo::OALBackend::errorText(AL_OUT_OF_MEMORY), "Out of memory");
    EXPECT_EQ(Kelo::OALBackend::errorText(0xA010), "0xa010");
}

TEST_F(OpenALState, RealErrorsAreReportedTwiceAndCleared) {
    LogCapture log;
    EXPECT_FALSE(backend->checkALError("unused\n"));
    alSourcef(0xDEAD, AL_GAIN, 1);  // no such source
    EXPECT_TRUE(backend->checkALError("Something failed\n"));
    EXPECT_THAT(
        log.texts(osg::LOG_FATAL),
        ElementsAre("Something failed\n",
                    "OpenAL state machine error: Invalid Name parameter passed to AL call\n"));
    log.messages.clear();
    alSourcef(0xDEAD, AL_GAIN, 1);
    EXPECT_TRUE(backend->checkALError(nullptr));
    EXPECT_THAT(log.texts(), ElementsAre("OpenAL state machine error: Invalid Name parameter "
                                         "passed to AL call\n"));
    EXPECT_EQ(alGetError(), AL_NO_ERROR);
}

TEST_F(OpenALState, BadPcmAndBadValuesGiveMessagesAndLeaveNoErrorPending) {
    Kelo::Emitter* playing = world.createEmitter();
    Kelo::Source* good = world.createSource();
    setPcm(*good, tone(441, 0.5));
    good->setParam(true, 1);
    playing->setSource(good);
    playing->setState(WorldPart::PLAY);

    LogCapture log;
    Kelo::Source* s = world.createSource();
    setPcm(*s, std::vector<unsigned char>(300), 44100, 24, 1);
    setPcm(*s, std::vector<unsigned char>(300), 44100, 16, 3);
    EXPECT_THAT(log.texts(osg::LOG_FATAL), ElementsAre("Invalid source bits/channels: 24/1\n",
                                                       "Invalid source bits/channels: 16/3\n"));
    EXPECT_FLOAT_EQ(s->duration(), 0.0f);
    log.messages.clear();
    setPcm(*s, {}, 44100, 16, 1);  // no samples: the notice line, then nothing
    EXPECT_THAT(log.texts(), ElementsAre("Invalid data in Kelo::Source::setData()\n",
                                         "Set alBufferData from PCM data: 0, 0, 0\n"));

    log.messages.clear();
    Kelo::Emitter* e = world.createEmitter();
    const osg::Vec3f nowhere(NAN, 0, 0);
    e->setTransform(&nowhere, nullptr);
    e->setParam(true, 0, NAN);
    e->setParam(true, 0, 1e30f);  // huge but valid
    s->setParam(false, NAN);
    e->setSource(s);
    e->setHull(NAN, 1, 1, 1);
    world.setListenerTransform(osg::Vec3f(0, INFINITY, 0), osg::Quaternion());
    e->setState(static_cast<WorldPart::State>(7));
    const std::string decoded = "OpenAL state machine error: Invalid enum parameter value\n";
    EXPECT_THAT(
        log.texts(osg::LOG_FATAL),
        ElementsAre("Cannot set emitter transformation\n", decoded,
                    "Cannot set emitter parameters\n", decoded,
                    "Cannot connect emitter and source\n", decoded, "Cannot set emitter hull\n",
                    decoded, "Cannot set listener transformation\n", decoded,
                    "OALBackend::setEmitterState(): Bad Kelo::Emitter::state 7 \n"));
    EXPECT_EQ(alGetError(), AL_NO_ERROR);
    ALint state = 0;
    alGetSourcei(sourceOf(playing), AL_SOURCE_STATE, &state);
    EXPECT_EQ(state, AL_PLAYING);  // the rest of the scene goes on
}

TEST_F(OpenALState, UrlFailuresAreReportedAndSwallowed) {
    Kelo::Source* s = world.createSource();
    LogCapture log;
    const std::string missing = scratch("missing.wav");
    s->setDataFromURL(missing);
    EXPECT_THAT(log.texts(),
                ElementsAre("loading: >file://" + missing + "<\n",
                            "OALBackend: Cannot download file \"file://" + missing + "\"\n"));

    log.messages.clear();
    KeloTest::LoopbackServer server("HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n");
    s->setDataFromURL(server.url("/gone.wav"));
    EXPECT_EQ(log.texts(osg::LOG_FATAL).at(0),
              "OALBackend: Cannot download file \"" + server.url("/gone.wav") + "\"\n");

    log.messages.clear();
    const std::string text = scratch("not-a-wav.wav");
    std::ofstream(text) << "this is not a sound";
    s->setDataFromURL(text);
    EXPECT_THAT(log.texts(osg::LOG_FATAL),
                ElementsAre("wav file load error\n", ::testing::StartsWith("ALUT error: ")));

    log.messages.clear();
    Kelo::World maker;
    Kelo::Source* wide = maker.createSource();
    setPcm(*wide, std::vector<unsigned char>(600), 8000, 24, 1);
    const std::string wav24 = scratch("24bit.wav");
    wide->dumpWavFile(wav24);
    maker.clearWorld();
    s->setDataFromURL(wav24);
    EXPECT_THAT(log.texts(osg::LOG_FATAL), Contains("wav file load error\n"));
    EXPECT_FLOAT_EQ(s->duration(), 0.0f);
    EXPECT_EQ(alGetError(), AL_NO_ERROR);
    std::remove(text.c_str());
    std::remove(wav24.c_str());
}

TEST_F(OpenALState, PastTheSourceLimitCreationIsRefusedAndTheSceneGoesOn) {
    LogCapture log;
    std::vector<Kelo::Emitter*> emitters;
    for (int i = 0; i < 260; ++i)
        emitters.push_back(world.createEmitter());
    EXPECT_EQ(backend->sources().size(), 256u);
    EXPECT_THAT(log.texts(osg::LOG_FATAL), Contains("Cannot create emitter\n"));
    // Emitters without an OpenAL source are ignored silently.
    log.messages.clear();
    emitters.back()->setState(WorldPart::PLAY);
    EXPECT_THAT(log.messages, IsEmpty());
    delete emitters.front();
    EXPECT_EQ(backend->sources().size(), 255u);
}

// Without a device the backend is inert. OpenAL reads its configuration once per process, so
// this runs in a child process of its own with a driver list that matches nothing.
TEST(OpenALNoDevice, InertBackendIgnoresEverything) {
    ::testing::FLAGS_gtest_death_test_style = "threadsafe";
    EXPECT_EXIT(
        {
            useConfig("[general]\ndrivers=nosuchdriver\n");
            LogCapture log;
            Kelo::World world;
            auto* backend = static_cast<Kelo::OALBackend*>(world.addBackend("openal", ""));
            Kelo::Emitter* e = world.createEmitter();
            e->setState(WorldPart::PLAY);
            world.setListenerTransform(osg::Vec3f(1, 0, 0), osg::Quaternion());
            const bool ok = backend && !backend->context() && backend->checkALError("x\n") &&
                            log.texts(osg::LOG_FATAL) ==
                                std::vector<std::string>{"Open OpenAL device failed\n"} &&
                            backend->sources().empty();
            world.clearWorld();
            world.deleteAllBackends();
            std::exit(ok ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

}  // namespace
