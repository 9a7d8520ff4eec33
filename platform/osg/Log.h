#pragma once

#include <atomic>
#include <chrono>
#include <cstdarg>
#include <functional>
#include <mutex>
#include <string>

namespace osg {

// Message levels. Level 0 is always written; the others only up to the threshold.
enum LogLevel : int { LOG_LOG = 0, LOG_FATAL = 1, LOG_WARNING = 2, LOG_NOTICE = 3 };

// One formatted message as handed to a sink.
struct LogMessage {
    int level;
    const char* module;
    std::string file;  // short form, e.g. "Kelo/World"
    int line;
    const char* function;
    std::string text;  // exactly as formatted; carries its own line end (or none)
    bool header;       // whether the module check asks for a header
};

// The process-wide log. Each message is formatted and delivered under one lock, so lines of
// concurrent threads never interleave.
class Log {
public:
    using Sink = std::function<void(const LogMessage&)>;

    static Log& the();

    // Threshold: messages with a level above it are dropped (level 0 never is). Initially
    // taken from KELO_LOG_LEVEL, default LOG_WARNING.
    int level() const { return _level; }
    void setLevel(int level) { _level = level; }
    bool admits(int level) const { return level <= _level || level == LOG_LOG; }

    // Reads KELO_LOG_LEVEL and KELO_LOG_MODULES again (done once at start-up); unset or
    // unreadable variables leave the current setting.
    void configureFromEnvironment();

    // Module check for headers: a comma-separated list of module names, "*" for every
    // module, empty for none. Initially taken from KELO_LOG_MODULES, default "*".
    void setHeaderModules(const std::string& modules);
    bool checkModule(const char* module) const;

    // Routes messages to a callback instead of standard error; an empty sink restores
    // standard error. Returns the previous sink.
    Sink setSink(Sink sink);

    void write(int level, const char* module, const char* file, int line, const char* function,
               const char* format, ...) __attribute__((format(printf, 7, 8)));
    void vwrite(int level, const char* module, const char* file, int line, const char* function,
                const char* format, va_list args) __attribute__((format(printf, 7, 0)));

    // "a/b/Kelo/World.cpp" -> "Kelo/World": the last directory, the file name, no extension.
    static std::string shortFile(const char* path);

    Log(const Log&) = delete;
    Log& operator=(const Log&) = delete;

private:
    Log();

    mutable std::mutex _mutex;
    std::atomic<int> _level;
    std::string _headerModules;
    Sink _sink;
};

// Holds back repeats of one message (one call site, one limiter): in each interval the first
// few are written, the rest only counted, and one line then tells how many were held back. A
// peer that makes the same fault a million times a second must not fill the disk with it.
class LogLimiter {
public:
    static constexpr int kBurst = 5;
    static constexpr std::chrono::seconds kInterval{10};

    explicit LogLimiter(int burst = kBurst,
                        std::chrono::steady_clock::duration interval = kInterval);
    ~LogLimiter();
    LogLimiter(const LogLimiter&) = delete;
    LogLimiter& operator=(const LogLimiter&) = delete;

    // Writes the message unless this interval's burst is spent; a message that opens a new
    // interval is preceded by the summary of the one before.
    void write(int level, const char* module, const char* file, int line, const char* function,
               const char* format, ...) __attribute__((format(printf, 7, 8)));
    // Writes the summary of an interval that has ended with messages held back. Messages
    // that never come again are still counted this way: the owner of a long-running loop calls
    // flushAll() now and then.
    // With force, also an interval still under way: for a program that is about to stop.
    void flush(bool force = false);
    static void flushAll(bool force = false);
    // Messages held back and not yet summarised.
    long held() const;

private:
    void summarise(std::unique_lock<std::mutex>& lock);

    const int _burst;
    const std::chrono::steady_clock::duration _interval;
    mutable std::mutex _mutex;
    std::chrono::steady_clock::time_point _start{};
    int _written = 0;
    long _held = 0;
    // Where the held-back messages came from, for the summary.
    int _level = 0;
    const char* _module = nullptr;
    const char* _file = nullptr;
    int _line = 0;
    const char* _function = nullptr;
    const char* _format = nullptr;
};

}  // namespace osg
