#include "Kelo/Backend.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "Kelo/Emitter.h"
#include "Kelo/Log.h"
#include "Kelo/Source.h"
#include "Kelo/World.h"

namespace Kelo {

namespace {

bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

// Comma-separated labels; blanks around a label are cut, inside it kept; empty ones skipped.
std::vector<std::string> splitLabels(const std::string& text) {
    std::vector<std::string> labels;
    size_t pos = 0;
    while (true) {
        while (pos < text.size() && isBlank(text[pos]))
            ++pos;
        if (pos >= text.size())
            break;
        const size_t comma = text.find(',', pos);
        size_t end = comma == std::string::npos ? text.size() : comma;
        while (end > pos && isBlank(text[end - 1]))
            --end;
        if (end > pos)
            labels.push_back(text.substr(pos, end - pos));
        if (comma == std::string::npos)
            break;
        pos = comma + 1;
    }
    return labels;
}

}  // namespace

Backend::Backend(World& world, const char* params)
    : _world(world), _params(std::make_unique<Parmel::ParamLine>()) {
    try {
        _params->setParamLine(params);
    } catch (...) {
        std::fputs("ERROR: Backend: Cannot parse parameters\n", stderr);
    }
    const char* labels = _params->getParam("labels", nullptr);
    _labels = splitLabels(labels ? labels : "");
    world._backends.push_back(this);
}

Backend::Backend(const Backend& other)
    : _world(other._world), _params(std::make_unique<Parmel::ParamLine>()) {
    KELO_LOG(osg::LOG_FATAL, "ERROR: In Backend copy constructor\n");
}

Backend::~Backend() {
    auto& list = _world._backends;
    list.erase(std::remove(list.begin(), list.end(), this), list.end());
}

bool Backend::hasSameLabel(const Emitter& emitter) const {
    const auto& theirs = emitter.labels();
    if (_labels.empty() || theirs.empty())
        return true;
    for (const std::string& label : _labels)
        if (std::find(theirs.begin(), theirs.end(), label) != theirs.end())
            return true;
    return false;
}

void Backend::setSourceDuration(Source& source, float seconds) {
    source._duration = seconds;
    _world.setSourceDuration(source);
}

}  // namespace Kelo
