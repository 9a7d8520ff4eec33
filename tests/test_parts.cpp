// Sources and emitters: data, parameters, connections, the shared play state, destruction.
#include "support.h"

using namespace KeloTest;
using Kelo::WorldPart;

struct PartsTest : ::testing::Test {
    Scene world;
    RecordingBackend* backend = new RecordingBackend(world);
    Kelo::Source* s = world.createSource();
    // Data type, rate, bits, channels.
    std::vector<unsigned> format() const {
        return {static_cast<unsigned>(s->dataType()), s->frequency(), s->bits(), s->channels()};
    }
};

TEST_F(PartsTest, SourceDataIsCopiedClearedWhenInvalidOrNamedByAUrl) {
    unsigned char buffer[4] = {1, 2, 3, 4};
    EXPECT_EQ(stderrOf([&] { s->setData(8000, 8, 1, buffer, sizeof buffer); }),
              "Source::setData call\n");
    buffer[0] = 99;
    EXPECT_THAT(s->data(), ElementsAre(1, 2, 3, 4));
    EXPECT_THAT(format(), ElementsAre(Kelo::Source::PCM_SD, 8000, 8, 1));

    // Without data the format is cleared, and the backends hear of it all the same.
    LogCapture log;
    setPcm(*s, {}, 44100, 16, 2);
    stderrOf([&] { s->setData(44100, 16, 2, nullptr, 2); });
    EXPECT_THAT(format(), ElementsAre(Kelo::Source::PCM_SD, 0, 0, 0));
    EXPECT_THAT(s->data(), IsEmpty());
    EXPECT_THAT(log.texts(osg::LOG_LOG), ElementsAre("Invalid data in Kelo::Source::setData()\n",
                                                     "Invalid data in Kelo::Source::setData()\n"));

    // A URL keeps the PCM fields; text that is no URL leaves none and notifies nobody.
    setPcm(*s, {1, 2}, 8000, 8, 1);
    s->setDataFromURL("sounds/beep.wav");
    ASSERT_NE(s->url(), nullptr);
    EXPECT_EQ(s->url()->toString(), Lirra::URLFile::_cwd.toString() + "sounds/beep.wav");
    EXPECT_THAT(format(), ElementsAre(Kelo::Source::URL_SD, 8000, 8, 1));
    EXPECT_EQ(backend->take(),
              "createSource(1) setSourceData(1) setSourceData(1) "
              "setSourceData(1) setSourceData(1) setSourceData(1)");
    EXPECT_EQ(errorOf<Lirra::URLImpl::Exception>([&] { s->setDataFromURL(""); }),
              "Cannot parse URL");
    EXPECT_EQ(s->url(), nullptr);
    EXPECT_EQ(s->dataType(), Kelo::Source::URL_SD);
    EXPECT_EQ(backend->take(), "");
}

TEST_F(PartsTest, ParamsAndHullAlwaysNotifyTransformsOnlyBeyondTolerance) {
    Kelo::Emitter* e = world.createEmitter({"a", "b"});
    backend->take();
    s->setParam(true, 0.5f);
    s->setParam(true, 0.5f);
    e->setHull(1, 2, 3, 4);
    e->setHull(1, 2, 3, 4);
    e->setParam(false, 0.5f, 0.8f);
    EXPECT_EQ(backend->take(),
              "setSourceParam(1) setSourceParam(1) setEmitterHull(2) "
              "setEmitterHull(2) setEmitterParam(2)");
    EXPECT_EQ(std::make_tuple(s->loop(), s->pitch(), e->spatialize()),
              std::make_tuple(true, 0.5f, false));
    EXPECT_THAT(std::vector<float>({e->maxBack(), e->maxFront(), e->minBack(), e->minFront(),
                                    e->extraParam(), e->gain()}),
                ElementsAre(1, 2, 3, 4, 0.5f, 0.8f));
    EXPECT_THAT(e->labels(), ElementsAre("a", "b"));

    const osg::Vec3f near(0, 5e-7f, 0), far(0, 0, 2e-6f);
    const osg::Quaternion turned(0, 1, 0, 0);
    e->setTransform(nullptr, nullptr);
    e->setTransform(&near, nullptr);
    EXPECT_EQ(backend->take(), "");
    EXPECT_EQ(e->position(), osg::Vec3f(0, 0, 0));
    e->setTransform(&far, nullptr);
    e->setTransform(nullptr, &turned);
    e->setTransform(&far, &turned);
    EXPECT_EQ(backend->take(), "setEmitterTransform(2) setEmitterTransform(2)");
    EXPECT_EQ(e->position(), far);
    EXPECT_EQ(e->rotation(), turned);
}

