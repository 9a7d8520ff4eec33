// The backend base: parameters, labels, label matching, duration reports, list membership.
#include "support.h"

using namespace KeloTest;

TEST(BackendLabels, SplitOnCommasTrimmedEmptyPiecesSkippedAndMatchedExactly) {
    const std::pair<const char*, std::vector<std::string>> cases[] = {
        {"labels=front,rear", {"front", "rear"}},
        {"labels=a,,b,", {"a", "b"}},
        {"labels=\"  left wall ,\tb \" transferData=false", {"left wall", "b"}},
        {"labels=\" ,\t, \"", {}},
        {"other=1", {}},
        {"", {}},
        {nullptr, {}}};
    Scene world;
    for (const auto& [params, labels] : cases)
        EXPECT_EQ(RecordingBackend(world, params).labels(), labels) << (params ? params : "null");

    // One shared exact label will do, or none on either side.
    RecordingBackend labelled(world, "labels=front,rear"), open(world, "");
    EXPECT_TRUE(labelled.hasSameLabel(*world.createEmitter({"side", "rear"})));
    EXPECT_TRUE(labelled.hasSameLabel(*world.createEmitter()));
    for (const char* other : {"side", "Rear", "rear "})
        EXPECT_FALSE(labelled.hasSameLabel(*world.createEmitter({other}))) << other;
    EXPECT_TRUE(open.hasSameLabel(*world.createEmitter({"side"})));
}

TEST(BackendParams, MalformedTextComplainsOnStandardErrorAndKeepsWhatParsed) {
    Scene world;
    RecordingBackend* backend = nullptr;
    EXPECT_EQ(
        stderrOf([&] { backend = new RecordingBackend(world, "labels=front volume=\"loud"); }),
        "ERROR: Backend: Cannot parse parameters\n");
    EXPECT_THAT(backend->labels(), ElementsAre("front"));
    EXPECT_EQ(backend->params().getParam("volume", nullptr), nullptr);
    // It still works: it is in the world's list and receives notifications.
    world.createSource();
    EXPECT_EQ(backend->take(), "createSource(1)");
    EXPECT_TRUE(backend->enabled());
}

// Sees the duration notification that plain backends have no operation for.
struct DurationWorld : Scene {
    void setSourceDuration(Kelo::Source& source) override { reports.push_back(source.id()); }
    std::vector<int> reports;
};

TEST(BackendList, DurationReportsAndDeletion) {
    DurationWorld world;
    auto* first = new RecordingBackend(world);
    auto* second = new RecordingBackend(world);
    Kelo::Source* s = world.createSource();
    second->take();
    second->setSourceDuration(*s, 2.5f);
    EXPECT_FLOAT_EQ(s->duration(), 2.5f);
    EXPECT_THAT(world.reports, ElementsAre(1));  // the world hears of it once
    EXPECT_EQ(second->take(), "");               // backends not at all

    EXPECT_THAT(world.backends(), ElementsAre(first, second));
    delete first;
    world.update();
    EXPECT_EQ(second->updates, 1);
}
