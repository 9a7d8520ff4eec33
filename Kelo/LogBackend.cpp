#include "Kelo/LogBackend.h"

#include "Kelo/Emitter.h"
#include "Kelo/Log.h"
#include "Kelo/Source.h"
#include "Kelo/World.h"

namespace Kelo {

BackendType LogBackend::_type("log", &LogBackend::createMethod);

Backend* LogBackend::createMethod(World& world, const char* params) {
    return new LogBackend(world, params);
}

const char* LogBackend::stateName(int state) {
    static const char* const names[] = {"play", "pause", "stop"};
    const unsigned index = static_cast<unsigned>(state) - 1u;
    return index < 3u ? names[index] : "unknown";
}

LogBackend::LogBackend(World& world, const char* params) : Backend(world, params) {
    KELO_LOG(osg::LOG_LOG, "LogBackend: create backend\n");
}

LogBackend::LogBackend(const LogBackend& other) : Backend(other) {
    KELO_LOG(osg::LOG_LOG, "LogBackend: copy backend\n");
}

LogBackend::~LogBackend() {
    KELO_LOG(osg::LOG_LOG, "LogBackend: delete backend\n");
}

void LogBackend::resetBackend() {
    KELO_LOG(osg::LOG_LOG, "LogBackend: resetBackend\n");
}

void LogBackend::setEnabled() {
    KELO_LOG(osg::LOG_LOG, "LogBackend: setEnabled\n");
}

void LogBackend::setListenerTransform() {
    const osg::Vec3f& p = world().listenerPosition();
    KELO_LOG(osg::LOG_LOG, "LogBackend: setListenerTransform(%f, %f, %f)\n",
             static_cast<double>(p.x()), static_cast<double>(p.y()), static_cast<double>(p.z()));
}

void LogBackend::createSource(Source&) {
    KELO_LOG(osg::LOG_LOG, "LogBackend: createSource\n");
}

void LogBackend::destroySource(Source&) {
    KELO_LOG(osg::LOG_LOG, "LogBackend: destroySource\n");
}

void LogBackend::setSourceData(Source&) {
    KELO_LOG(osg::LOG_LOG, "LogBackend: setSourceData\n");
}

void LogBackend::setSourceParam(Source&) {
    KELO_LOG(osg::LOG_LOG, "LogBackend: setSourceParam\n");
}

void LogBackend::setSourceState(Source& source) {
    KELO_LOG(osg::LOG_LOG, "LogBackend: setSourceState: %s\n", stateName(source.state()));
}

void LogBackend::createEmitter(Emitter&) {
    KELO_LOG(osg::LOG_LOG, "LogBackend: createEmitter\n");
}

void LogBackend::destroyEmitter(Emitter&) {
    KELO_LOG(osg::LOG_LOG, "LogBackend: destroyEmitter\n");
}

void LogBackend::setEmitterTransform(Emitter& emitter) {
    const osg::Vec3f& p = emitter.position();
    KELO_LOG(osg::LOG_LOG, "LogBackend: setEmitterTransform(%f, %f, %f)\n",
             static_cast<double>(p.x()), static_cast<double>(p.y()), static_cast<double>(p.z()));
}

void LogBackend::setEmitterHull(Emitter& emitter) {
    KELO_LOG(osg::LOG_LOG,
             "LogBackend: setEmitterHull(maxBack=%f, maxFront=%f, minBack=%f, minFront=%f)\n",
             static_cast<double>(emitter.maxBack()), static_cast<double>(emitter.maxFront()),
             static_cast<double>(emitter.minBack()), static_cast<double>(emitter.minFront()));
}

void LogBackend::setEmitterParam(Emitter&) {
    KELO_LOG(osg::LOG_LOG, "LogBackend: setEmitterParam\n");
}

void LogBackend::setEmitterConnection(Emitter&) {
    KELO_LOG(osg::LOG_LOG, "LogBackend: setEmitterConnection\n");
}

void LogBackend::setEmitterState(Emitter& emitter) {
    KELO_LOG(osg::LOG_LOG, "LogBackend: setEmitterState: %s\n", stateName(emitter.state()));
}

}  // namespace Kelo
