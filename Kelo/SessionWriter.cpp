#include "Kelo/SessionWriter.h"

#include <cerrno>
#include <cstring>
#include <ctime>

#include <Lirra/Event.h>

#include "Kelo/Log.h"

namespace Kelo {

namespace {

template <typename T>
void putLE(T value, uint8_t* out) {
    for (size_t i = 0; i < sizeof(T); ++i)
        out[i] = static_cast<uint8_t>(static_cast<uint64_t>(value) >> (8 * i));
}

uint32_t lengthField(const uint8_t* frame) {
    uint32_t value = 0;
    for (size_t i = 0; i < 4; ++i)
        value |= static_cast<uint32_t>(frame[i]) << (8 * i);
    return value;
}

}  // namespace

std::string SessionWriter::expandName(const std::string& pattern) {
    if (pattern.size() > kMaxNameBytes)
        return "";
    if (pattern.find('%') == std::string::npos)
        return pattern;
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    if (!localtime_r(&now, &local))
        return "";
    std::vector<char> name(kMaxNameBytes + 1);
    const size_t size = std::strftime(name.data(), name.size(), pattern.c_str(), &local);
    return std::string(name.data(), size);
}

SessionWriter::~SessionWriter() {
    close();
}

bool SessionWriter::open(const std::string& path, const std::string& note) {
    std::lock_guard<std::mutex> lock(_mutex);
    if (_file) {
        _error = "already open";
        return false;
    }
    _path = path;
    _error.clear();
    _failed = _full = false;
    _bytes = _records = _lastMicros = 0;
    _file = std::fopen(path.c_str(), "wb");
    if (!_file) {
        _error = std::string("cannot create: ") + std::strerror(errno);
        _failed = true;
        return false;
    }
    const std::string text = note.substr(0, kMaxNoteBytes);
    const auto wall = std::chrono::duration_cast<std::chrono::microseconds>(
                          std::chrono::system_clock::now().time_since_epoch())
                          .count();
    uint8_t header[kHeaderSize];
    std::memcpy(header, kMagic, 8);
    putLE<uint32_t>(kVersion, header + 8);
    putLE<uint32_t>(kProtocolVersion, header + 12);
    putLE<int64_t>(wall, header + 16);
    putLE<uint32_t>(static_cast<uint32_t>(text.size()), header + 24);
    _start = _lastFlush = std::chrono::steady_clock::now();
    if (!put(header, sizeof header) ||
        !put(reinterpret_cast<const uint8_t*>(text.data()), text.size()) || !flushLocked()) {
        std::fclose(_file);
        _file = nullptr;
        return false;
    }
    return true;
}

bool SessionWriter::write(const uint8_t* frame, size_t size) {
    const auto now = std::chrono::steady_clock::now();
    // Only whole frames: the length field must match what follows it.
    if (!frame || size < Lirra::Event::kHeaderSize || size - 4 > Lirra::Event::maxFrameSize() ||
        lengthField(frame) != size - 4)
        return false;
    std::lock_guard<std::mutex> lock(_mutex);
    if (!_file || _failed || _full)
        return false;
    if (_limit > 0 && _bytes + kRecordHeaderSize + size > _limit) {
        _full = true;
        flushLocked();
        KELO_LOG(osg::LOG_WARNING,
                 "Kelo::SessionWriter: %s has reached its limit of %llu bytes: recording "
                 "stopped\n",
                 _path.c_str(), static_cast<unsigned long long>(_limit));
        return false;
    }
    // Never earlier than the record before, whatever the clock does between threads.
    uint64_t micros = static_cast<uint64_t>(
        std::chrono::duration_cast<std::chrono::microseconds>(now - _start).count());
    if (micros < _lastMicros)
        micros = _lastMicros;
    _lastMicros = micros;
    uint8_t time[kRecordHeaderSize];
    putLE<uint64_t>(micros, time);
    if (!put(time, sizeof time) || !put(frame, size))
        return false;
    ++_records;
    if (std::chrono::steady_clock::now() - _lastFlush >=
        std::chrono::duration<double>(kFlushSeconds))
        flushLocked();
    return true;
}

bool SessionWriter::write(Lirra::Event& event) {
    std::vector<uint8_t> frame;
    {
        std::lock_guard<std::mutex> lock(_mutex);
        frame.swap(_frame);
    }
    frame.clear();
    event.encode(frame);
    const bool written = write(frame.data(), frame.size());
    std::lock_guard<std::mutex> lock(_mutex);
    // Only a buffer of ordinary size is kept for the next one.
    if (frame.capacity() <= (64u << 10))
        _frame.swap(frame);
    return written;
}

void SessionWriter::flushIfDue() {
    std::lock_guard<std::mutex> lock(_mutex);
    if (_file && !_failed &&
        std::chrono::steady_clock::now() - _lastFlush >=
            std::chrono::duration<double>(kFlushSeconds))
        flushLocked();
}

bool SessionWriter::flush() {
    std::lock_guard<std::mutex> lock(_mutex);
    return _file && flushLocked();
}

bool SessionWriter::close() {
    std::lock_guard<std::mutex> lock(_mutex);
    if (!_file)
        return !_failed;
    flushLocked();
    if (std::fclose(_file) != 0 && !_failed)
        fail(std::string("cannot close: ") + std::strerror(errno));
    _file = nullptr;
    return !_failed;
}

void SessionWriter::setLimit(uint64_t bytes) {
    std::lock_guard<std::mutex> lock(_mutex);
    _limit = bytes;
}

uint64_t SessionWriter::limit() const {
    std::lock_guard<std::mutex> lock(_mutex);
    return _limit;
}

bool SessionWriter::full() const {
    std::lock_guard<std::mutex> lock(_mutex);
    return _full;
}

bool SessionWriter::failed() const {
    std::lock_guard<std::mutex> lock(_mutex);
    return _failed;
}

std::string SessionWriter::error() const {
    std::lock_guard<std::mutex> lock(_mutex);
    return _error;
}

bool SessionWriter::isOpen() const {
    std::lock_guard<std::mutex> lock(_mutex);
    return _file != nullptr;
}

uint64_t SessionWriter::bytes() const {
    std::lock_guard<std::mutex> lock(_mutex);
    return _bytes;
}

uint64_t SessionWriter::records() const {
    std::lock_guard<std::mutex> lock(_mutex);
    return _records;
}

double SessionWriter::seconds() const {
    std::lock_guard<std::mutex> lock(_mutex);
    return _file ? std::chrono::duration<double>(std::chrono::steady_clock::now() - _start).count()
                 : 0.0;
}

bool SessionWriter::put(const uint8_t* bytes, size_t count) {
    if (_failed)
        return false;
    if (count && std::fwrite(bytes, 1, count, _file) != count) {
        fail(std::string("write failed: ") + std::strerror(errno));
        return false;
    }
    _bytes += count;
    return true;
}

bool SessionWriter::flushLocked() {
    _lastFlush = std::chrono::steady_clock::now();
    if (_failed)
        return false;
    if (std::fflush(_file) != 0) {
        fail(std::string("write failed: ") + std::strerror(errno));
        return false;
    }
    return true;
}

void SessionWriter::fail(const std::string& what) {
    _failed = true;
    _error = what;
    KELO_LOG(osg::LOG_FATAL, "Kelo::SessionWriter: %s: %s: recording stopped\n", _path.c_str(),
             what.c_str());
}

}  // namespace Kelo
