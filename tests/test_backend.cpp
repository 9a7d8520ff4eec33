// The backend base: parameters, labels, label matching, duration reports, list membership.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <Kelo/Emitter.h>
#include <Kelo/Source.h>
#include <Kelo/World.h>

#include "support.h"

using KeloTest::LogCapture;
using KeloTest::RecordingBackend;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

std::vector<std::string> labelsOf(const char* params) {
    Kelo::World world;
    RecordingBackend backend(world, params);
    return backend.labels();
}

TEST(BackendLabels, SplitOnCommasTrimmedEmptyPiecesSkipped) {
    EXPECT_THAT(labelsOf("labels=front,rear"), ElementsAre("front", "rear"));
    EXPECT_THAT(labelsOf("labels=a,,b"), ElementsAre("a", "b"));
    EXPECT_THAT(labelsOf("labels=\"  a , b \""), ElementsAre("a", "b"));
    EXPECT_THAT(labelsOf("labels=a,b,"), ElementsAre("a", "b"));
    EXPECT_THAT(labelsOf("labels=\"x y\""), ElementsAre("x y"));
    EXPECT_THAT(labelsOf("labels=\"left wall, right wall\" transferData=false"),
                ElementsAre("left wall", "right wall"));
    EXPECT_THAT(labelsOf("labels=\" ,\t, \""), IsEmpty());
    EXPECT_THAT(labelsOf(""), IsEmpty());
    EXPECT_THAT(labelsOf(nullptr), IsEmpty());
    EXPECT_THAT(labelsOf("other=1"), IsEmpty());
}

TEST(BackendLabels, MatchNeedsOneSharedExactLabelUnlessEitherSideHasNone) {
    Kelo::World world;
    RecordingBackend labelled(world, "labels=front,rear");
    RecordingBackend open(world, "");
    Kelo::Emitter* rear = world.createEmitter({"side", "rear"});
    Kelo::Emitter* side = world.createEmitter({"side"});
    Kelo::Emitter* plain = world.createEmitter();
    Kelo::Emitter* upper = world.createEmitter({"Rear"});
    Kelo::Emitter* padded = world.createEmitter({"rear "});
    EXPECT_TRUE(labelled.hasSameLabel(*rear));
    EXPECT_FALSE(labelled.hasSameLabel(*side));
    EXPECT_TRUE(labelled.hasSameLabel(*plain));
    EXPECT_FALSE(labelled.hasSameLabel(*upper));
    EXPECT_FALSE(labelled.hasSameLabel(*padded));
    EXPECT_TRUE(open.hasSameLabel(*side));
    world.clearWorld();
}

TEST(BackendParams, MalformedTextComplainsOnStandardErrorAndKeepsWhatParsed) {
    Kelo::World world;
    ::testing::internal::CaptureStderr();
    RecordingBackend backend(world, "labels=front volume=\"loud");
    EXPECT_EQ(::testing::internal::GetCapturedStderr(),
              "ERROR: Backend: Cannot parse parameters\n");
    EXPECT_THAT(backend.labels(), ElementsAre("front"));
    EXPECT_EQ(backend.params().getParam("volume", nullptr), nullptr);
    // It still works: it is in the world's list and receives notifications.
    world.createSource();
    EXPECT_THAT(backend.calls, ElementsAre("createSource(1)"));
    EXPECT_TRUE(backend.enabled());
    world.clearWorld();
}

// Sees the duration notification that plain backends have no operation for.
struct DurationWorld : Kelo::World {
    void setSourceDuration(Kelo::Source& source) override { reports.push_back(source.id()); }
    std::vector<int> reports;
};

TEST(BackendDuration, StoredOnTheSourceAndReportedToTheWorldOnce) {
    DurationWorld world;
    RecordingBackend backend(world);
    Kelo::Source* s = world.createSource();
    backend.calls.clear();
    backend.setSourceDuration(*s, 2.5f);
    EXPECT_FLOAT_EQ(s->duration(), 2.5f);
    EXPECT_THAT(world.reports, ElementsAre(1));
    EXPECT_THAT(backend.calls, IsEmpty());  // backends hear nothing of it
    world.clearWorld();
}

TEST(BackendList, DeletedBackendLeavesTheWorldCopiesNeverEnter) {
    Kelo::World world;
    auto* first = new RecordingBackend(world);
    auto* second = new RecordingBackend(world);
    EXPECT_THAT(world.backends(), ElementsAre(first, second));
    delete first;
    EXPECT_THAT(world.backends(), ElementsAre(second));
    world.update();
    EXPECT_EQ(second->updates, 1);

    LogCapture log;
    struct Copyable : RecordingBackend {
        using RecordingBackend::RecordingBackend;
        Copyable(const Copyable& other) : RecordingBackend(other) {}
    };
    Copyable original(world, "labels=a");
    Copyable copy(original);
    EXPECT_THAT(log.texts(osg::LOG_FATAL), ElementsAre("ERROR: In Backend copy constructor\n"));
    EXPECT_THAT(copy.labels(), IsEmpty());
    EXPECT_THAT(world.backends(), ElementsAre(second, &original));  // not the copy
    delete second;
}

}  // namespace
