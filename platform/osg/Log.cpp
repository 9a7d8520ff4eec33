#include "osg/Log.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

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

void Log::write(int level, const char* module, const char* file, int line, const char* function,
                const char* format, ...) {
    if (!admits(level))
        return;

    va_list args;
    va_start(args, format);
    va_list again;
    va_copy(again, args);
    char small[512];
    int n = std::vsnprintf(small, sizeof small, format, args);
    va_end(args);
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
