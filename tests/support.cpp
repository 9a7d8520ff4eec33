#include "support.h"

#include <Kelo/Emitter.h>
#include <Kelo/Source.h>

namespace KeloTest {

Kelo::BackendType RecordingBackend::_type("record", [](Kelo::World& world, const char* params) {
    return static_cast<Kelo::Backend*>(new RecordingBackend(world, params));
});

RecordingBackend::RecordingBackend(Kelo::World& world, const char* params,
                                   std::vector<std::string>* journal, std::string tag)
    : Backend(world, params), _journal(journal), _tag(std::move(tag)) {}

RecordingBackend::~RecordingBackend() {
    if (deleted)
        *deleted = true;
}

void RecordingBackend::record(const std::string& call) {
    calls.push_back(call);
    if (_journal)
        _journal->push_back(_tag + call);
}

#define KELO_RECORD(op, Type)                                             \
    void RecordingBackend::op(Kelo::Type& part) {                         \
        record(std::string(#op) + "(" + std::to_string(part.id()) + ")"); \
    }
KELO_RECORD(createSource, Source)
KELO_RECORD(destroySource, Source)
KELO_RECORD(setSourceData, Source)
KELO_RECORD(setSourceParam, Source)
KELO_RECORD(setSourceState, Source)
KELO_RECORD(createEmitter, Emitter)
KELO_RECORD(destroyEmitter, Emitter)
KELO_RECORD(setEmitterTransform, Emitter)
KELO_RECORD(setEmitterHull, Emitter)
KELO_RECORD(setEmitterParam, Emitter)
KELO_RECORD(setEmitterConnection, Emitter)
KELO_RECORD(setEmitterState, Emitter)
#undef KELO_RECORD

bool RecordingBackend::update() {
    ++updates;
    return false;  // the world ignores what backends answer
}

LogCapture::LogCapture(int level) : _oldLevel(osg::Log::the().level()) {
    osg::Log::the().setLevel(level);
    _oldSink = osg::Log::the().setSink(
        [this](const osg::LogMessage& message) { messages.push_back(message); });
}

LogCapture::~LogCapture() {
    osg::Log::the().setSink(std::move(_oldSink));
    osg::Log::the().setLevel(_oldLevel);
}

std::vector<std::string> LogCapture::texts() const {
    std::vector<std::string> out;
    for (const auto& m : messages)
        out.push_back(m.text);
    return out;
}

std::vector<std::string> LogCapture::texts(int level) const {
    std::vector<std::string> out;
    for (const auto& m : messages)
        if (m.level == level)
            out.push_back(m.text);
    return out;
}

}  // namespace KeloTest
