// The platform subset: the log, parameter lines and text conversion, vector and quaternion.
#include <cmath>
#include <cstdlib>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <Kelo/Log.h>
#include <Parmel/Base.h>
#include <Parmel/ParamLine.h>
#include <osg/Quaternion.h>
#include <osg/Vec3f.h>

#include "support.h"

using KeloTest::LogCapture;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;

namespace {

TEST(Log, ThresholdAdmitsLevelZeroAlways) {
    LogCapture log(osg::LOG_FATAL);
    KELO_LOG(osg::LOG_LOG, "always %d\n", 0);
    KELO_LOG(osg::LOG_FATAL, "fatal\n");
    KELO_LOG(osg::LOG_WARNING, "warning\n");
    KELO_LOG(osg::LOG_NOTICE, "notice\n");
    osg::Log::the().setLevel(osg::LOG_NOTICE);
    KELO_LOG(osg::LOG_NOTICE, "no line end");
    EXPECT_THAT(log.texts(), ElementsAre("always 0\n", "fatal\n", "no line end"));
    EXPECT_EQ(log.messages[0].file, "tests/test_platform");
    EXPECT_STREQ(log.messages[0].module, "Kelo");
}

TEST(Log, StandardErrorGetsHeaderOnlyForAcceptedModules) {
    osg::Log& log = osg::Log::the();
    const int level = log.level();
    log.setLevel(osg::LOG_WARNING);
    log.setHeaderModules("Other,Kelo");
    ::testing::internal::CaptureStderr();
    const int line = __LINE__ + 1;
    KELO_LOG(osg::LOG_WARNING, "watch %s\n", "out");
    log.setHeaderModules("Other");
    KELO_LOG(osg::LOG_WARNING, "plain\n");
    log.setHeaderModules("");
    KELO_LOG(osg::LOG_WARNING, "bare");
    log.setHeaderModules("*");
    const std::string out = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(out, "[Kelo tests/test_platform:" + std::to_string(line) + " TestBody] watch out\n" +
                       "plain\nbare");
    log.setLevel(level);
}

TEST(Log, LongMessagesAndConcurrentWritersStayWhole) {
    LogCapture log(osg::LOG_NOTICE);
    const std::string big(3000, 'x');
    KELO_LOG(osg::LOG_NOTICE, "%s|\n", big.c_str());
    ASSERT_EQ(log.messages.size(), 1u);
    EXPECT_EQ(log.messages[0].text, big + "|\n");

    log.messages.clear();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([t] {
            for (int i = 0; i < 200; ++i)
                KELO_LOG(osg::LOG_NOTICE, "thread %d line %d\n", t, i);
        });
    for (auto& thread : threads)
        thread.join();
    ASSERT_EQ(log.messages.size(), 800u);
    for (const auto& m : log.messages)
        EXPECT_THAT(m.text, MatchesRegex("thread [0-3] line [0-9]+\n"));
}

TEST(Log, EnvironmentSetsLevelAndModules) {
    osg::Log& log = osg::Log::the();
    const int level = log.level();
    setenv("KELO_LOG_LEVEL", "3", 1);
    setenv("KELO_LOG_MODULES", "Other", 1);
    log.configureFromEnvironment();
    EXPECT_EQ(log.level(), 3);
    EXPECT_FALSE(log.checkModule("Kelo"));
    EXPECT_TRUE(log.checkModule("Other"));
    setenv("KELO_LOG_LEVEL", "loud", 1);  // unreadable: ignored
    log.configureFromEnvironment();
    EXPECT_EQ(log.level(), 3);
    unsetenv("KELO_LOG_LEVEL");
    unsetenv("KELO_LOG_MODULES");
    log.setHeaderModules("*");
    log.setLevel(level);
    EXPECT_EQ(osg::Log::shortFile("/a/b/Kelo/World.cpp"), "Kelo/World");
    EXPECT_EQ(osg::Log::shortFile("World.cpp"), "World");
}

Parmel::ParamLine parse(const char* text) {
    Parmel::ParamLine line;
    line.setParamLine(text);
    return line;
}

TEST(ParamLine, PairsQuotesAndRepeats) {
    auto line = parse("  labels=front,rear\tcommand=\"play -q \\\"%s\\\" \\\\\" empty= n=1 n=2 ");
    EXPECT_STREQ(line.getParam("labels", nullptr), "front,rear");
    EXPECT_STREQ(line.getParam("command", nullptr), "play -q \"%s\" \\");
    EXPECT_STREQ(line.getParam("empty", nullptr), "");
    EXPECT_STREQ(line.getParam("n", nullptr), "2");
    EXPECT_STREQ(line.getParam("missing", "fallback"), "fallback");
    EXPECT_EQ(line.getParam("missing", nullptr), nullptr);
    EXPECT_THAT(parse("").params(), IsEmpty());
    EXPECT_THAT(parse(nullptr).params(), IsEmpty());
    EXPECT_STREQ(parse("a=x=y").getParam("a", nullptr), "x=y");
}

TEST(ParamLine, MalformedTextThrowsAndKeepsEarlierPairs) {
    for (const char* bad : {"word", "a=1 word", "=1", "a=\"open", "a=\"x\"y", "a=1 =2"}) {
        Parmel::ParamLine line;
        EXPECT_THROW(line.setParamLine(bad), Parmel::ParseError) << bad;
    }
    Parmel::ParamLine line;
    EXPECT_THROW(line.setParamLine("a=1 b=\"2 c=3"), Parmel::ParseError);
    EXPECT_STREQ(line.getParam("a", nullptr), "1");
    EXPECT_EQ(line.getParam("b", nullptr), nullptr);
}

TEST(Base, TextToValue) {
    for (const char* yes : {"true", "TRUE", "1", "yes", "Yes", "on", "ON"})
        EXPECT_TRUE(Parmel::Base::string2Value(yes, false)) << yes;
    for (const char* no : {"false", "False", "0", "no", "off", "OFF"})
        EXPECT_FALSE(Parmel::Base::string2Value(no, true)) << no;
    EXPECT_TRUE(Parmel::Base::string2Value("maybe", true));
    EXPECT_FALSE(Parmel::Base::string2Value("", false));
    EXPECT_EQ(Parmel::Base::string2Value("42", 0), 42);
    EXPECT_EQ(Parmel::Base::string2Value("42x", 7), 7);
    EXPECT_EQ(Parmel::Base::string2Value("99999999999", 7), 7);
    EXPECT_EQ(Parmel::Base::string2Value("-1", 5u), 5u);
    EXPECT_EQ(Parmel::Base::string2Value("8080", 5u), 8080u);
    EXPECT_FLOAT_EQ(Parmel::Base::string2Value("0.25", 1.0f), 0.25f);
    EXPECT_DOUBLE_EQ(Parmel::Base::string2Value("1e400", 3.0), 3.0);
}

TEST(OsgTypes, IdentityDefaultsAndToleranceCompare) {
    const osg::Quaternion q;
    EXPECT_EQ(q.w(), 1.0f);
    EXPECT_EQ(q.x() + q.y() + q.z(), 0.0f);
    const osg::Vec3f a(1, 2, 3);
    EXPECT_TRUE(a.equals(osg::Vec3f(1, 2, 3.0000005f), 1e-6f));
    EXPECT_FALSE(a.equals(osg::Vec3f(1, 2.00001f, 3), 1e-6f));
    EXPECT_FALSE(a.equals(osg::Vec3f(NAN, 2, 3), 1e-6f));
    EXPECT_FALSE(q.equals(osg::Quaternion(0, 0, 0, -1), 1e-6f));
}

}  // namespace
