// The log and silent backends: the exact trace of every notification.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <Kelo/Emitter.h>
#include <Kelo/LogBackend.h>
#include <Kelo/SilentBackend.h>
#include <Kelo/Source.h>
#include <Kelo/World.h>

#include "support.h"

using Kelo::WorldPart;
using KeloTest::LogCapture;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

TEST(LogBackend, TracesEveryNotificationWithItsValues) {
    // Level 0 is written whatever the threshold.
    LogCapture log(osg::LOG_FATAL);
    Kelo::World world;
    world.addBackend("log", "");
    Kelo::Source* s = world.createSource();
    Kelo::Emitter* e = world.createEmitter();
    const osg::Vec3f p(1.5f, -2, 0.25f);
    e->setTransform(&p, nullptr);
    e->setHull(1, 2, 3, 4);
    e->setParam(true, 0, 1);
    e->setSource(s);
    e->setState(WorldPart::PAUSE);
    s->setParam(false, 1);
    const unsigned char pcm[2] = {0, 0};
    ::testing::internal::CaptureStderr();
    s->setData(8000, 8, 1, pcm, 2);
    ::testing::internal::GetCapturedStderr();
    // A pure rotation prints the unchanged position.
    world.setListenerTransform(osg::Vec3f(3, 0, 0), osg::Quaternion());
    world.setListenerTransform(osg::Vec3f(3, 0, 0), osg::Quaternion(0, 1, 0, 0));
    world.setEnabled(false);
    world.resetWorld();
    world.deleteAllBackends();

    EXPECT_THAT(
        log.texts(osg::LOG_LOG),
        ElementsAre(
            "LogBackend: create backend\n", "LogBackend: setEnabled\n",
            "LogBackend: setListenerTransform(0.000000, 0.000000, 0.000000)\n",
            "LogBackend: createSource\n", "LogBackend: createEmitter\n",
            "LogBackend: setEmitterTransform(1.500000, -2.000000, 0.250000)\n",
            "LogBackend: setEmitterHull(maxBack=1.000000, maxFront=2.000000, minBack=3.000000, "
            "minFront=4.000000)\n",
            "LogBackend: setEmitterParam\n", "LogBackend: setEmitterConnection\n",
            "LogBackend: setEmitterState: pause\n", "LogBackend: setSourceState: pause\n",
            "LogBackend: setSourceParam\n", "LogBackend: setSourceData\n",
            "LogBackend: setListenerTransform(3.000000, 0.000000, 0.000000)\n",
            "LogBackend: setListenerTransform(3.000000, 0.000000, 0.000000)\n",
            "LogBackend: setEnabled\n", "LogBackend: setEmitterConnection\n",
            "LogBackend: destroyEmitter\n", "LogBackend: destroySource\n",
            "LogBackend: resetBackend\n", "LogBackend: delete backend\n"));
    EXPECT_EQ(log.messages.front().file, "Kelo/LogBackend");
    EXPECT_STREQ(log.messages.front().function, "LogBackend");
}

TEST(LogBackend, StateNamesFromTheirValue) {
    EXPECT_STREQ(Kelo::LogBackend::stateName(0), "unknown");
    EXPECT_STREQ(Kelo::LogBackend::stateName(1), "play");
    EXPECT_STREQ(Kelo::LogBackend::stateName(2), "pause");
    EXPECT_STREQ(Kelo::LogBackend::stateName(3), "stop");
    EXPECT_STREQ(Kelo::LogBackend::stateName(4), "unknown");
    EXPECT_STREQ(Kelo::LogBackend::stateName(-1), "unknown");

    Kelo::World world;
    Kelo::Emitter* e = world.createEmitter();
    LogCapture log;
    Kelo::LogBackend backend(world, "");
    e->setState(WorldPart::STOP);
    e->setState(static_cast<WorldPart::State>(4));
    EXPECT_THAT(log.texts(),
                ElementsAre("LogBackend: create backend\n", "LogBackend: setEmitterState: stop\n",
                            "LogBackend: setEmitterState: unknown\n"));
    log.messages.clear();
    Kelo::LogBackend copy(backend);
    EXPECT_THAT(log.texts(),
                ElementsAre("ERROR: In Backend copy constructor\n", "LogBackend: copy backend\n"));
    world.clearWorld();
}

TEST(SilentBackend, WritesNothingAtAll) {
    LogCapture log(osg::LOG_WARNING);
    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();
    {
        Kelo::World world;
        Kelo::Backend* silent = world.addBackend("silent", "labels=x");
        ASSERT_NE(silent, nullptr);
        Kelo::Source* s = world.createSource();
        Kelo::Emitter* e = world.createEmitter();
        e->setSource(s);
        e->setState(WorldPart::PLAY);
        world.setListenerTransform(osg::Vec3f(1, 2, 3), osg::Quaternion());
        world.update();
        world.resetWorld();
        world.deleteAllBackends();
    }
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "");
    EXPECT_THAT(log.messages, IsEmpty());
}

}  // namespace
