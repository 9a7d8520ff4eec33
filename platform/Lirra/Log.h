#pragma once

// Internal to the networking library: its messages go to the shared log under its own module
// name. Not installed.

#include <osg/Log.h>

#define LIRRA_LOG(level, ...) \
    ::osg::Log::the().write(level, "Lirra", __FILE__, __LINE__, __func__, __VA_ARGS__)
