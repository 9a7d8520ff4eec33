// The world: ids, listener tolerance, switches, fan-out order, replay, clear and reset.
#include <climits>
#include <cmath>
#include <map>

#include "support.h"

using namespace KeloTest;

TEST(WorldIds, OneCounterForBothKindsClashesPerKindAndWrapThroughNegatives) {
    Scene world;
    auto* backend = new RecordingBackend(world);
    // Explicit ids below the counter, negative ones too, leave it alone. (The elements of a
    // braced list are evaluated in order.)
    EXPECT_THAT(std::vector<int>({world.createSource()->id(), world.createEmitter()->id(),
                                  world.createSource(10)->id(), world.createEmitter({}, 4)->id(),
                                  world.createSource(-3)->id(), world.createEmitter({}, 0)->id()}),
                ElementsAre(1, 2, 10, 4, -3, 11));
    backend->take();
    LogCapture log;
    EXPECT_EQ(world.createSource(10), nullptr);
    world.createEmitter({}, 10);  // ids are checked only within a kind
    EXPECT_EQ(world.createEmitter({}, 4), nullptr);
    EXPECT_EQ(log.text(osg::LOG_FATAL),
              "There is already a source with the ID 10\nThere is already a Kelo emitter with the "
              "ID 4");
    EXPECT_EQ(backend->take(), "createEmitter(10)");

    log.messages.clear();
    world.createSource(INT_MAX);
    EXPECT_EQ(world.createSource()->id(), INT_MIN);
    world.createEmitter({}, -1);               // above the counter after the wrap
    EXPECT_EQ(world.createSource(), nullptr);  // 0 is no id: refused without a word
    EXPECT_EQ(backend->take(),
              "createSource(2147483647) createSource(-2147483648) "
              "createEmitter(-1)");
    EXPECT_TRUE(log.messages.empty());
    EXPECT_EQ(world.createEmitter()->id(), 1);
}

// Look-ups go through a table for the small positive ids and through the maps for the rest:
// both must agree with what the world holds, across the table's page and end boundaries.
TEST(WorldIds, LookUpsFindWhatIsHeldOnBothSidesOfTheIdTable) {
    Scene world;
    const int ids[] = {1, 1023, 1024, 32767, 32768, 70000, -1, INT_MIN};
    std::map<int, std::pair<Kelo::Source*, Kelo::Emitter*>> made;
    for (int id : ids)
        made[id] = {world.createSource(id), world.createEmitter({}, id)};
    for (const auto& [id, parts] : made) {
        EXPECT_EQ(world.getSource(id), parts.first) << id;
        EXPECT_EQ(world.getEmitter(id), parts.second) << id;
    }
    EXPECT_EQ(world.getSource(2), nullptr);
    EXPECT_EQ(world.getEmitter(1025), nullptr);
    EXPECT_EQ(world.getEmitter(32766), nullptr);
    delete made[1024].second;
    delete made[32767].first;
    delete made[-1].second;
    EXPECT_EQ(world.getEmitter(1024), nullptr);
    EXPECT_EQ(world.getSource(1024), made[1024].first);
    EXPECT_EQ(world.getSource(32767), nullptr);
    EXPECT_EQ(world.getEmitter(32767), made[32767].second);
    EXPECT_EQ(world.getEmitter(-1), nullptr);
    world.clearWorld();
    for (int id : ids)
        EXPECT_TRUE(world.getSource(id) == nullptr && world.getEmitter(id) == nullptr) << id;
    EXPECT_EQ(world.createEmitter({}, 1023)->id(), 1023);  // the id is free again
}

TEST(WorldSwitches, ListenerMovesBeyondToleranceEnabledAlwaysNotifiesSpatializeNever) {
    Scene world;
    auto* backend = new RecordingBackend(world);
    const osg::Quaternion turned(0, 1, 0, 0);
    world.setListenerTransform(osg::Vec3f(5e-7f, 0, 0), osg::Quaternion());
    EXPECT_EQ(backend->take(), "");
    world.setListenerTransform(osg::Vec3f(0, 2e-6f, 0), osg::Quaternion());
    // A pure rotation notifies too; a NaN never compares equal.
    world.setListenerTransform(world.listenerPosition(), turned);
    EXPECT_EQ(std::make_pair(world.listenerPosition(), world.listenerRotation()),
              std::make_pair(osg::Vec3f(0, 2e-6f, 0), turned));
    world.setListenerTransform(osg::Vec3f(NAN, 0, 0), turned);
    world.setListenerTransform(world.listenerPosition(), turned);
    world.setEnabled(true);
    world.setSpatialize(false);
    world.setEnabled(false);
    EXPECT_EQ(backend->take(),
              "setListenerTransform setListenerTransform setListenerTransform "
              "setListenerTransform setEnabled setEnabled");
    EXPECT_FALSE(world.enabled() || world.spatialize());
}

