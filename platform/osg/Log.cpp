#include "osg/Log.h"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace osg {

Log& Log::the() {
    static Log log;
    return log;
}

Log::Log() : _level(LOG_WARNING), _headerModules("*") {
    configureFromEnvironment();
}

void Log::configureFromEnvironment() {
    if (const char* level = std::getenv("KELO_LOG_LEVEL")) {
        char* end = nullptr;
        long value = std::strtol(level, &end, 10);
        if (end != level && *end == '\0')
            _level = static_cast<int>(value);
    }
    if (const char* modules = std::getenv("KELO_LOG_MODULES"))
        setHeaderModules(modules);
}

void Log::setHeaderModules(const std::string& modules) {
    std::lock_guard<std::mutex> lock(_mutex);
    _headerModules = modules;
}

bool Log::checkModule(const char* module) const {
    if (_headerModules == "*")
        return true;
    const std::string name = module ? module : "";
    size_t start = 0;
    while (start <= _headerModules.size()) {
        size_t comma = _headerModules.find(',', start);
        if (comma == std::string::npos)
            comma = _headerModules.size();
        if (comma > start && _headerModules.compare(start, comma - start, name) == 0)
            return true;
        start = comma + 1;
    }
    return false;
}

Log::Sink Log::setSink(Sink sink) {
    std::lock_guard<std::mutex> lock(_mutex);
    std::swap(_sink, sink);
    return sink;
}

std::string Log::shortFile(const char* path) {
    std::string p = path ? path : "";
    size_t dot = p.rfind('.');
    size_t slash = p.rfind('/');
    if (dot != std::string::npos && (slash == std::string::npos || dot > slash))
        p.erase(dot);
    if (slash != std::string::npos && slash > 0) {
        size_t dir = p.rfind('/', slash - 1);
        if (dir != std::string::npos)
            p.erase(0, dir + 1);
    }
    return p;
}

namespace {

// Every live limiter, for flushAll().
std::mutex limitersMutex;
std::vector<LogLimiter*>& limiters() {
    static std::vector<LogLimiter*> all;
    return all;
}

}  // namespace

LogLimiter::LogLimiter(int burst, std::chrono::steady_clock::duration interval)
    : _burst(burst < 1 ? 1 : burst), _interval(interval) {
    std::lock_guard<std::mutex> lock(limitersMutex);
    limiters().push_back(this);
}

LogLimiter::~LogLimiter() {
    std::lock_guard<std::mutex> lock(limitersMutex);
    auto& all = limiters();
    for (auto it = all.begin(); it != all.end(); ++it)
        if (*it == this) {
            all.erase(it);
            break;
        }
}

long LogLimiter::held() const {
    std::lock_guard<std::mutex> lock(_mutex);
    return _held;
}

void LogLimiter::summarise(std::unique_lock<std::mutex>& lock) {
    const long held = _held;
    // Held messages all came within one interval from its start; a forced flush ends it early.
    const auto span = std::min<std::chrono::steady_clock::duration>(
        _interval, std::chrono::steady_clock::now() - _start);
    const double seconds =
        std::round(std::chrono::duration_cast<std::chrono::duration<double>>(span).count() * 10) /
        10;
    _held = 0;
    if (held == 0)
        return;
    const int level = _level;
    const char *module = _module, *file = _file, *function = _function, *format = _format;
    const int line = _line;
    lock.unlock();
    std::string shown = format ? format : "";
    while (!shown.empty() && shown.back() == '\n')
        shown.pop_back();
    Log::the().write(level, module, file, line, function,
                     "%ld more messages like \"%s\" held back in %g s\n", held, shown.c_str(),
                     seconds);
    lock.lock();
}

void LogLimiter::write(int level, const char* module, const char* file, int line,
                       const char* function, const char* format, ...) {
    if (!Log::the().admits(level))
        return;
    std::unique_lock<std::mutex> lock(_mutex);
    const auto now = std::chrono::steady_clock::now();
    if (_written == 0 || now - _start >= _interval) {
        summarise(lock);
        _start = now;
        _written = 0;
    }
    if (_written >= _burst) {
        if (_held++ == 0) {
            _level = level;
            _module = module;
            _file = file;
            _line = line;
            _function = function;
            _format = format;
        }
        return;
    }
    ++_written;
    lock.unlock();
    va_list args;
    va_start(args, format);
    Log::the().vwrite(level, module, file, line, function, format, args);
    va_end(args);
}

void LogLimiter::flush(bool force) {
    std::unique_lock<std::mutex> lock(_mutex);
    if (_held > 0 && (force || std::chrono::steady_clock::now() - _start >= _interval)) {
        summarise(lock);
        _written = 0;
    }
}

void LogLimiter::flushAll(bool force) {
    std::vector<LogLimiter*> all;
    {
        std::lock_guard<std::mutex> lock(limitersMutex);
        all = limiters();
    }
    // Limiters are statics of their call sites: they outlive every caller of this.
    for (LogLimiter* limiter : all)
        limiter->flush(force);
}

void Log::write(int level, const char* module, const char* file, int line, const char* function,
                const char* format, ...) {
    va_list args;
    va_start(args, format);
    vwrite(level, module, file, line, function, format, args);
    va_end(args);
}

void Log::vwrite(int level, const char* module, const char* file, int line, const char* function,
                 const char* format, va_list args) {
    if (!admits(level))
        return;

    va_list again;
    va_copy(again, args);
    char small[512];
    int n = std::vsnprintf(small, sizeof small, format, args);
    std::string text;
    if (n < 0) {
        text = format;
    } else if (static_cast<size_t>(n) < sizeof small) {
        text.assign(small, static_cast<size_t>(n));
    } else {
        text.resize(static_cast<size_t>(n) + 1);
        std::vsnprintf(text.data(), text.size(), format, again);
        text.resize(static_cast<size_t>(n));
    }
    va_end(again);

    std::lock_guard<std::mutex> lock(_mutex);
    LogMessage message{level,    module,          shortFile(file),    line,
                       function, std::move(text), checkModule(module)};
    if (_sink) {
        _sink(message);
        return;
    }
    if (message.header)
        std::fprintf(stderr, "[%s %s:%d %s] ", module, message.file.c_str(), line, function);
    std::fwrite(message.text.data(), 1, message.text.size(), stderr);
    std::fflush(stderr);
}

}  // namespace osg
