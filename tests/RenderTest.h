#pragma once
// Rendering through OpenAL Soft's wave driver into a file that is read back and measured.
#include <sndfile.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <thread>

#include <Kelo/OALBackend.h>

#include "support.h"

namespace KeloTest {

// OpenAL Soft reads its configuration once per process, at the first ALC call.
inline void useConfig(const std::string& text) {
    std::ofstream(scratch("alsoft.conf")) << text;
    setenv("ALSOFT_CONF", scratch("alsoft.conf").c_str(), 1);
}

// Every render of the process, one at a time, goes into this file. No rate is configured, so
// that OpenAL Soft's default (44100 Hz) or the backend's frequency parameter decides it.
inline const std::string& waveFile() {
    static const std::string path = [] {
        const std::string wav = scratch("render.wav");
        useConfig("[general]\ndrivers=wave\nchannels=stereo\nsample-type=int16\n[wave]\nfile=" +
                  wav + "\n");
        return wav;
    }();
    return path;
}

inline const osg::Quaternion kQuarterTurn(0, std::sin(M_PI / 4), 0, std::cos(M_PI / 4));  // +Y

struct Channels {
    std::vector<float> left, right;
};

// A world with an OpenAL backend; finish() closes the device, completing the file, and reads it.
struct Render : ::testing::Test {
    Kelo::OALBackend* open(const char* type, const char* params = "") {
        waveFile();
        backend = static_cast<Kelo::OALBackend*>(world.addBackend(type, params));
        start = std::chrono::steady_clock::now();
        return backend;
    }
    // Waits until the given time since the device opened.
    void at(double seconds) const {
        std::this_thread::sleep_until(start + std::chrono::duration<double>(seconds));
    }
    Kelo::Source* sound(const std::vector<unsigned char>& pcm, bool loop, unsigned rate = 44100,
                        unsigned bits = 16, unsigned channels = 1) {
        Kelo::Source* s = world.createSource();
        setPcm(*s, pcm, rate, bits, channels);
        s->setParam(loop, 1);
        return s;
    }
    Kelo::Emitter* play(Kelo::Source* s, bool spatial) {
        Kelo::Emitter* e = world.createEmitter();
        e->setParam(spatial, 0, 1);
        e->setSource(s);
        e->setState(Kelo::WorldPart::PLAY);
        return e;
    }
    void finish() {
        world.clearWorld();
        world.deleteAllBackends();
        SF_INFO info{};
        SNDFILE* file = sf_open(waveFile().c_str(), SFM_READ, &info);
        ASSERT_TRUE(file && info.channels == 2) << sf_strerror(nullptr);
        rate = info.samplerate;
        float frame[2];
        while (sf_readf_float(file, frame, 1) == 1) {
            wav.left.push_back(frame[0]);
            wav.right.push_back(frame[1]);
        }
        sf_close(file);
    }
    // What was rendered from `from` to `to` seconds, less the edges: the mixer writes a few tens
    // of milliseconds ahead of the clock, and a change takes a period to be heard.
    Channels window(double from, double to) const {
        const auto e = static_cast<long>((to - 0.06) * rate);
        EXPECT_LE(e, static_cast<long>(wav.left.size())) << "window past the end of the render";
        const long b = std::min<long>(e, static_cast<long>(wav.left.size())),
                   a = std::min<long>(static_cast<long>((from + 0.05) * rate), b);
        return {{wav.left.begin() + a, wav.left.begin() + b},
                {wav.right.begin() + a, wav.right.begin() + b}};
    }
    double leftDB(double from, double to) const { return Measure::dB(window(from, to).left); }

    Scene world;
    Kelo::OALBackend* backend = nullptr;
    std::chrono::steady_clock::time_point start;
    Channels wav;
    int rate = 0;
};

}  // namespace KeloTest
