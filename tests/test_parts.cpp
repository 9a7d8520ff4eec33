// Sources and emitters: data, parameters, connections, the shared play state, destruction.
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

struct PartsTest : ::testing::Test {
    PartsTest() : backend(new RecordingBackend(world)) {}
    ~PartsTest() override {
        world.clearWorld();
        world.deleteAllBackends();
    }
    Kelo::World world;
    RecordingBackend* backend;
};

TEST_F(PartsTest, NewPartsHaveTheirInitialValues) {
    Kelo::Source* s = world.createSource();
    EXPECT_EQ(s->state(), WorldPart::NONE);
    EXPECT_EQ(s->dataType(), Kelo::Source::NONE_SD);
    EXPECT_FLOAT_EQ(s->pitch(), 1.0f);
    EXPECT_FALSE(s->loop());
    EXPECT_FLOAT_EQ(s->duration(), 0.0f);
    EXPECT_EQ(s->url(), nullptr);

    Kelo::Emitter* e = world.createEmitter({"a", "b"});
    EXPECT_EQ(e->state(), WorldPart::NONE);
    EXPECT_EQ(e->position(), osg::Vec3f(0, 0, 0));
    EXPECT_EQ(e->rotation(), osg::Quaternion(0, 0, 0, 1));
    EXPECT_FLOAT_EQ(e->maxBack(), 10.0f);
    EXPECT_FLOAT_EQ(e->maxFront(), 10.0f);
    EXPECT_FLOAT_EQ(e->minBack(), 0.0f);
    EXPECT_FLOAT_EQ(e->minFront(), 0.0f);
    EXPECT_FLOAT_EQ(e->gain(), 1.0f);
    EXPECT_TRUE(e->spatialize());
    EXPECT_EQ(e->source(), nullptr);
    EXPECT_THAT(e->labels(), ElementsAre("a", "b"));
}

TEST_F(PartsTest, SetDataCopiesTheBufferAndTracesOnStandardError) {
    Kelo::Source* s = world.createSource();
    unsigned char buffer[4] = {1, 2, 3, 4};
    ::testing::internal::CaptureStderr();
    s->setData(8000, 8, 1, buffer, sizeof buffer);
    EXPECT_EQ(::testing::internal::GetCapturedStderr(), "Source::setData call\n");
    buffer[0] = 99;
    EXPECT_THAT(s->data(), ElementsAre(1, 2, 3, 4));
    EXPECT_EQ(s->dataType(), Kelo::Source::PCM_SD);
    EXPECT_EQ(s->frequency(), 8000u);
    EXPECT_EQ(s->bits(), 8u);
    EXPECT_EQ(s->channels(), 1u);
    EXPECT_THAT(backend->calls, ElementsAre("createSource(1)", "setSourceData(1)"));
}

TEST_F(PartsTest, SetDataWithoutDataClearsTheFormatAndStillNotifies) {
    Kelo::Source* s = world.createSource();
    const unsigned char buffer[2] = {7, 7};
    s->setData(44100, 16, 2, buffer, 2);
    LogCapture log;
    ::testing::internal::CaptureStderr();
    s->setData(44100, 16, 2, buffer, 0);
    s->setData(44100, 16, 2, nullptr, 2);
    ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(s->frequency(), 0u);
    EXPECT_EQ(s->bits(), 0u);
    EXPECT_EQ(s->channels(), 0u);
    EXPECT_THAT(s->data(), IsEmpty());
    EXPECT_THAT(log.texts(osg::LOG_LOG), ElementsAre("Invalid data in Kelo::Source::setData()\n",
                                                     "Invalid data in Kelo::Source::setData()\n"));
    EXPECT_EQ(backend->calls.size(), 4u);
}

TEST_F(PartsTest, UrlDataResolvesRelativeTextAndKeepsPcmFields) {
    Kelo::Source* s = world.createSource();
    const unsigned char buffer[2] = {1, 2};
    ::testing::internal::CaptureStderr();
    s->setData(8000, 8, 1, buffer, 2);
    ::testing::internal::GetCapturedStderr();
    s->setDataFromURL("sounds/beep.wav");
    ASSERT_NE(s->url(), nullptr);
    EXPECT_EQ(s->url()->toString(), Lirra::URLFile::_cwd.toString() + "sounds/beep.wav");
    EXPECT_EQ(s->dataType(), Kelo::Source::URL_SD);
    EXPECT_EQ(s->frequency(), 8000u);
    EXPECT_EQ(s->data().size(), 2u);

    backend->calls.clear();
    EXPECT_THROW(
        {
            try {
                s->setDataFromURL("");
            } catch (const Lirra::URLImpl::Exception& e) {
                EXPECT_STREQ(e.what(), "Cannot parse URL");
                throw;
            }
        },
        Lirra::URLImpl::Exception);
    EXPECT_EQ(s->url(), nullptr);
    EXPECT_EQ(s->dataType(), Kelo::Source::URL_SD);
    EXPECT_THAT(backend->calls, IsEmpty());
}

