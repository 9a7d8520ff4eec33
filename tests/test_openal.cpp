// The OpenAL backend, rendered for real through OpenAL Soft's wave driver and measured: where a
// sound is heard, how loud, at what pitch, when it is silent; plus the OpenAL state read back
// from the live context, durations, and every failure path.
#include <AL/al.h>
#include <AL/alc.h>

#include "LoopbackServer.h"
#include "RenderTest.h"

using namespace KeloTest;
using Kelo::WorldPart;
using ::testing::StartsWith;

constexpr double kSilent = -80;  // dB: nothing audible
constexpr double kApart = 40;    // dB: one channel against the other when panned fully

// Frequency from the rising zero crossings.
double frequency(const std::vector<float>& x, int rate) {
    size_t first = 0, last = 0, count = 0;
    for (size_t i = 1; i < x.size(); ++i)
        if (x[i - 1] < 0 && x[i] >= 0) {
            first = count++ ? first : i;
            last = i;
        }
    return count < 2 ? 0
                     : static_cast<double>(count - 1) * rate / static_cast<double>(last - first);
}

// The audio backend, found as "default", on a device that opened with it.
struct OpenAL : Render {
    OpenAL() { open("default"); }
    ALuint sourceOf(const Kelo::Emitter* e) const { return backend->sources().at(e->id()); }
    float get(const Kelo::Emitter* e, ALenum param) const {
        ALfloat value = -1;
        return alGetSourcef(sourceOf(e), param, &value), value;
    }
    ALint geti(const Kelo::Emitter* e, ALenum param) const {
        ALint value = -1;
        return alGetSourcei(sourceOf(e), param, &value), value;
    }
    // Checks values of a source (e) or listener (null) vector within 1e-6.
    void expectNear(const Kelo::Emitter* e, ALenum param, const std::vector<float>& want) const {
        std::vector<float> got(6, NAN);
        e ? alGetSourcefv(sourceOf(e), param, got.data()) : alGetListenerfv(param, got.data());
        for (size_t i = 0; i < want.size(); ++i)
            EXPECT_NEAR(got[i], want[i], 1e-6f) << "at " << i;
    }
};

TEST_F(OpenAL, RenderPlacesSoundsInSpaceAndFollowsTheListener) {
    ASSERT_NE(backend->context(), nullptr);
    Kelo::Emitter* e = play(sound(tone(441, 1.0), true), true);
    const osg::Vec3f left(-2, 0, 0), right(2, 0, 0), front(0, 0, -2), front2(0, 0, -2.1f);
    e->setHull(10, 10, 1, 1);
    e->setTransform(&left, nullptr);
    at(0.3);
    e->setTransform(&right, nullptr);
    at(0.6);
    // A quarter turn faces the listener to -x: what was in front is now on the right.
    e->setTransform(&front, nullptr);
    world.setListenerTransform(osg::Vec3f(), kQuarterTurn);
    at(0.9);
    // The world's switch off puts the sound on the listener, equally in both ears.
    world.setSpatialize(false);
    e->setTransform(&front2, nullptr);
    at(1.2);
    finish();

    // Right ear's level against the left's in each phase.
    const auto rightOverLeft = [&](double from) {
        const Channels c = window(from, from + 0.3);
        return Measure::dB(c.right) - Measure::dB(c.left);
    };
    EXPECT_GT(leftDB(0, 0.3), -30);
    EXPECT_LT(rightOverLeft(0), -kApart);
    EXPECT_GT(rightOverLeft(0.3), kApart);
    EXPECT_GT(rightOverLeft(0.6), kApart);
    EXPECT_NEAR(rightOverLeft(0.9), 0, 0.1);
    EXPECT_GT(leftDB(0.9, 1.2), -30);
    EXPECT_NEAR(frequency(window(0, 0.3).left, rate), 441, 3);
}

