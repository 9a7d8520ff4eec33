#pragma once

#include <osg/Log.h>

namespace Kelo {

// Module name under which the library logs.
extern const char* const LogModuleName;

}  // namespace Kelo

// printf-style message at an osg::LogLevel, with the library's module name and the caller's
// source position; formatting is skipped when the level is not admitted.
#define KELO_LOG(level, ...)                                                                    \
    do {                                                                                        \
        if (::osg::Log::the().admits(level))                                                    \
            ::osg::Log::the().write(level, ::Kelo::LogModuleName, __FILE__, __LINE__, __func__, \
                                    __VA_ARGS__);                                               \
    } while (0)

// The same for messages a peer can cause at will: repeats from one call site are held back
// beyond a few per interval and summarised (osg::LogLimiter).
#define KELO_LOG_LIMITED(level, ...)                                                          \
    do {                                                                                      \
        if (::osg::Log::the().admits(level)) {                                                \
            static ::osg::LogLimiter keloLogLimiter_;                                         \
            keloLogLimiter_.write(level, ::Kelo::LogModuleName, __FILE__, __LINE__, __func__, \
                                  __VA_ARGS__);                                               \
        }                                                                                     \
    } while (0)
