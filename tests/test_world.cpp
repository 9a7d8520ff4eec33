// The world: ids, listener tolerance, switches, fan-out order, replay, clear and reset.
#include <climits>
#include <cmath>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <Kelo/Emitter.h>
#include <Kelo/Source.h>
#include <Kelo/World.h>

#include "support.h"

using Kelo::WorldPart;
using KeloTest::LogCapture;
using KeloTest::RecordingBackend;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

struct WorldTest : ::testing::Test {
    ~WorldTest() override {
        world.clearWorld();
        world.deleteAllBackends();
    }
    std::vector<std::string> journal;  // outlives the backends that write to it
    Kelo::World world;
};

TEST_F(WorldTest, IdsComeFromOneCounterSharedBySourcesAndEmitters) {
    EXPECT_EQ(world.createSource()->id(), 1);
    EXPECT_EQ(world.createEmitter()->id(), 2);
    EXPECT_EQ(world.createSource(10)->id(), 10);
    EXPECT_EQ(world.createEmitter({}, 0)->id(), 11);
    // An explicit id below the counter leaves the counter alone.
    EXPECT_EQ(world.createEmitter({}, 4)->id(), 4);
    EXPECT_EQ(world.createSource()->id(), 12);
    // A free negative id is accepted and leaves the counter unchanged.
    EXPECT_EQ(world.createSource(-3)->id(), -3);
    EXPECT_EQ(world.lastId(), 12);
}

TEST_F(WorldTest, IdClashesAreRefusedPerKindWithTheirMessages) {
    RecordingBackend* backend = new RecordingBackend(world);
    ASSERT_NE(world.createSource(5), nullptr);
    LogCapture log;
    EXPECT_EQ(world.createSource(5), nullptr);
    // Ids are checked only against the kind being created.
    Kelo::Emitter* emitter = world.createEmitter({}, 5);
    ASSERT_NE(emitter, nullptr);
    EXPECT_EQ(world.createEmitter({}, 5), nullptr);
    EXPECT_THAT(log.texts(osg::LOG_FATAL),
                ElementsAre("There is already a source with the ID 5\n",
                            "There is already a Kelo emitter with the ID 5"));
    EXPECT_EQ(log.messages[0].file, "Kelo/World");
    EXPECT_EQ(log.messages[0].module, std::string("Kelo"));
    EXPECT_THAT(backend->calls, ElementsAre("createSource(5)", "createEmitter(5)"));
    EXPECT_EQ(world.sources().size(), 1u);
    EXPECT_EQ(world.emitters().size(), 1u);
}

TEST_F(WorldTest, AutomaticIdsWrapToZeroAndRefuseSilently) {
    RecordingBackend* backend = new RecordingBackend(world);
    ASSERT_NE(world.createSource(INT_MAX), nullptr);
    LogCapture log;
    EXPECT_EQ(world.createSource()->id(), INT_MIN);
    // After the wrap, an explicit -1 is above the counter and moves it there.
    ASSERT_NE(world.createEmitter({}, -1), nullptr);
    EXPECT_EQ(world.lastId(), -1);
    backend->calls.clear();
    EXPECT_EQ(world.createSource(), nullptr);
    EXPECT_EQ(world.lastId(), 0);
    EXPECT_THAT(backend->calls, IsEmpty());
    EXPECT_THAT(log.messages, IsEmpty());
    EXPECT_EQ(world.createEmitter()->id(), 1);
}

TEST_F(WorldTest, ListenerMovesOnlyBeyondTolerance) {
    RecordingBackend* a = new RecordingBackend(world);
    RecordingBackend* b = new RecordingBackend(world);
    world.setListenerTransform(osg::Vec3f(5e-7f, 0, 0), osg::Quaternion());
    EXPECT_THAT(a->calls, IsEmpty());
    world.setListenerTransform(osg::Vec3f(0, 2e-6f, 0), osg::Quaternion());
    EXPECT_THAT(a->calls, ElementsAre("setListenerTransform"));
    EXPECT_THAT(b->calls, ElementsAre("setListenerTransform"));
    EXPECT_FLOAT_EQ(world.listenerPosition().y(), 2e-6f);
    // A pure rotation notifies too; a NaN never compares equal.
    world.setListenerTransform(world.listenerPosition(), osg::Quaternion(0, 1, 0, 0));
    world.setListenerTransform(osg::Vec3f(NAN, 0, 0), world.listenerRotation());
    world.setListenerTransform(world.listenerPosition(), world.listenerRotation());
    EXPECT_EQ(a->calls.size(), 4u);
    EXPECT_FLOAT_EQ(world.listenerRotation().y(), 1.0f);
}

TEST_F(WorldTest, SwitchesEnabledAlwaysNotifiesSpatializeNever) {
    RecordingBackend* backend = new RecordingBackend(world);
    world.setEnabled(true);
    world.setSpatialize(false);
    world.setEnabled(false);
    EXPECT_THAT(backend->calls, ElementsAre("setEnabled", "setEnabled"));
    EXPECT_FALSE(world.enabled());
    EXPECT_FALSE(world.spatialize());
}