// One timeline: gain, the world's switch, a listener move, transport, reconnection, looping
// and pitch.
TEST_F(OpenAL, RenderGainSwitchesTransportLoopAndPitch) {
    // A whole number of cycles, so that its loop is seamless.
    Kelo::Source* other = sound(tone(440, 0.1), false);
    Kelo::Emitter* e = play(sound(tone(441, 1.0), true), false);  // on the listener
    at(0.2);
    e->setParam(false, 0, 0.5f);
    at(0.4);
    world.setEnabled(false);
    at(0.6);
    // A listener move restores full gain even in a disabled world. (Only a turn: OpenAL Soft
    // shifts the level of listener-relative sources a little when the listener changes place.)
    world.setListenerTransform(osg::Vec3f(), kQuarterTurn);
    at(0.8);
    e->setState(WorldPart::PAUSE);
    at(1.0);
    e->setState(WorldPart::PLAY);
    at(1.2);
    e->setSource(other);                     // reconnecting stops the OpenAL source
    EXPECT_EQ(e->state(), WorldPart::PLAY);  // though the world still says play
    at(1.4);
    e->setState(WorldPart::STOP);
    e->setState(WorldPart::PLAY);  // 0.1 s, once
    at(1.8);
    other->setParam(true, 1);
    e->setState(WorldPart::STOP);
    e->setState(WorldPart::PLAY);
    at(2.1);
    other->setParam(true, 2);
    at(2.4);
    e->setState(WorldPart::STOP);
    at(2.6);
    finish();

    const double full = leftDB(0, 0.2);
    EXPECT_GT(full, -30);
    EXPECT_NEAR(full, Measure::dB(window(0, 0.2).right), 0.1);
    EXPECT_NEAR(leftDB(0.2, 0.4) - full, -6.02, 0.5);  // gain 0.5
    EXPECT_LT(leftDB(0.4, 0.6), kSilent);              // world disabled
    EXPECT_NEAR(leftDB(0.6, 0.8) - full, -6.02, 0.5);  // listener moved
    EXPECT_LT(leftDB(0.8, 1.0), kSilent);              // paused
    EXPECT_NEAR(leftDB(1.0, 1.2) - full, -6.02, 0.5);  // playing again
    EXPECT_LT(leftDB(1.2, 1.4), kSilent);              // reconnected
    EXPECT_LT(leftDB(1.6, 1.8), kSilent);              // past the buffer's end
    EXPECT_GT(leftDB(1.8, 2.1), -30);                  // past it again, looping
    EXPECT_NEAR(frequency(window(1.8, 2.1).left, rate), 440, 3);
    EXPECT_NEAR(frequency(window(2.1, 2.4).left, rate), 880, 6);
    EXPECT_LT(leftDB(2.4, 2.6), kSilent);  // stopped
}

