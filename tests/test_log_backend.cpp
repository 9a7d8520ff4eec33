// The log and silent backends: the exact trace of every notification, or nothing at all.
#include <Kelo/LogBackend.h>

#include "support.h"

using namespace KeloTest;
using Kelo::WorldPart;

TEST(LogAndSilentBackends, TraceEveryNotificationWithItsValuesOrSayNothing) {
    LogCapture log(osg::LOG_WARNING);
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(stderrOf([] {
                  Scene world;
                  world.addBackend("log", "");
                  world.addBackend("silent", "labels=x");
                  Kelo::Source* s = world.createSource();
                  Kelo::Emitter* e = world.createEmitter();
                  const osg::Vec3f p(1.5f, -2, 0.25f);
                  e->setTransform(&p, nullptr);
                  e->setHull(1, 2, 3, 4);
                  e->setParam(true, 0, 1);
                  e->setSource(s);
                  e->setState(WorldPart::PAUSE);
                  s->setParam(false, 1);
                  s->setData(8000, 8, 1, nullptr, 0);
                  // A pure rotation prints the unchanged position.
                  world.setListenerTransform(osg::Vec3f(3, 0, 0), osg::Quaternion());
                  world.setListenerTransform(osg::Vec3f(3, 0, 0), osg::Quaternion(0, 1, 0, 0));
                  e->setState(WorldPart::STOP);
                  e->setState(static_cast<WorldPart::State>(4));
                  world.setEnabled(false);
                  world.update();
                  world.resetWorld();
              }),
              "Source::setData call\n");
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(log.text(),
              "LogBackend: create backend\nLogBackend: setEnabled\n"
              "LogBackend: setListenerTransform(0.000000, 0.000000, 0.000000)\n"
              "LogBackend: createSource\nLogBackend: createEmitter\n"
              "LogBackend: setEmitterTransform(1.500000, -2.000000, 0.250000)\n"
              "LogBackend: setEmitterHull(maxBack=1.000000, maxFront=2.000000, minBack=3.000000, "
              "minFront=4.000000)\n"
              "LogBackend: setEmitterParam\nLogBackend: setEmitterConnection\n"
              "LogBackend: setEmitterState: pause\nLogBackend: setSourceState: pause\n"
              "LogBackend: setSourceParam\n"
              "Invalid data in Kelo::Source::setData()\nLogBackend: setSourceData\n"
              "LogBackend: setListenerTransform(3.000000, 0.000000, 0.000000)\n"
              "LogBackend: setListenerTransform(3.000000, 0.000000, 0.000000)\n"
              "LogBackend: setEmitterState: stop\nLogBackend: setSourceState: stop\n"
              "LogBackend: setEmitterState: unknown\nLogBackend: setSourceState: unknown\n"
              "LogBackend: setEnabled\nLogBackend: setEmitterConnection\n"
              "LogBackend: destroyEmitter\nLogBackend: destroySource\n"
              "LogBackend: resetBackend\nLogBackend: delete backend\n");
    EXPECT_EQ(log.texts(osg::LOG_LOG).size(), log.messages.size());
    EXPECT_EQ(log.messages.front().file, "Kelo/LogBackend");
    EXPECT_STREQ(log.messages.front().function, "LogBackend");
}

TEST(LogBackend, StateNamesAndCopy) {
    const char* names[] = {"unknown", "unknown", "play", "pause", "stop", "unknown"};
    for (int state = -1; state <= 4; ++state)
        EXPECT_STREQ(Kelo::LogBackend::stateName(state), names[state + 1]) << state;
    Kelo::World world;
    LogCapture log;
    Kelo::LogBackend backend(world, "labels=a");
    Kelo::LogBackend copy(backend);
    EXPECT_EQ(log.text(),
              "LogBackend: create backend\nERROR: In Backend copy constructor\n"
              "LogBackend: copy backend\n");
    // The copy is neither labelled nor in the world's list.
    EXPECT_THAT(copy.labels(), IsEmpty());
    EXPECT_THAT(world.backends(), ElementsAre(&backend));
}
