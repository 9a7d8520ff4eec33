// The play backend: the exact lines it prints on standard output for each start of a sound.
#include <regex>

#include <Kelo/PlayBackend.h>

#include "support.h"

using namespace KeloTest;
using Kelo::WorldPart;

namespace {

// What f prints on standard output.
template <typename F>
std::string stdoutOf(F&& f) {
    ::testing::internal::CaptureStdout();
    f();
    return ::testing::internal::GetCapturedStdout();
}

}  // namespace

TEST(PlayBackend, PrintsTheCommandLineForEveryStartOfAUrlSound) {
    Scene world;
    Kelo::Backend* play = world.addBackend("play", "command=\"ogg123 -q\"");
    ASSERT_NE(play, nullptr);
    EXPECT_EQ(play->type(), &Kelo::PlayBackend::_type);
    Kelo::Source* sound = world.createSource();
    sound->setDataFromURL("file:///sounds/a%20b.wav");
    Kelo::Emitter* emitter = world.createEmitter();
    emitter->setSource(sound);
    const std::string line = "systemCall: ogg123 -q file:///sounds/a%20b.wav &\n";

    EXPECT_EQ(stdoutOf([&] { sound->setState(WorldPart::PLAY); }), line + line);
    EXPECT_EQ(stdoutOf([&] {
                  emitter->setState(WorldPart::PAUSE);
                  emitter->setState(WorldPart::STOP);
                  sound->setState(WorldPart::PAUSE);
              }),
              "");
    // The emitter's start and then its source's, which it shares the state with.
    EXPECT_EQ(stdoutOf([&] { emitter->setState(WorldPart::PLAY); }), line + line);

    // A backend added later hears the start in the replay, from the source and the emitter;
    // without a command the line starts with the blank that follows it.
    const std::string bare = "systemCall:  file:///sounds/a%20b.wav &\n";
    EXPECT_EQ(stdoutOf([&] { world.addBackend("play", ""); }), bare + bare);
}

TEST(PlayBackend, PcmDataAndUnconnectedEmittersAndUnknownStates) {
    Scene world;
    world.addBackend("play", "command=aplay");
    Kelo::Source* pcm = world.createSource();
    setPcm(*pcm, {0, 0, 1, 0});
    Kelo::Source* empty = world.createSource();
    Kelo::Emitter* alone = world.createEmitter();
    Kelo::Emitter* connected = world.createEmitter();
    connected->setSource(pcm);

    // The PCM source's start and its emitter's, then the source without data.
    EXPECT_EQ(stdoutOf([&] {
                  pcm->setState(WorldPart::PLAY);
                  empty->setState(WorldPart::PLAY);
              }),
              "Invalid SourceData\nInvalid SourceData\nInvalid SourceData\n");
    EXPECT_EQ(stdoutOf([&] {
                  alone->setState(WorldPart::PLAY);
                  alone->setState(static_cast<WorldPart::State>(7));
                  alone->setState(WorldPart::NONE);
              }),
              "");
    // State 0 and values beyond 3 are unknown, to the emitter and to the source: all four
    // messages speak of an emitter and name the line that noticed them, the emitter's check
    // and the source's.
    const std::string unknown = stdoutOf([&] {
        connected->setState(WorldPart::NONE);
        connected->setState(static_cast<WorldPart::State>(4));
    });
    const std::string at = "ERROR: Unknown emitter state in Kelo/PlayBackend:([0-9]+)\n";
    std::smatch lines;
    ASSERT_TRUE(std::regex_match(unknown, lines, std::regex(at + at + at + at))) << unknown;
    EXPECT_NE(lines[1], lines[2]);
    EXPECT_EQ(lines[1], lines[3]);
    EXPECT_EQ(lines[2], lines[4]);
}