TEST_F(PartsTest, ParamsHullAndTransformStoreWhatTheyAreGiven) {
    Kelo::Source* s = world.createSource();
    Kelo::Emitter* e = world.createEmitter();
    backend->calls.clear();
    s->setParam(true, 0.5f);
    s->setParam(true, 0.5f);  // unchanged, notifies all the same
    e->setHull(1, 2, 3, 4);
    e->setHull(1, 2, 3, 4);
    e->setParam(false, 0.5f, 0.8f);
    EXPECT_TRUE(s->loop());
    EXPECT_FLOAT_EQ(s->pitch(), 0.5f);
    EXPECT_FLOAT_EQ(e->maxBack(), 1);
    EXPECT_FLOAT_EQ(e->maxFront(), 2);
    EXPECT_FLOAT_EQ(e->minBack(), 3);
    EXPECT_FLOAT_EQ(e->minFront(), 4);
    EXPECT_FALSE(e->spatialize());
    EXPECT_FLOAT_EQ(e->extraParam(), 0.5f);
    EXPECT_FLOAT_EQ(e->gain(), 0.8f);
    EXPECT_THAT(backend->calls,
                ElementsAre("setSourceParam(1)", "setSourceParam(1)", "setEmitterHull(2)",
                            "setEmitterHull(2)", "setEmitterParam(2)"));

    backend->calls.clear();
    e->setTransform(nullptr, nullptr);
    const osg::Vec3f near(0, 5e-7f, 0), far(0, 0, 2e-6f);
    const osg::Quaternion turned(0, 1, 0, 0);
    e->setTransform(&near, nullptr);
    EXPECT_THAT(backend->calls, IsEmpty());
    EXPECT_EQ(e->position(), osg::Vec3f(0, 0, 0));
    e->setTransform(&far, nullptr);
    e->setTransform(nullptr, &turned);
    e->setTransform(&far, &turned);
    EXPECT_THAT(backend->calls, ElementsAre("setEmitterTransform(2)", "setEmitterTransform(2)"));
    EXPECT_EQ(e->position(), far);
    EXPECT_EQ(e->rotation(), turned);
}

TEST_F(PartsTest, ConnectingMovesTheEmitterBetweenSourceMaps) {
    Kelo::Source* a = world.createSource();
    Kelo::Source* b = world.createSource();
    Kelo::Emitter* e = world.createEmitter();
    a->setState(WorldPart::PLAY);
    backend->calls.clear();
    e->setSource(a);
    e->setSource(a);
    EXPECT_EQ(e->state(), WorldPart::NONE);  // connecting does not touch the state
    e->setSource(b);
    EXPECT_THAT(a->emitters(), IsEmpty());
    ASSERT_EQ(b->emitters().count(e->id()), 1u);
    EXPECT_EQ(b->emitters().at(e->id()), e);
    e->setSource(nullptr);
    EXPECT_THAT(b->emitters(), IsEmpty());
    EXPECT_THAT(backend->calls, ElementsAre("setEmitterConnection(3)", "setEmitterConnection(3)",
                                            "setEmitterConnection(3)"));
}

TEST_F(PartsTest, SourceStatePassesToEveryConnectedEmitterOnce) {
    Kelo::Source* s = world.createSource();
    Kelo::Emitter* first = world.createEmitter();
    Kelo::Emitter* second = world.createEmitter();
    second->setSource(s);
    first->setSource(s);
    backend->calls.clear();
    s->setState(WorldPart::PLAY);
    EXPECT_THAT(backend->calls,
                ElementsAre("setSourceState(1)", "setEmitterState(2)", "setEmitterState(3)"));
    EXPECT_EQ(first->state(), WorldPart::PLAY);
    EXPECT_EQ(second->state(), WorldPart::PLAY);
    EXPECT_EQ(s->lastState(), WorldPart::NONE);
    backend->calls.clear();
    s->setState(WorldPart::PLAY);
    EXPECT_THAT(backend->calls, IsEmpty());
}

TEST_F(PartsTest, EmitterStatePassesThroughItsSourceToTheOthers) {
    Kelo::Source* s = world.createSource();
    Kelo::Emitter* first = world.createEmitter();
    Kelo::Emitter* second = world.createEmitter();
    Kelo::Emitter* alone = world.createEmitter();
    first->setSource(s);
    second->setSource(s);
    backend->calls.clear();
    first->setState(WorldPart::PAUSE);
    alone->setState(WorldPart::STOP);
    EXPECT_THAT(backend->calls, ElementsAre("setEmitterState(2)", "setSourceState(1)",
                                            "setEmitterState(3)", "setEmitterState(4)"));
    EXPECT_EQ(s->state(), WorldPart::PAUSE);
    EXPECT_EQ(second->state(), WorldPart::PAUSE);
    EXPECT_EQ(second->lastState(), WorldPart::NONE);
}

TEST_F(PartsTest, DestructionOrderDiffersForSourcesAndEmitters) {
    Kelo::Source* s = world.createSource();
    Kelo::Emitter* connected = world.createEmitter();
    Kelo::Emitter* loose = world.createEmitter();
    connected->setSource(s);
    backend->calls.clear();

    delete s;  // the backends learn of the deletion first, then of the disconnection
    EXPECT_THAT(backend->calls, ElementsAre("destroySource(1)", "setEmitterConnection(2)"));
    EXPECT_EQ(connected->source(), nullptr);
    EXPECT_EQ(world.getSource(1), nullptr);
    EXPECT_EQ(world.getEmitter(2), connected);

    Kelo::Source* t = world.createSource();
    connected->setSource(t);
    backend->calls.clear();
    delete connected;  // disconnection first, then the deletion
    delete loose;
    EXPECT_THAT(backend->calls,
                ElementsAre("setEmitterConnection(2)", "destroyEmitter(2)", "destroyEmitter(3)"));
    EXPECT_THAT(t->emitters(), IsEmpty());
    EXPECT_THAT(world.emitters(), IsEmpty());
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
    EXPECT_EQ(copy.state(), WorldPart::NONE);
    EXPECT_THAT(log.texts(osg::LOG_FATAL), ElementsAre("Runing WorldPart copy constructor\n"));
}

}  // namespace