// What the renders cannot tell apart, read back from the context.
TEST_F(OpenAL, HullRelativeFlagListenerBufferAndLabelsAsTheContextHoldsThem) {
    ASSERT_EQ(backend->type()->name(), "openal");  // "default" found it
    Kelo::Emitter* e = world.createEmitter();
    const osg::Vec3f p(1, 2, 3), q(1, 2, 4);
    e->setTransform(&p, nullptr);
    expectNear(e, AL_POSITION, {1, 2, 3});
    EXPECT_EQ(geti(e, AL_SOURCE_RELATIVE), AL_FALSE);
    e->setParam(false, 0, 1);  // takes effect at the next transform
    e->setTransform(&q, nullptr);
    expectNear(e, AL_POSITION, {0, 0, 0});
    EXPECT_EQ(geti(e, AL_SOURCE_RELATIVE), AL_TRUE);
    world.setListenerTransform(osg::Vec3f(4, 5, 6), kQuarterTurn);
    expectNear(nullptr, AL_ORIENTATION, {-1, 0, 0, 0, 1, 0});
    expectNear(nullptr, AL_POSITION, {4, 5, 6});
    Kelo::Source* s = world.createSource();
    e->setSource(s);
    EXPECT_EQ(geti(e, AL_BUFFER), static_cast<ALint>(backend->buffers().at(s->id())));
    e->setSource(nullptr);
    EXPECT_EQ(geti(e, AL_BUFFER), 0);

    e->setParam(true, 0, 1);
    // maxBack, maxFront, minBack, minFront -> reference distance, max distance, rolloff; last,
    // with the world's spatialization off, the fixed listener-bound values.
    const std::pair<std::array<float, 4>, std::array<float, 3>> cases[] = {
        {{10, 30, 1, 3}, {2, 20, 1}},
        {{0, 0, 0, 0}, {0.001f * 0.999f, 0.001f, 1}},
        {{5, 5, 5, 5}, {5 * 0.999f, 5, 1}},
        {{10, 30, 1, 3}, {1, 2, 0}}};
    for (const auto& [hull, al] : cases) {
        world.setSpatialize(&hull != &cases[3].first);
        e->setHull(hull[0], hull[1], hull[2], hull[3]);
        EXPECT_FLOAT_EQ(get(e, AL_REFERENCE_DISTANCE), al[0]) << hull[0];
        EXPECT_FLOAT_EQ(get(e, AL_MAX_DISTANCE), al[1]) << hull[0];
        EXPECT_FLOAT_EQ(get(e, AL_ROLLOFF_FACTOR), al[2]) << hull[0];
    }
    EXPECT_FLOAT_EQ(get(e, AL_CONE_INNER_ANGLE), 360.0f);

    // Labels decide which emitters get a source.
    Scene labelled;
    auto* b = static_cast<Kelo::OALBackend*>(labelled.addBackend("openal", "labels=front"));
    EXPECT_EQ(b->sources().count(labelled.createEmitter({"side"})->id()), 0u);
    EXPECT_EQ(b->sources().count(labelled.createEmitter({"front", "side"})->id()), 1u);
    EXPECT_EQ(b->sources().count(labelled.createEmitter()->id()), 1u);
}

TEST_F(OpenAL, ErrorsBadPcmAndBadValuesGiveExactMessagesAndLeaveNoErrorPending) {
    const std::pair<ALenum, const char*> table[] = {
        {AL_INVALID_NAME, "Invalid Name parameter passed to AL call"},
        {AL_INVALID_ENUM, "Invalid parameter passed to AL call"},
        {AL_INVALID_VALUE, "Invalid enum parameter value"},
        {AL_INVALID_OPERATION, "Illegal call"},
        {AL_OUT_OF_MEMORY, "Out of memory"},
        {0xA010, "0xa010"}};
    for (const auto& [code, text] : table)
        EXPECT_EQ(Kelo::OALBackend::errorText(code), text);

    Kelo::Emitter* playing = play(sound(tone(441, 0.5), true), true);

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
    EXPECT_FALSE(backend->checkALError("unused\n"));
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
    alSourcef(0xDEAD, AL_GAIN, 1);  // no such source; no message of the caller's
    EXPECT_TRUE(backend->checkALError(nullptr));
    const std::string decoded = "OpenAL state machine error: Invalid enum parameter value\n";
    EXPECT_THAT(
        log.texts(osg::LOG_FATAL),
        ElementsAre("Cannot set emitter transformation\n", decoded,
                    "Cannot set emitter parameters\n", decoded,
                    "Cannot connect emitter and source\n", decoded, "Cannot set emitter hull\n",
                    decoded, "Cannot set listener transformation\n", decoded,
                    "OALBackend::setEmitterState(): Bad Kelo::Emitter::state 7 \n",
                    "OpenAL state machine error: Invalid Name parameter passed to AL call\n"));
    EXPECT_EQ(alGetError(), AL_NO_ERROR);
    EXPECT_EQ(geti(playing, AL_SOURCE_STATE), AL_PLAYING);  // the rest of the scene goes on
}

