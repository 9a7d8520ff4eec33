#pragma once

// Internal to the networking library: its messages go to the shared log under its own module
// name. Not installed.

#include <osg/Log.h>

#define LIRRA_LOG(level, ...) \
    ::osg::Log::the().write(level, "Lirra", __FILE__, __LINE__, __func__, __VA_ARGS__)

// For messages a peer can cause at will: see osg::LogLimiter.
#define LIRRA_LOG_LIMITED(level, ...)                                                          \
    do {                                                                                       \
        if (::osg::Log::the().admits(level)) {                                                 \
            static ::osg::LogLimiter lirraLogLimiter_;                                         \
            lirraLogLimiter_.write(level, "Lirra", __FILE__, __LINE__, __func__, __VA_ARGS__); \
        }                                                                                      \
    } while (0)
