// The backend registry: creation by name, "default", duplicates, removal, the type list.
#include <algorithm>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <Kelo/BackendFactory.h>
#include <Kelo/LogBackend.h>
#include <Kelo/SilentBackend.h>
#include <Kelo/World.h>

#include "support.h"

using KeloTest::LogCapture;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

namespace {

std::string typeList() {
    ::testing::internal::CaptureStdout();
    Kelo::BackendFactory::printTypes();
    return ::testing::internal::GetCapturedStdout();
}

TEST(Registry, CreatesBackendsByNameAndReplaysThem) {
    Kelo::World world;
    world.createSource();
    LogCapture log;
    Kelo::Backend* log_ = world.addBackend("log", "labels=front");
    Kelo::Backend* silent = world.addBackend("silent", nullptr);
    ASSERT_NE(log_, nullptr);
    ASSERT_NE(silent, nullptr);
    EXPECT_EQ(log_->type(), &Kelo::LogBackend::_type);
    EXPECT_EQ(silent->type(), &Kelo::SilentBackend::_type);
    EXPECT_EQ(log_->type()->name(), "log");
    EXPECT_THAT(log_->labels(), ElementsAre("front"));
    EXPECT_THAT(world.backends(), ElementsAre(log_, silent));
    EXPECT_THAT(log.texts(osg::LOG_NOTICE),
                ElementsAre("Create new Kelo backend: log\n", "Create new Kelo backend: silent\n"));
    // The replay reached the log backend right after its creation line.
    EXPECT_THAT(
        log.texts(osg::LOG_LOG),
        ElementsAre("LogBackend: create backend\n", "LogBackend: setEnabled\n",
                    "LogBackend: setListenerTransform(0.000000, 0.000000, 0.000000)\n",
                    "LogBackend: createSource\n", "LogBackend: setSourceData\n",
                    "LogBackend: setSourceParam\n", "LogBackend: setSourceState: unknown\n"));
    world.clearWorld();
    world.deleteAllBackends();
}

TEST(Registry, UnknownNamesAreCaseSensitiveAndDefaultIsReportedAsAsked) {
    Kelo::World world;
    LogCapture log;
    EXPECT_EQ(world.addBackend("Log", ""), nullptr);
    EXPECT_EQ(Kelo::BackendFactory::_the.createBackend(world, "", ""), nullptr);
    EXPECT_THAT(log.texts(), ElementsAre("Unknown Kelo backend Log; can not create\n",
                                         "Could not create Kelo backend: Log\n",
                                         "Unknown Kelo backend ; can not create\n"));
    EXPECT_EQ(log.messages[0].level, osg::LOG_FATAL);
    EXPECT_EQ(log.messages[1].level, osg::LOG_WARNING);
    EXPECT_THAT(world.backends(), IsEmpty());
}

// "default" looks up "openal" at creation time. The test puts its own type under that name
// (setting aside the audio backend's entry if the library has one) and restores the registry.
TEST(Registry, DefaultMeansOpenalAtLookupTime) {
    Kelo::World world;
    Kelo::BackendType* audio = Kelo::BackendFactory::findBackendType("openal");
    if (audio)
        Kelo::BackendFactory::removeBackendType(audio);
    LogCapture log;
    EXPECT_EQ(world.addBackend("default", ""), nullptr);
    EXPECT_THAT(log.texts(), ElementsAre("Unknown Kelo backend default; can not create\n",
                                         "Could not create Kelo backend: default\n"));
    log.messages.clear();
    {
        Kelo::BackendType standIn("openal", &Kelo::SilentBackend::createMethod);
        Kelo::Backend* backend = world.addBackend("default", "");
        ASSERT_NE(backend, nullptr);
        EXPECT_EQ(backend->type(), &Kelo::SilentBackend::_type);
        EXPECT_THAT(log.texts(osg::LOG_NOTICE), ElementsAre("Create new Kelo backend: default\n"));
        EXPECT_THAT(typeList(), Not(HasSubstr("default")));
        world.deleteAllBackends();
    }
    if (audio)
        Kelo::BackendFactory::addBackendType(audio);
}

Kelo::Backend* failingCreate(Kelo::World&, const char*) {
    return nullptr;
}

TEST(Registry, FailedCreationDuplicatesAndRemoval) {
    Kelo::World world;
    LogCapture log;
    {
        Kelo::BackendType broken("broken", &failingCreate);
        EXPECT_EQ(world.addBackend("broken", ""), nullptr);
        EXPECT_EQ(log.texts().at(0), "Unknown Kelo backend broken; can not create\n");

        // The first registration of a name wins.
        log.messages.clear();
        Kelo::BackendType second("log", &failingCreate);
        EXPECT_THAT(log.texts(osg::LOG_WARNING),
                    ElementsAre("There is already a backend log, skip reg.\n"));
        Kelo::Backend* backend = world.addBackend("log", "");
        ASSERT_NE(backend, nullptr);
        EXPECT_EQ(backend->type(), &Kelo::LogBackend::_type);
        world.deleteAllBackends();

        // A copied entry is not registered and has nothing to create with.
        log.messages.clear();
        Kelo::BackendType copy(broken);
        EXPECT_THAT(log.texts(osg::LOG_FATAL), ElementsAre("In BackendType copy constructor\n"));
        EXPECT_EQ(copy.name(), "");
        EXPECT_EQ(copy.createBackend(world, ""), nullptr);
        EXPECT_THAT(typeList(), HasSubstr("broken\n"));
    }
    // Leaving scope removed "broken"; the skipped duplicate removed "log" by name, so put the
    // real entry back for the rest of the suite.
    EXPECT_THAT(typeList(), Not(HasSubstr("broken")));
    EXPECT_THAT(typeList(), Not(HasSubstr("log\n")));
    Kelo::BackendFactory::addBackendType(&Kelo::LogBackend::_type);
    EXPECT_THAT(typeList(), HasSubstr("log\n"));
    Kelo::BackendFactory::removeBackendType(nullptr);
    Kelo::BackendFactory::addBackendType(nullptr);
}

TEST(Registry, TypeListIsByteWiseAscending) {
    // The test support registers "record"; the library registers the rest.
    const std::string list = typeList();
    EXPECT_EQ(list.rfind("TypeList: \n", 0), 0u);
    std::vector<std::string> names;
    size_t pos = std::string("TypeList: \n").size();
    while (pos < list.size()) {
        const size_t end = list.find('\n', pos);
        names.push_back(list.substr(pos, end - pos));
        pos = end + 1;
    }
    EXPECT_TRUE(std::is_sorted(names.begin(), names.end()));
    EXPECT_THAT(names, ::testing::IsSupersetOf({"log", "record", "silent"}));
    EXPECT_THAT(names, Not(::testing::Contains("default")));
}

}  // namespace