TEST_F(OpenAL, DurationsOfPcmAndOfWavFilesByFileAndHttpAndUrlFailuresSwallowed) {
    EXPECT_FLOAT_EQ(sound(std::vector<unsigned char>(176400), false, 44100, 16, 2)->duration(), 1);
    EXPECT_FLOAT_EQ(sound(std::vector<unsigned char>(4000), false, 8000, 8, 1)->duration(), 0.5);
    const std::string path = scratch("tone.wav"), missing = scratch("missing.wav"),
                      text = scratch("not-a-wav.wav"), wav24 = scratch("24bit.wav");
    sound(tone(441, 0.5, 22050), false, 22050)->dumpWavFile(path);
    sound(std::vector<unsigned char>(600), false, 8000, 24, 1)->dumpWavFile(wav24);
    std::ofstream(text) << "this is not a sound";
    const std::string body = readFile(path);
    LoopbackServer server("HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) +
                          "\r\n\r\n" + body),
        gone("HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n\r\n");

    LogCapture log;
    Kelo::Source* byFile = world.createSource();
    byFile->setDataFromURL("file://" + path);
    EXPECT_FLOAT_EQ(byFile->duration(), 0.5f);
    EXPECT_THAT(log.texts(osg::LOG_NOTICE),
                Contains("Set alBufferData from URL data: 4353, 22050, 22050\n"));
    Kelo::Source *byHttp = world.createSource(), *s = world.createSource();
    byHttp->setDataFromURL(server.url("/tone.wav"));
    EXPECT_FLOAT_EQ(byHttp->duration(), 0.5f);
    EXPECT_THAT(log.texts(osg::LOG_LOG), Contains("loading: >" + server.url("/tone.wav") + "<\n"));

    log.messages.clear();
    s->setDataFromURL(missing);
    s->setDataFromURL(gone.url("/gone.wav"));
    s->setDataFromURL(text);
    EXPECT_THAT(log.texts(),
                ElementsAre("loading: >file://" + missing + "<\n",
                            "OALBackend: Cannot download file \"file://" + missing + "\"\n",
                            "loading: >" + gone.url("/gone.wav") + "<\n",
                            "OALBackend: Cannot download file \"" + gone.url("/gone.wav") + "\"\n",
                            "loading: >file://" + text + "<\n", "wav file load error\n",
                            StartsWith("ALUT error: ")));
    log.messages.clear();
    s->setDataFromURL(wav24);
    EXPECT_THAT(log.texts(osg::LOG_FATAL), Contains("wav file load error\n"));
    EXPECT_FLOAT_EQ(s->duration(), 0.0f);
    EXPECT_EQ(alGetError(), AL_NO_ERROR);
}

TEST_F(OpenAL, PastTheSourceLimitCreationIsRefusedAndTheSceneGoesOn) {
    LogCapture log;
    std::vector<Kelo::Emitter*> emitters;
    for (int i = 0; i < 260; ++i)
        emitters.push_back(world.createEmitter());
    EXPECT_EQ(backend->sources().size(), 256u);
    EXPECT_THAT(log.texts(osg::LOG_FATAL), Contains("Cannot create emitter\n"));
    // Emitters without an OpenAL source are ignored silently.
    log.messages.clear();
    emitters.back()->setHull(1, 1, 1, 1);
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
            Scene world;
            auto* backend = static_cast<Kelo::OALBackend*>(world.addBackend("openal", ""));
            world.createEmitter()->setState(WorldPart::PLAY);
            world.setListenerTransform(osg::Vec3f(1, 0, 0), osg::Quaternion());
            const bool inert = backend && !backend->context() && backend->checkALError("x\n") &&
                               backend->sources().empty();
            std::exit(inert && log.texts(osg::LOG_FATAL) ==
                                   std::vector<std::string>{"Open OpenAL device failed\n"}
                          ? 0
                          : 1);
        },
        ::testing::ExitedWithCode(0), "");
}
