#include "support.h"

#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <thread>

namespace KeloTest {

Kelo::BackendType RecordingBackend::_type("record", [](Kelo::World& world, const char* params) {
    return static_cast<Kelo::Backend*>(new RecordingBackend(world, params));
});

RecordingBackend::~RecordingBackend() {
    if (deleted)
        *deleted = true;
}

void RecordingBackend::record(const std::string& call) {
    calls += (calls.empty() ? "" : " ") + call;
    if (_journal)
        *_journal += (_journal->empty() ? "" : " ") + _tag + call;
}

LogCapture::LogCapture(int level) : oldLevel(osg::Log::the().level()) {
    osg::Log::the().setLevel(level);
    oldSink = osg::Log::the().setSink([this](const osg::LogMessage& m) {
        std::lock_guard<std::mutex> lock(mutex);
        messages.push_back(m);
    });
}

LogCapture::~LogCapture() {
    osg::Log::the().setSink(std::move(oldSink));
    osg::Log::the().setLevel(oldLevel);
}

std::vector<std::string> LogCapture::texts(int level) const {
    std::vector<std::string> out;
    std::lock_guard<std::mutex> lock(mutex);
    for (const auto& m : messages)
        if (level < 0 || m.level == level)
            out.push_back(m.text);
    return out;
}

std::string LogCapture::text(int level) const {
    std::string out;
    for (const auto& t : texts(level))
        out += t;
    return out;
}

size_t LogCapture::count(const std::string& part) const {
    std::lock_guard<std::mutex> lock(mutex);
    size_t n = 0;
    for (const auto& m : messages)
        if (m.text.find(part) != std::string::npos)
            ++n;
    return n;
}

void setPcm(Kelo::Source& source, const std::vector<unsigned char>& bytes, unsigned rate,
            unsigned bits, unsigned channels) {
    stderrOf([&] {
        source.setData(rate, bits, channels, bytes.data(), static_cast<unsigned>(bytes.size()));
    });
}

std::vector<unsigned char> tone(double hz, double seconds, int rate,
                                std::vector<double> amplitudes) {
    std::vector<unsigned char> bytes;
    for (int i = 0; i < static_cast<int>(seconds * rate); ++i)
        for (double amplitude : amplitudes) {
            const auto s = static_cast<uint16_t>(
                static_cast<int16_t>(std::lround(amplitude * std::sin(2 * M_PI * hz * i / rate))));
            bytes.push_back(static_cast<unsigned char>(s & 0xff));
            bytes.push_back(static_cast<unsigned char>(s >> 8));
        }
    return bytes;
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

std::string scratch(const std::string& name) {
    return ::testing::TempDir() + "kelo-" + std::to_string(getpid()) + "-" + name;
}

bool until(const std::function<bool()>& done, const std::function<void()>& step,
           std::chrono::milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        step();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

long residentKiB() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind("VmRSS:", 0) == 0)
            return std::stol(line.substr(6));
    return -1;
}

}  // namespace KeloTest