TEST_F(WorldTest, NotificationsReachEveryBackendInCreationOrder) {
    new RecordingBackend(world, "", &journal, "A.");
    new RecordingBackend(world, "", &journal, "B.");
    Kelo::Source* s = world.createSource();
    Kelo::Emitter* e = world.createEmitter();
    e->setHull(1, 2, 3, 4);
    s->setParam(true, 2.0f);
    EXPECT_THAT(journal,
                ElementsAre("A.createSource(1)", "B.createSource(1)", "A.createEmitter(2)",
                            "B.createEmitter(2)", "A.setEmitterHull(2)", "B.setEmitterHull(2)",
                            "A.setSourceParam(1)", "B.setSourceParam(1)"));
}

TEST_F(WorldTest, LateBackendGetsTheReplayAndOthersNothing) {
    RecordingBackend* early = new RecordingBackend(world);
    Kelo::Source* first = world.createSource();
    world.createSource();
    Kelo::Emitter* e = world.createEmitter();
    e->setSource(first);
    early->calls.clear();

    Kelo::Backend* late = world.addBackend("record", "");
    ASSERT_NE(late, nullptr);
    EXPECT_THAT(
        static_cast<RecordingBackend*>(late)->calls,
        ElementsAre("setEnabled", "setListenerTransform", "createSource(1)", "setSourceData(1)",
                    "setSourceParam(1)", "setSourceState(1)", "createSource(2)", "setSourceData(2)",
                    "setSourceParam(2)", "setSourceState(2)", "createEmitter(3)",
                    "setEmitterTransform(3)", "setEmitterHull(3)", "setEmitterParam(3)",
                    "setEmitterConnection(3)", "setEmitterState(3)"));
    EXPECT_THAT(early->calls, IsEmpty());
    EXPECT_EQ(world.backends().back(), late);
}

TEST_F(WorldTest, ResetClearsEmittersFirstThenSourcesThenResetsBackends) {
    new RecordingBackend(world, "", &journal, "A.");
    new RecordingBackend(world, "", &journal, "B.");
    Kelo::Source* s = world.createSource();
    Kelo::Emitter* e = world.createEmitter();
    Kelo::Emitter* loose = world.createEmitter();
    (void)loose;
    e->setSource(s);
    journal.clear();

    world.resetWorld();
    EXPECT_THAT(journal,
                ElementsAre("A.setEmitterConnection(2)", "B.setEmitterConnection(2)",
                            "A.destroyEmitter(2)", "B.destroyEmitter(2)", "A.destroyEmitter(3)",
                            "B.destroyEmitter(3)", "A.destroySource(1)", "B.destroySource(1)",
                            "A.resetBackend", "B.resetBackend"));
    EXPECT_THAT(world.emitters(), IsEmpty());
    EXPECT_THAT(world.sources(), IsEmpty());
    EXPECT_EQ(world.lastId(), 3);
    EXPECT_EQ(world.createSource()->id(), 4);
}

// A subclass's overrides take effect inside the world's own algorithms.
struct CountingWorld : Kelo::World {
    ~CountingWorld() override { clearWorld(); }
    void clearWorld() override {
        ++clears;
        World::clearWorld();
    }
    Kelo::Source* getSource(int id) const override {
        ++lookups;
        return World::getSource(id);
    }
    int clears = 0;
    mutable int lookups = 0;
};

TEST(WorldOverride, ResetAndClashChecksGoThroughVirtualCalls) {
    CountingWorld world;
    world.createSource(7);
    world.createSource(7);
    EXPECT_EQ(world.lookups, 2);
    world.reset();
    EXPECT_EQ(world.clears, 1);
}

TEST(WorldLifecycle, UpdatePrintAndBackendDeletion) {
    Kelo::World world;
    EXPECT_TRUE(world.update());  // no backends
    RecordingBackend* backend = new RecordingBackend(world);
    EXPECT_TRUE(world.update());  // the backend's false is ignored
    EXPECT_EQ(backend->updates, 1);

    LogCapture log;
    world.createSource();
    world.print();
    EXPECT_THAT(log.texts(), ElementsAre("Kelo Emitter/Source/Backend count: 0/1/1\n"));
    EXPECT_EQ(log.messages[0].level, osg::LOG_LOG);

    bool deleted = false;
    backend->deleted = &deleted;
    world.deleteAllBackends();
    EXPECT_TRUE(deleted);
    EXPECT_THAT(world.backends(), IsEmpty());
    world.clearWorld();
}

TEST(WorldLifecycle, DestroyedWithPartsLeftComplainsAndDeletesNothing) {
    LogCapture log;
    Kelo::Emitter* left = nullptr;
    {
        Kelo::World world;
        left = world.createEmitter();
    }
    EXPECT_THAT(log.texts(osg::LOG_FATAL),
                ElementsAre("clearWorld() should be called in derived World dest.\n"));
    // The emitter outlived its world; its destructor would reach the dead world, so only
    // its storage is released (it holds no other memory).
    ::operator delete(static_cast<void*>(left));
}

TEST(WorldLifecycle, CopyBuildsAnEmptyWorldAndWarns) {
    Kelo::World world;
    world.createSource();
    world.setEnabled(false);
    LogCapture log;
    Kelo::World copy(world);
    EXPECT_THAT(log.texts(osg::LOG_WARNING), ElementsAre("In World copy constructor\n"));
    EXPECT_THAT(copy.sources(), IsEmpty());
    EXPECT_TRUE(copy.enabled());
    EXPECT_EQ(copy.lastId(), 0);
    world.clearWorld();
}

}  // namespace
