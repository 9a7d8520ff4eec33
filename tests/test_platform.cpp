// The platform subset: the log, parameter lines and text conversion.
#include <cstdlib>
#include <thread>
#include <tuple>

#include <Kelo/Log.h>
#include <Parmel/Base.h>
#include <Parmel/ParamLine.h>

#include "support.h"

using namespace KeloTest;
using Parmel::Base;

TEST(Log, ThresholdAdmitsLevelZeroAlwaysAndMessagesStayWhole) {
    LogCapture log(osg::LOG_FATAL);
    KELO_LOG(osg::LOG_LOG, "always %d\n", 0);
    KELO_LOG(osg::LOG_FATAL, "fatal\n");
    KELO_LOG(osg::LOG_WARNING, "warning\n");
    osg::Log::the().setLevel(osg::LOG_NOTICE);
    KELO_LOG(osg::LOG_NOTICE, "no line end");
    const std::string big(3000, 'x');
    KELO_LOG(osg::LOG_NOTICE, "%s|\n", big.c_str());
    EXPECT_THAT(log.texts(), ElementsAre("always 0\n", "fatal\n", "no line end", big + "|\n"));
    EXPECT_EQ(log.messages[0].file, "tests/test_platform");
    EXPECT_STREQ(log.messages[0].module, "Kelo");

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
        EXPECT_THAT(m.text, ::testing::MatchesRegex("thread [0-3] line [0-9]+\n"));
}

TEST(Log, StandardErrorHeaderForAcceptedModulesAndSettingsFromTheEnvironment) {
    osg::Log& log = osg::Log::the();
    log.setLevel(osg::LOG_WARNING);
    log.setHeaderModules("Other,Kelo");
    const int line = __LINE__ + 2;
    const std::string out = stderrOf([&] {
        KELO_LOG(osg::LOG_WARNING, "watch %s\n", "out");
        log.setHeaderModules("Other");
        KELO_LOG(osg::LOG_WARNING, "plain\n");
        log.setHeaderModules("");
        KELO_LOG(osg::LOG_WARNING, "bare");
    });
    EXPECT_EQ(out, "[Kelo tests/test_platform:" + std::to_string(line) +
                       " operator()] watch out\nplain\nbare");
    EXPECT_EQ(osg::Log::shortFile("World.cpp"), "World");

    setenv("KELO_LOG_LEVEL", "3", 1);
    setenv("KELO_LOG_MODULES", "Other", 1);
    log.configureFromEnvironment();
    EXPECT_EQ(std::make_tuple(log.level(), log.checkModule("Kelo"), log.checkModule("Other")),
              std::make_tuple(3, false, true));
    setenv("KELO_LOG_LEVEL", "loud", 1);  // unreadable: ignored
    log.configureFromEnvironment();
    EXPECT_EQ(log.level(), 3);
}

TEST(Log, LimiterLetsABurstThroughThenCountsAndSummarises) {
    LogCapture log(osg::LOG_WARNING);
    osg::LogLimiter limiter(3, std::chrono::milliseconds(200));
    for (int i = 0; i < 1000; ++i)
        limiter.write(osg::LOG_FATAL, "Kelo", __FILE__, __LINE__, __func__, "bad frame %d\n", i);
    EXPECT_THAT(log.texts(), ElementsAre("bad frame 0\n", "bad frame 1\n", "bad frame 2\n"));
    EXPECT_EQ(limiter.held(), 997);

    // Nothing is summarised before the interval is over, then exactly once.
    limiter.flush();
    EXPECT_EQ(log.messages.size(), 3u);
    std::this_thread::sleep_for(std::chrono::milliseconds(250));
    osg::LogLimiter::flushAll();
    osg::LogLimiter::flushAll();
    ASSERT_EQ(log.messages.size(), 4u);
    EXPECT_EQ(log.messages[3].text, "997 more messages like \"bad frame %d\" held back in 0.2 s\n");
    EXPECT_EQ(log.messages[3].level, osg::LOG_FATAL);
    EXPECT_EQ(limiter.held(), 0);

    // A new interval lets a new burst through; levels the log does not admit are not counted.
    limiter.write(osg::LOG_FATAL, "Kelo", __FILE__, __LINE__, __func__, "again\n");
    limiter.write(osg::LOG_NOTICE, "Kelo", __FILE__, __LINE__, __func__, "quiet\n");
    EXPECT_EQ(log.texts().back(), "again\n");
    EXPECT_EQ(limiter.held(), 0);

    // A program that stops counts what its current interval held back.
    for (int i = 0; i < 4; ++i)
        limiter.write(osg::LOG_FATAL, "Kelo", __FILE__, __LINE__, __func__, "late\n");
    osg::LogLimiter::flushAll();
    EXPECT_EQ(limiter.held(), 2);
    osg::LogLimiter::flushAll(true);
    EXPECT_EQ(limiter.held(), 0);
    EXPECT_THAT(log.texts().back(),
                ::testing::StartsWith("2 more messages like \"late\" held back"));
}

TEST(ParamLine, PairsQuotesRepeatsAndErrors) {
    Parmel::ParamLine line;
    line.setParamLine("  labels=front,rear\tcommand=\"play -q \\\"%s\\\" \\\\\" empty= n=1 n=2 ");
    line.setParamLine(nullptr);
    line.setParamLine("a=x=y");
    EXPECT_THAT(
        line.params(),
        ElementsAre(std::make_pair("a", "x=y"), std::make_pair("command", "play -q \"%s\" \\"),
                    std::make_pair("empty", ""), std::make_pair("labels", "front,rear"),
                    std::make_pair("n", "2")));
    EXPECT_STREQ(line.getParam("missing", "fallback"), "fallback");

    // The pairs before the fault are kept.
    const std::tuple<const char*, const char*, size_t> bad[] = {
        {"word", "parameter without value: word", 0},
        {"a=1 =2", "parameter without name at column 5", 1},
        {"a=\"open", "unterminated quote in parameter a", 0},
        {"a=1 b=\"x\"y c=3", "text after closing quote in parameter b", 1}};
    for (const auto& [text, message, kept] : bad) {
        Parmel::ParamLine fresh;
        EXPECT_EQ(errorOf<Parmel::ParseError>([&] { fresh.setParamLine(text); }), message);
        EXPECT_EQ(fresh.params().size(), kept) << text;
    }
}

TEST(Base, TextToValue) {
    for (const char* yes : {"true", "TRUE", "1", "yes", "Yes", "on", "ON"})
        EXPECT_TRUE(Base::string2Value(yes, false)) << yes;
    for (const char* no : {"false", "False", "0", "no", "off", "OFF"})
        EXPECT_FALSE(Base::string2Value(no, true)) << no;
    EXPECT_TRUE(Base::string2Value("maybe", true));
    EXPECT_FALSE(Base::string2Value("", false));
    EXPECT_THAT(std::vector<int>({Base::string2Value("42", 0), Base::string2Value("42x", 7),
                                  Base::string2Value("99999999999", 7)}),
                ElementsAre(42, 7, 7));
    EXPECT_EQ(Base::string2Value("-1", 5u), 5u);
    EXPECT_EQ(Base::string2Value("8080", 5u), 8080u);
    EXPECT_FLOAT_EQ(Base::string2Value("0.25", 1.0f), 0.25f);
    EXPECT_DOUBLE_EQ(Base::string2Value("1e400", 3.0), 3.0);
}
