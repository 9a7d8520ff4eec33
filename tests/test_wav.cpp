// Dumping a source's PCM data as a WAV file: the header bytes, and real tools reading it back.
#include <sndfile.h>
#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <Kelo/Source.h>
#include <Kelo/World.h>

#include "support.h"

using KeloTest::LogCapture;
using ::testing::ElementsAre;

namespace {

std::vector<unsigned char> readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

uint32_t u32(const std::vector<unsigned char>& b, size_t at) {
    return b[at] | b[at + 1] << 8 | b[at + 2] << 16 | static_cast<uint32_t>(b[at + 3]) << 24;
}

uint16_t u16(const std::vector<unsigned char>& b, size_t at) {
    return static_cast<uint16_t>(b[at] | b[at + 1] << 8);
}

std::string text(const std::vector<unsigned char>& b, size_t at) {
    return std::string(b.begin() + static_cast<long>(at), b.begin() + static_cast<long>(at) + 4);
}

struct WavTest : ::testing::Test {
    ~WavTest() override {
        world.clearWorld();
        std::remove(path.c_str());
    }
    Kelo::Source* source(unsigned rate, unsigned bits, unsigned channels,
                         const std::vector<unsigned char>& data) {
        Kelo::Source* s = world.createSource();
        ::testing::internal::CaptureStderr();
        s->setData(rate, bits, channels, data.data(), static_cast<unsigned>(data.size()));
        ::testing::internal::GetCapturedStderr();
        return s;
    }
    Kelo::World world;
    // Unique per test: ctest runs the cases of this file in parallel processes.
    std::string path = ::testing::TempDir() + "kelo-" +
                       ::testing::UnitTest::GetInstance()->current_test_info()->name() + "-" +
                       std::to_string(getpid()) + ".wav";
};

TEST_F(WavTest, HeaderFollowsTheCanonicalLayout) {
    std::vector<unsigned char> samples(176400);
    for (size_t i = 0; i < samples.size(); ++i)
        samples[i] = static_cast<unsigned char>(i * 7);
    Kelo::Source* s = source(44100, 16, 2, samples);
    LogCapture log;
    s->dumpWavFile(path);
    EXPECT_THAT(log.texts(osg::LOG_LOG), ElementsAre("Dump PCM data to " + path + "\n"));

    const auto b = readFile(path);
    ASSERT_EQ(b.size(), 176444u);
    EXPECT_EQ(text(b, 0), "RIFF");
    EXPECT_EQ(u32(b, 4), 176436u);
    EXPECT_EQ(text(b, 8), "WAVE");
    EXPECT_EQ(text(b, 12), "fmt ");
    EXPECT_EQ(u32(b, 16), 16u);
    EXPECT_EQ(u16(b, 20), 1u);
    EXPECT_EQ(u16(b, 22), 2u);
    EXPECT_EQ(u32(b, 24), 44100u);
    EXPECT_EQ(u32(b, 28), 176400u);
    EXPECT_EQ(u16(b, 32), 4u);
    EXPECT_EQ(u16(b, 34), 16u);
    EXPECT_EQ(text(b, 36), "data");
    EXPECT_EQ(u32(b, 40), 176400u);
    EXPECT_TRUE(std::equal(samples.begin(), samples.end(), b.begin() + 44));
}

TEST_F(WavTest, OddSizesAndMissingData) {
    source(8000, 12, 1, {1, 2, 3, 4})->dumpWavFile(path);
    auto b = readFile(path);
    EXPECT_EQ(u16(b, 32), 2u);  // 12 bits take two whole bytes
    EXPECT_EQ(u32(b, 28), 16000u);
    EXPECT_EQ(u16(b, 34), 12u);

    world.createSource()->dumpWavFile(path);  // no data at all
    b = readFile(path);
    ASSERT_EQ(b.size(), 44u);
    EXPECT_EQ(u32(b, 4), 36u);
    EXPECT_EQ(u32(b, 40), 0u);
    EXPECT_EQ(u16(b, 22), 0u);
}

TEST_F(WavTest, UnwritablePathLogsAndWritesNothing) {
    Kelo::Source* s = source(8000, 8, 1, {1, 2});
    LogCapture log;
    s->dumpWavFile("/nonexistent-dir/x.wav");
    EXPECT_THAT(log.texts(), ElementsAre("Dump PCM data to /nonexistent-dir/x.wav\n"));
}

// One second of a 1 kHz sine, 16-bit stereo, the right channel at half amplitude.
std::vector<unsigned char> stereoSine() {
    std::vector<unsigned char> bytes;
    for (int i = 0; i < 22050; ++i) {
        const double v = std::sin(2 * M_PI * 1000.0 * i / 22050.0);
        for (double amplitude : {16000.0, 8000.0}) {
            const auto sample =
                static_cast<uint16_t>(static_cast<int16_t>(std::lround(amplitude * v)));
            bytes.push_back(static_cast<unsigned char>(sample & 0xff));
            bytes.push_back(static_cast<unsigned char>(sample >> 8));
        }
    }
    return bytes;
}

TEST_F(WavTest, LibsndfileReadsTheSamplesBack) {
    const auto pcm = stereoSine();
    source(22050, 16, 2, pcm)->dumpWavFile(path);
    SF_INFO info{};
    SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
    ASSERT_NE(file, nullptr) << sf_strerror(nullptr);
    EXPECT_EQ(info.samplerate, 22050);
    EXPECT_EQ(info.channels, 2);
    EXPECT_EQ(info.frames, 22050);
    EXPECT_EQ(info.format, SF_FORMAT_WAV | SF_FORMAT_PCM_16);
    std::vector<short> frames(static_cast<size_t>(info.frames) * 2);
    EXPECT_EQ(sf_readf_short(file, frames.data(), info.frames), info.frames);
    sf_close(file);
    EXPECT_EQ(frames[2 * 5], static_cast<short>(pcm[20] | pcm[21] << 8));
    EXPECT_EQ(frames[2 * 5 + 1], static_cast<short>(pcm[22] | pcm[23] << 8));
}

TEST_F(WavTest, SoxMeasuresLengthAndLevels) {
    source(22050, 16, 2, stereoSine())->dumpWavFile(path);
    const std::string command = "sox '" + path + "' -n stats 2>&1";
    FILE* pipe = popen(command.c_str(), "r");
    ASSERT_NE(pipe, nullptr);
    std::string out;
    char buffer[256];
    while (std::fgets(buffer, sizeof buffer, pipe))
        out += buffer;
    ASSERT_EQ(pclose(pipe), 0) << out;
    // "Pk lev dB" per channel: 16000/32768 is -6.2 dB, 8000/32768 is -12.2 dB.
    float overall = 0, left = 0, right = 0;
    const size_t at = out.find("Pk lev dB");
    ASSERT_NE(at, std::string::npos) << out;
    ASSERT_EQ(std::sscanf(out.c_str() + at, "Pk lev dB %f %f %f", &overall, &left, &right), 3)
        << out;
    EXPECT_NEAR(left, -6.2, 0.1);
    EXPECT_NEAR(right, -12.2, 0.1);
    const size_t length = out.find("Length s");
    ASSERT_NE(length, std::string::npos) << out;
    EXPECT_NEAR(std::strtod(out.c_str() + length + 8, nullptr), 1.0, 1e-3);
}

}  // namespace
