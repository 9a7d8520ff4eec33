// The backend registry: creation by name, "default", duplicates, removal, the type list.
#include <algorithm>
#include <sstream>

#include <Kelo/BackendFactory.h>
#include <Kelo/LogBackend.h>
#include <Kelo/SilentBackend.h>

#include "support.h"

using namespace KeloTest;
using ::testing::Not;

// The names printTypes() lists after its heading, which it checks.
std::vector<std::string> typeNames() {
    ::testing::internal::CaptureStdout();
    Kelo::BackendFactory::printTypes();
    std::istringstream lines(::testing::internal::GetCapturedStdout());
    std::vector<std::string> names;
    for (std::string line; std::getline(lines, line);)
        names.push_back(line);
    EXPECT_EQ(names.at(0), "TypeList: ");
    return {names.begin() + 1, names.end()};
}

TEST(Registry, CreatesBackendsByNameAndReplaysTheWorldToThem) {
    Scene world;
    LogCapture log;
    Kelo::Backend* log_ = world.addBackend("log", "labels=front");
    Kelo::Backend* silent = world.addBackend("silent", nullptr);
    ASSERT_TRUE(log_ && silent);
    EXPECT_EQ(log_->type(), &Kelo::LogBackend::_type);
    EXPECT_EQ(silent->type(), &Kelo::SilentBackend::_type);
    EXPECT_THAT(log_->labels(), ElementsAre("front"));
    EXPECT_THAT(world.backends(), ElementsAre(log_, silent));
    EXPECT_THAT(log.texts(),
                ElementsAre("LogBackend: create backend\n", "Create new Kelo backend: log\n",
                            "LogBackend: setEnabled\n",
                            "LogBackend: setListenerTransform(0.000000, 0.000000, 0.000000)\n",
                            "Create new Kelo backend: silent\n"));
    EXPECT_EQ(log.messages[1].level, osg::LOG_NOTICE);
    // The type list is byte-wise ascending, "default" is no entry of it.
    const std::vector<std::string> names = typeNames();
    EXPECT_TRUE(std::is_sorted(names.begin(), names.end()));
    EXPECT_THAT(names, ::testing::IsSupersetOf({"log", "record", "silent"}));
    EXPECT_THAT(names, Not(Contains("default")));
}

// "default" looks up "openal" at creation time. The test puts its own type under that name
// (setting aside the audio backend's entry if the library has one) and restores the registry.
TEST(Registry, UnknownNamesAreCaseSensitiveAndDefaultMeansOpenalAtLookupTime) {
    Scene world;
    Kelo::BackendType* audio = Kelo::BackendFactory::findBackendType("openal");
    Kelo::BackendFactory::removeBackendType(audio);
    LogCapture log;
    EXPECT_EQ(world.addBackend("Log", ""), nullptr);
    EXPECT_EQ(Kelo::BackendFactory::_the.createBackend(world, "", ""), nullptr);
    EXPECT_EQ(world.addBackend("default", ""), nullptr);
    {
        Kelo::BackendType standIn("openal", &Kelo::SilentBackend::createMethod);
        Kelo::Backend* backend = world.addBackend("default", "");
        ASSERT_NE(backend, nullptr);
        EXPECT_EQ(backend->type(), &Kelo::SilentBackend::_type);
        world.deleteAllBackends();
    }
    Kelo::BackendFactory::addBackendType(audio);
    EXPECT_THAT(log.texts(), ElementsAre("Unknown Kelo backend Log; can not create\n",
                                         "Could not create Kelo backend: Log\n",
                                         "Unknown Kelo backend ; can not create\n",
                                         "Unknown Kelo backend default; can not create\n",
                                         "Could not create Kelo backend: default\n",
                                         "Create new Kelo backend: default\n"));
    EXPECT_EQ(std::make_tuple(log.messages[0].level, log.messages[1].level),
              std::make_tuple(osg::LOG_FATAL, osg::LOG_WARNING));
}

TEST(Registry, FailedCreationDuplicatesCopiesAndRemoval) {
    Scene world;
    LogCapture log;
    {
        const Kelo::BackendType::CreateMethod fail = [](Kelo::World&, const char*) {
            return static_cast<Kelo::Backend*>(nullptr);
        };
        Kelo::BackendType broken("broken", fail);
        EXPECT_EQ(world.addBackend("broken", ""), nullptr);
        Kelo::BackendType second("log", fail);  // the first registration of a name wins
        Kelo::Backend* backend = world.addBackend("log", "");
        ASSERT_NE(backend, nullptr);
        EXPECT_EQ(backend->type(), &Kelo::LogBackend::_type);
        world.deleteAllBackends();
        // A copied entry is not registered and has nothing to create with.
        Kelo::BackendType copy(broken);
        EXPECT_EQ(copy.name(), "");
        EXPECT_EQ(copy.createBackend(world, ""), nullptr);
        EXPECT_THAT(typeNames(), Contains("broken"));
        EXPECT_THAT(log.texts(osg::LOG_FATAL),
                    ElementsAre("Unknown Kelo backend broken; can not create\n",
                                "In BackendType copy constructor\n"));
        EXPECT_THAT(log.texts(osg::LOG_WARNING),
                    ElementsAre("Could not create Kelo backend: broken\n",
                                "There is already a backend log, skip reg.\n"));
    }
    // Leaving scope removed "broken"; the skipped duplicate removed "log" by name, so put the
    // real entry back for the rest of the suite.
    EXPECT_THAT(typeNames(), Not(::testing::AnyOf(Contains("broken"), Contains("log"))));
    Kelo::BackendFactory::addBackendType(&Kelo::LogBackend::_type);
    Kelo::BackendFactory::removeBackendType(nullptr);
    Kelo::BackendFactory::addBackendType(nullptr);
    EXPECT_THAT(typeNames(), Contains("log"));
}