TEST_F(PartsTest, ConnectionsMoveEmittersBetweenSourcesWhichShareThePlayStateOnce) {
    Kelo::Source* b = world.createSource();
    Kelo::Emitter* first = world.createEmitter();
    Kelo::Emitter* second = world.createEmitter();
    Kelo::Emitter* alone = world.createEmitter();
    b->setState(WorldPart::PLAY);
    backend->take();
    first->setSource(b);
    first->setSource(b);
    EXPECT_EQ(first->state(), WorldPart::NONE);  // connecting leaves the state alone
    second->setSource(s);
    first->setSource(s);
    EXPECT_THAT(b->emitters(), IsEmpty());
    EXPECT_THAT(s->emitters(), ElementsAre(std::make_pair(3, first), std::make_pair(4, second)));
    // The same source again is no change.
    EXPECT_EQ(backend->take(),
              "setEmitterConnection(3) setEmitterConnection(4) setEmitterConnection(3)");

    s->setState(WorldPart::PLAY);
    s->setState(WorldPart::PLAY);
    EXPECT_EQ(backend->take(), "setSourceState(1) setEmitterState(3) setEmitterState(4)");
    EXPECT_EQ(std::make_tuple(first->state(), second->state(), s->lastState()),
              std::make_tuple(WorldPart::PLAY, WorldPart::PLAY, WorldPart::NONE));
    first->setState(WorldPart::PAUSE);
    alone->setState(WorldPart::STOP);
    EXPECT_EQ(backend->take(),
              "setEmitterState(3) setSourceState(1) setEmitterState(4) setEmitterState(5)");
    EXPECT_EQ(std::make_tuple(s->state(), second->state(), second->lastState()),
              std::make_tuple(WorldPart::PAUSE, WorldPart::PAUSE, WorldPart::PLAY));
    first->setSource(nullptr);
    EXPECT_THAT(s->emitters(), ElementsAre(std::make_pair(4, second)));
    EXPECT_EQ(backend->take(), "setEmitterConnection(3)");
}

TEST_F(PartsTest, DestructionOrderDiffersForSourcesAndEmitters) {
    Kelo::Emitter* connected = world.createEmitter();
    Kelo::Emitter* loose = world.createEmitter();
    connected->setSource(s);
    backend->take();
    delete s;  // the backends learn of the deletion first, then of the disconnection
    EXPECT_EQ(backend->take(), "destroySource(1) setEmitterConnection(2)");
    EXPECT_EQ(connected->source(), nullptr);
    EXPECT_EQ(world.getSource(1), nullptr);

    Kelo::Source* t = world.createSource();
    connected->setSource(t);
    backend->take();
    delete connected;  // disconnection first, then the deletion
    delete loose;
    EXPECT_EQ(backend->take(), "setEmitterConnection(2) destroyEmitter(2) destroyEmitter(3)");
    EXPECT_TRUE(t->emitters().empty() && world.emitters().empty());
}

// A part whose copy is allowed only to complain; parts are never meant to be copied.
struct Probe : WorldPart {
    Probe(Kelo::World& world, int id) : WorldPart(world, id) {}
    Probe(const Probe& other) : WorldPart(other) {}
    void setState(State) override {}
};

TEST(WorldPartCopy, KeepsTheWorldDropsTheIdAndComplains) {
    Kelo::World world;
    Probe original(world, 9);
    LogCapture log;
    Probe copy(original);
    EXPECT_EQ(&copy.world(), &world);
    EXPECT_EQ(copy.id(), -1);
    EXPECT_THAT(log.texts(osg::LOG_FATAL), ElementsAre("Runing WorldPart copy constructor\n"));
}
