#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace Kelo {

class CommandEvent;

// Reads a session file (docs/session.md) record by record. Every length it reads is checked
// against its bound before anything is allocated for it. At the first damage (a record cut
// short, a length out of bounds, a frame that does not decode, time running backwards) it
// stops: next() returns nothing, and error() says where and what, as "offset 1234: what".
class SessionReader {
public:
    SessionReader() = default;
    SessionReader(const SessionReader&) = delete;
    SessionReader& operator=(const SessionReader&) = delete;
    ~SessionReader();

    // Opens the file and reads its header; false, with error(), for a file that cannot be read,
    // is not a session file or is of another version.
    bool open(const std::string& path);
    // The next record's event and its time in microseconds since the session began. Null at
    // the end of the file and at damage; damaged() tells them apart. Connection frames (type
    // ids below 200) are skipped, as a receiver of the protocol skips them.
    std::unique_ptr<CommandEvent> next(uint64_t& micros);
    // The same without decoding: the frame as it travelled, length field included.
    bool nextFrame(uint64_t& micros, std::vector<uint8_t>& frame);
    // Back to the first record; false when the file cannot be read again.
    bool rewind();

    bool isOpen() const { return _file != nullptr; }
    bool damaged() const { return _damaged; }
    // What went wrong, empty while nothing has.
    const std::string& error() const { return _error; }
    // Where the next record starts.
    uint64_t offset() const { return _offset; }
    const std::string& path() const { return _path; }
    uint32_t version() const { return _version; }
    // Wall-clock start of the session, microseconds since 1970-01-01 UTC.
    int64_t startTime() const { return _startTime; }
    const std::string& note() const { return _note; }
    // Records read so far (since open or rewind).
    uint64_t records() const { return _records; }

private:
    // Reads exactly count bytes; false at the end of the file or on a read error (then
    // _readError is set).
    bool read(uint8_t* bytes, size_t count);
    // Reads count bytes into out, growing it as the bytes arrive rather than all at once.
    bool readGrowing(std::vector<uint8_t>& out, size_t count);
    bool damage(uint64_t at, const std::string& what);
    void closeFile();

    std::FILE* _file = nullptr;
    std::string _path;
    std::string _error;
    bool _damaged = false;
    bool _readError = false;
    uint64_t _offset = 0;
    uint64_t _firstRecord = 0;
    uint64_t _lastMicros = 0;
    uint64_t _records = 0;
    uint32_t _version = 0;
    int64_t _startTime = 0;
    std::string _note;
    std::vector<uint8_t> _frame;
};

}  // namespace Kelo
