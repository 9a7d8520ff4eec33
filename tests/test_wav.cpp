// Dumping a source's PCM data as a WAV file: the header bytes, and real tools reading it back.
#include <sndfile.h>

#include <cstdio>

#include "support.h"

using namespace KeloTest;

// n bytes of v, least significant first.
std::string le(uint32_t v, int n) {
    std::string out;
    for (int i = 0; i < n; ++i)
        out += static_cast<char>(v >> (8 * i) & 0xff);
    return out;
}

struct WavTest : ::testing::Test {
    // Writes the samples as a WAV file and returns its bytes.
    std::string dump(unsigned rate, unsigned bits, unsigned channels,
                     const std::vector<unsigned char>& data) {
        Kelo::Source* s = world.createSource();
        setPcm(*s, data, rate, bits, channels);
        s->dumpWavFile(path);
        return readFile(path);
    }
    Scene world;
    std::string path = scratch("dump.wav");
};

TEST_F(WavTest, HeaderFollowsTheCanonicalLayout) {
    std::vector<unsigned char> samples(176400);
    for (size_t i = 0; i < samples.size(); ++i)
        samples[i] = static_cast<unsigned char>(i * 7);
    LogCapture log;
    const std::string b = dump(44100, 16, 2, samples);
    EXPECT_THAT(log.texts(osg::LOG_LOG), ElementsAre("Dump PCM data to " + path + "\n"));
    ASSERT_EQ(b.size(), 176444u);
    EXPECT_EQ(b.substr(0, 44), "RIFF" + le(176436, 4) + "WAVEfmt " + le(16, 4) + le(1, 2) +
                                   le(2, 2) + le(44100, 4) + le(176400, 4) + le(4, 2) + le(16, 2) +
                                   "data" + le(176400, 4));
    EXPECT_EQ(b.substr(44), std::string(samples.begin(), samples.end()));

    // 12 bits take two whole bytes; no data at all still makes a header.
    EXPECT_EQ(dump(8000, 12, 1, {1, 2, 3, 4}).substr(28, 8), le(16000, 4) + le(2, 2) + le(12, 2));
    EXPECT_EQ(dump(8000, 8, 1, {}), "RIFF" + le(36, 4) + "WAVEfmt " + le(16, 4) + le(1, 2) +
                                        std::string(14, '\0') + "data" + le(0, 4));

    log.messages.clear();
    world.sources().begin()->second->dumpWavFile("/nonexistent-dir/x.wav");
    EXPECT_THAT(log.texts(), ElementsAre("Dump PCM data to /nonexistent-dir/x.wav\n"));
}

TEST_F(WavTest, LibsndfileAndSoxReadTheSamplesBack) {
    // One second of a 1 kHz sine, 16-bit stereo, the right channel at half amplitude.
    const auto pcm = tone(1000, 1.0, 22050, {16000, 8000});
    dump(22050, 16, 2, pcm);
    SF_INFO info{};
    SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
    ASSERT_NE(file, nullptr) << sf_strerror(nullptr);
    EXPECT_EQ(info.format, SF_FORMAT_WAV | SF_FORMAT_PCM_16);
    std::vector<short> frames(6);
    EXPECT_EQ(sf_readf_short(file, frames.data(), 3), 3);
    sf_close(file);
    EXPECT_EQ(frames[5], static_cast<short>(pcm[10] | pcm[11] << 8));  // frame 2, right

    // "Pk lev dB" per channel: 16000/32768 is -6.2 dB, 8000/32768 is -12.2 dB.
    const auto [status, out] = runProgram("sox '" + path + "' -n stats");
    ASSERT_EQ(status, 0) << out;
    float overall = 0, left = 0, right = 0;
    const size_t at = out.find("Pk lev dB"), length = out.find("Length s");
    ASSERT_TRUE(at != std::string::npos && length != std::string::npos) << out;
    ASSERT_EQ(std::sscanf(out.c_str() + at, "Pk lev dB %f %f %f", &overall, &left, &right), 3);
    EXPECT_NEAR(left, -6.2, 0.1);
    EXPECT_NEAR(right, -12.2, 0.1);
    EXPECT_NEAR(std::strtod(out.c_str() + length + 8, nullptr), 1.0, 1e-3);
}
