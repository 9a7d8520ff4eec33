#include "Kelo/SessionReader.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstring>

#include <Lirra/Event.h>

#include "Kelo/CommandEvent.h"
#include "Kelo/SessionWriter.h"

namespace Kelo {

namespace {

template <typename T>
T getLE(const uint8_t* in) {
    uint64_t value = 0;
    for (size_t i = 0; i < sizeof(T); ++i)
        value |= static_cast<uint64_t>(in[i]) << (8 * i);
    return static_cast<T>(value);
}

// Type ids below this are the connection's own (keep-alive, goodbye, reserved).
constexpr uint16_t kFirstEventType = 200;

std::string secondsText(uint64_t micros) {
    char text[48];
    std::snprintf(text, sizeof text, "%.6f s", static_cast<double>(micros) / 1e6);
    return text;
}

}  // namespace

SessionReader::~SessionReader() {
    closeFile();
}

void SessionReader::closeFile() {
    if (_file)
        std::fclose(_file);
    _file = nullptr;
}

bool SessionReader::damage(uint64_t at, const std::string& what) {
    _damaged = true;
    _error = "offset " + std::to_string(at) + ": " + what;
    return false;
}

bool SessionReader::read(uint8_t* bytes, size_t count) {
    const size_t got = count ? std::fread(bytes, 1, count, _file) : 0;
    if (got == count)
        return true;
    if (std::ferror(_file)) {
        _readError = true;
        _damaged = true;
        _error = std::string("cannot read: ") + std::strerror(errno);
    }
    return false;
}

bool SessionReader::readGrowing(std::vector<uint8_t>& out, size_t count) {
    // A length that promises more than the file holds costs no more memory than the file.
    constexpr size_t kChunk = 64 * 1024;
    const size_t start = out.size();
    while (out.size() - start < count) {
        const size_t at = out.size();
        const size_t want = std::min(kChunk, count - (at - start));
        out.resize(at + want);
        const size_t got = std::fread(out.data() + at, 1, want, _file);
        if (got < want) {
            out.resize(at + got);  // what there was, for the message
            if (std::ferror(_file)) {
                _readError = _damaged = true;
                _error = std::string("cannot read: ") + std::strerror(errno);
            }
            return false;
        }
    }
    return true;
}

bool SessionReader::open(const std::string& path) {
    closeFile();
    _path = path;
    _error.clear();
    _damaged = _readError = false;
    _offset = _firstRecord = _lastMicros = _records = 0;
    _version = 0;
    _startTime = 0;
    _note.clear();
    _file = std::fopen(path.c_str(), "rb");
    if (!_file) {
        _error = std::string("cannot open: ") + std::strerror(errno);
        return false;
    }
    uint8_t header[SessionWriter::kHeaderSize];
    auto fail = [this](uint64_t at, const std::string& what) {
        if (!_readError)
            damage(at, what);
        closeFile();
        return false;
    };
    if (!read(header, 8) || std::memcmp(header, SessionWriter::kMagic, 8) != 0)
        return fail(0, "not a Kelo session file (it does not begin with KELOSESS)");
    if (!read(header + 8, 4))
        return fail(8, "header cut short");
    _version = getLE<uint32_t>(header + 8);
    if (_version != SessionWriter::kVersion)
        return fail(8, "session format version " + std::to_string(_version) +
                           "; this program reads version " +
                           std::to_string(SessionWriter::kVersion));
    if (!read(header + 12, SessionWriter::kHeaderSize - 12))
        return fail(12, "header cut short");
    const auto protocol = getLE<uint32_t>(header + 12);
    if (protocol != SessionWriter::kProtocolVersion)
        return fail(12, "frames of protocol version " + std::to_string(protocol) +
                            "; this program reads version " +
                            std::to_string(SessionWriter::kProtocolVersion));
    _startTime = getLE<int64_t>(header + 16);
    const auto noteBytes = getLE<uint32_t>(header + 24);
    if (noteBytes > SessionWriter::kMaxNoteBytes)
        return fail(24, "note of " + std::to_string(noteBytes) + " bytes, more than the " +
                            std::to_string(SessionWriter::kMaxNoteBytes) + " allowed");
    std::vector<uint8_t> note;
    if (!readGrowing(note, noteBytes))
        return fail(SessionWriter::kHeaderSize, "header cut short");
    _note.assign(note.begin(), note.end());
    _offset = _firstRecord = SessionWriter::kHeaderSize + noteBytes;
    return true;
}

bool SessionReader::nextFrame(uint64_t& micros, std::vector<uint8_t>& frame) {
    micros = 0;
    frame.clear();
    while (_file && !_damaged) {
        const uint64_t at = _offset;
        uint8_t head[SessionWriter::kRecordHeaderSize + 4];
        const size_t got = std::fread(head, 1, sizeof head, _file);
        if (got == 0 && std::feof(_file))
            return false;  // the end, between records
        if (got < sizeof head) {
            if (std::ferror(_file))
                return read(head, sizeof head);  // sets the read error
            return damage(at, "record cut short: " + std::to_string(got) + " of its first " +
                                  std::to_string(sizeof head) + " bytes");
        }
        const auto time = getLE<uint64_t>(head);
        if (time < _lastMicros)
            return damage(at, "time " + secondsText(time) + " is before the previous record's " +
                                  secondsText(_lastMicros));
        const auto length = getLE<uint32_t>(head + 8);
        if (length < Lirra::Event::kHeaderSize - 4 || length > Lirra::Event::maxFrameSize())
            return damage(at, "frame length " + std::to_string(length) + " is not in 4.." +
                                  std::to_string(Lirra::Event::maxFrameSize()));
        frame.assign(head + 8, head + 12);
        if (!readGrowing(frame, length)) {
            if (_readError)
                return false;
            return damage(at, "record cut short: " + std::to_string(frame.size() - 4) + " of " +
                                  std::to_string(length) + " bytes of its frame");
        }
        _offset += sizeof head + length;
        _lastMicros = time;
        if (getLE<uint16_t>(frame.data() + 4) < kFirstEventType)
            continue;
        ++_records;
        micros = time;
        return true;
    }
    return false;
}

std::unique_ptr<CommandEvent> SessionReader::next(uint64_t& micros) {
    if (!nextFrame(micros, _frame))
        return nullptr;
    // The record just read starts where its frame's bytes end, less the record's size.
    const uint64_t at = _offset - SessionWriter::kRecordHeaderSize - _frame.size();
    std::string why;
    std::unique_ptr<Lirra::Event> event(
        Lirra::Event::decode(_frame.data() + 4, _frame.size() - 4, &why));
    if (_frame.capacity() > (1u << 20))
        std::vector<uint8_t>().swap(_frame);
    if (!event) {
        damage(at, "frame refused: " + why);
        return nullptr;
    }
    auto* command = dynamic_cast<CommandEvent*>(event.get());
    if (!command) {
        damage(at, "event type " + event->type()->name() + " is not a command event");
        return nullptr;
    }
    event.release();
    return std::unique_ptr<CommandEvent>(command);
}

bool SessionReader::rewind() {
    if (!_file || _readError)
        return false;
    std::clearerr(_file);
    if (std::fseek(_file, static_cast<long>(_firstRecord), SEEK_SET) != 0) {
        _error = std::string("cannot read: ") + std::strerror(errno);
        _damaged = _readError = true;
        return false;
    }
    _offset = _firstRecord;
    _lastMicros = _records = 0;
    _damaged = false;
    _error.clear();
    return true;
}

}  // namespace Kelo
