#include "support.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <mutex>
#include <set>
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
    const auto all = texts();
    return static_cast<size_t>(std::count_if(all.begin(), all.end(), [&](const std::string& t) {
        return t.find(part) != std::string::npos;
    }));
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

namespace {

// Removes the scratch files of this process when it ends, so that test runs leave nothing behind.
struct ScratchFiles {
    std::mutex mutex;
    std::set<std::string> names;
    ~ScratchFiles() {
        for (const std::string& name : names)
            std::remove(name.c_str());
    }
};

ScratchFiles scratchFiles;

}  // namespace

std::pair<int, std::string> runProgram(const std::string& command) {
    std::string output;
    FILE* pipe = popen((command + " 2>&1").c_str(), "r");
    if (!pipe)
        return {-1, ""};
    char buffer[512];
    while (size_t n = std::fread(buffer, 1, sizeof buffer, pipe))
        output.append(buffer, n);
    const int status = pclose(pipe);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
}

std::string scratch(const std::string& name) {
    std::string path = ::testing::TempDir() + "kelo-" + std::to_string(getpid()) + "-" + name;
    std::lock_guard<std::mutex> lock(scratchFiles.mutex);
    scratchFiles.names.insert(path);
    return path;
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

namespace Measure {

double dB(const std::vector<float>& x) {
    double sum = 1e-20;
    for (float v : x)
        sum += static_cast<double>(v) * v;
    return 10 * std::log10(sum / static_cast<double>(x.empty() ? 1 : x.size()));
}

int lag(const std::vector<float>& a, const std::vector<float>& b, int maxLag) {
    const long n = static_cast<long>(std::min(a.size(), b.size()));
    int best = 0;
    double bestSum = -1e300;
    for (int k = -maxLag; k <= maxLag; ++k) {
        double sum = 0;
        for (long i = std::max(0L, -static_cast<long>(k)); i < n && i + k < n; ++i)
            sum += static_cast<double>(a[static_cast<size_t>(i)]) * b[static_cast<size_t>(i + k)];
        if (sum > bestSum) {
            bestSum = sum;
            best = k;
        }
    }
    return best;
}

double highBandDB(const std::vector<float>& x, double rate, double cutoff) {
    // The high-pass biquad of R. Bristow-Johnson's cookbook, Q = 1/sqrt(2).
    const double w = 2 * M_PI * cutoff / rate, alpha = std::sin(w) / std::sqrt(2.0),
                 c = std::cos(w), a0 = 1 + alpha;
    const double b0 = (1 + c) / 2 / a0, b1 = -(1 + c) / a0, b2 = b0, a1 = -2 * c / a0,
                 a2 = (1 - alpha) / a0;
    double x1 = 0, x2 = 0, y1 = 0, y2 = 0;
    std::vector<float> y(x.size());
    for (size_t i = 0; i < x.size(); ++i) {
        const double out = b0 * x[i] + b1 * x1 + b2 * x2 - a1 * y1 - a2 * y2;
        x2 = x1, x1 = x[i], y2 = y1, y1 = out;
        y[i] = static_cast<float>(out);
    }
    return dB(y);
}

}  // namespace Measure

}  // namespace KeloTest