TEST(WorldFanOut, EveryBackendInCreationOrderAndResetDeletesEmittersSourcesThenResets) {
    std::string journal;  // outlives the backends that write to it
    Scene world;
    new RecordingBackend(world, "", &journal, "A.");
    new RecordingBackend(world, "", &journal, "B.");
    Kelo::Source* s = world.createSource();
    Kelo::Emitter* e = world.createEmitter();
    world.createEmitter();
    e->setHull(1, 2, 3, 4);
    s->setParam(true, 2.0f);
    e->setSource(s);
    world.resetWorld();
    EXPECT_EQ(journal,
              "A.createSource(1) B.createSource(1) A.createEmitter(2) B.createEmitter(2) "
              "A.createEmitter(3) B.createEmitter(3) A.setEmitterHull(2) B.setEmitterHull(2) "
              "A.setSourceParam(1) B.setSourceParam(1) A.setEmitterConnection(2) "
              "B.setEmitterConnection(2) "  // the reset begins
              "A.setEmitterConnection(2) B.setEmitterConnection(2) A.destroyEmitter(2) "
              "B.destroyEmitter(2) A.destroyEmitter(3) B.destroyEmitter(3) A.destroySource(1) "
              "B.destroySource(1) A.resetBackend B.resetBackend");
    EXPECT_TRUE(world.emitters().empty() && world.sources().empty());
    EXPECT_EQ(world.createSource()->id(), 4);  // the counter survives a reset
}

TEST(WorldFanOut, LateBackendGetsTheReplayAndOthersNothing) {
    Scene world;
    auto* early = new RecordingBackend(world);
    Kelo::Source* first = world.createSource();
    world.createSource();
    world.createEmitter()->setSource(first);
    early->take();
    auto* late = static_cast<RecordingBackend*>(world.addBackend("record", ""));
    ASSERT_EQ(world.backends().back(), late);
    EXPECT_EQ(late->take(),
              "setEnabled setListenerTransform createSource(1) setSourceData(1) setSourceParam(1) "
              "setSourceState(1) createSource(2) setSourceData(2) setSourceParam(2) "
              "setSourceState(2) createEmitter(3) setEmitterTransform(3) setEmitterHull(3) "
              "setEmitterParam(3) setEmitterConnection(3) setEmitterState(3)");
    EXPECT_EQ(early->take(), "");
}

// A subclass's overrides take effect inside the world's own algorithms.
struct CountingWorld : Scene {
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

TEST(WorldLifecycle, UpdatePrintVirtualCallsCopyAndBackendDeletion) {
    CountingWorld world;
    EXPECT_TRUE(world.update());  // no backends
    auto* backend = new RecordingBackend(world);
    EXPECT_TRUE(world.update());  // the backend's false is ignored
    EXPECT_EQ(backend->updates, 1);

    world.createSource(7);
    world.setEnabled(false);
    LogCapture log;
    world.createSource(7);
    world.print();
    Kelo::World copy(world);  // an empty world, not a copy
    EXPECT_THAT(log.texts(), ElementsAre("There is already a source with the ID 7\n",
                                         "Kelo Emitter/Source/Backend count: 0/1/1\n",
                                         "In World copy constructor\n"));
    EXPECT_EQ(std::make_tuple(log.messages[1].level, log.messages[2].level),
              std::make_tuple(osg::LOG_LOG, osg::LOG_WARNING));
    EXPECT_TRUE(copy.sources().empty() && copy.enabled() && copy.lastId() == 0);
    world.reset();
    EXPECT_EQ(std::make_pair(world.lookups, world.clears), std::make_pair(2, 1));

    bool deleted = false;
    backend->deleted = &deleted;
    world.deleteAllBackends();
    EXPECT_TRUE(deleted && world.backends().empty());
}

TEST(WorldLifecycle, DestroyedWithPartsLeftComplainsAndDeletesNothing) {
    LogCapture log;
    auto* world = new Kelo::World;
    Kelo::Emitter* left = world->createEmitter();
    delete world;
    EXPECT_EQ(log.text(osg::LOG_FATAL), "clearWorld() should be called in derived World dest.\n");
    // The emitter outlived its world; its destructor would reach the dead world, so only
    // its storage is released (it holds no other memory).
    ::operator delete(static_cast<void*>(left));
}
