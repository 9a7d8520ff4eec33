#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

namespace Lirra {
class Event;
}

namespace Kelo {

// Writes a session file (docs/session.md): a header, then one record per command event, each
// the event's frame as it travels on the wire, preceded by its time since the session began.
// What is written is pushed to the file at least every kFlushSeconds (at the next write or
// flushIfDue()), so a crash loses little; the file is valid up to its last whole record, and a
// reader stops cleanly at a record cut short. Safe to use from several threads.
class SessionWriter {
public:
    SessionWriter() = default;
    SessionWriter(const SessionWriter&) = delete;
    SessionWriter& operator=(const SessionWriter&) = delete;
    // Closes the file.
    ~SessionWriter();

    // Creates the file (replacing one of that name) and writes the header, with note as the
    // text that says where the session comes from (cut to kMaxNoteBytes). False, with error(),
    // when the file cannot be created or written.
    bool open(const std::string& path, const std::string& note = "");
    // Appends one frame (length field included) with the time since open(). False when it is
    // not a well-formed frame, when the file is not open, has failed or has reached its limit.
    bool write(const uint8_t* frame, size_t size);
    // Appends an event's frame, encoded as a sender would.
    bool write(Lirra::Event& event);
    // Pushes what is buffered to the file when the last push is kFlushSeconds old.
    void flushIfDue();
    // Pushes everything to the file now; false when that failed.
    bool flush();
    // Flushes and closes; false when any write failed (error() says why).
    bool close();

    // Bytes the file may take, header included (0: no limit). A record that would go beyond is
    // not written, and nothing more is: the file keeps the session up to there.
    void setLimit(uint64_t bytes);
    uint64_t limit() const;
    // The limit has stopped the recording.
    bool full() const;
    // A write failed (disk full, file gone); error() says why. Nothing more is written.
    bool failed() const;
    std::string error() const;
    bool isOpen() const;
    const std::string& path() const { return _path; }
    // Bytes written so far (header included) and records among them.
    uint64_t bytes() const;
    uint64_t records() const;
    // Seconds since open().
    double seconds() const;

    // A file name made from a pattern: strftime conversions (%Y, %m, %d, %H, %M, %S; %% for a
    // percent sign) become the local time now, so that each recording, for instance each
    // start of a service, gets a file of its own. Empty when the result would be empty or
    // longer than kMaxNameBytes.
    static std::string expandName(const std::string& pattern);
    static constexpr size_t kMaxNameBytes = 4096;

    // "KELOSESS": the first 8 bytes of every session file.
    static constexpr char kMagic[9] = "KELOSESS";
    static constexpr uint32_t kVersion = 1;
    // The protocol version of the frames inside.
    static constexpr uint32_t kProtocolVersion = 1;
    // Magic, versions, start time and the note's byte count; the note follows.
    static constexpr size_t kHeaderSize = 28;
    static constexpr size_t kMaxNoteBytes = 1024;
    // Time, then the frame.
    static constexpr size_t kRecordHeaderSize = 8;
    static constexpr double kFlushSeconds = 0.2;

private:
    // With _mutex held.
    bool put(const uint8_t* bytes, size_t count);
    bool flushLocked();
    void fail(const std::string& what);

    mutable std::mutex _mutex;
    std::FILE* _file = nullptr;
    std::string _path;
    std::string _error;
    bool _failed = false;
    bool _full = false;
    uint64_t _limit = 0;
    uint64_t _bytes = 0;
    uint64_t _records = 0;
    uint64_t _lastMicros = 0;
    std::chrono::steady_clock::time_point _start;
    std::chrono::steady_clock::time_point _lastFlush;
    std::vector<uint8_t> _frame;  // reused for encoding
};

}  // namespace Kelo
