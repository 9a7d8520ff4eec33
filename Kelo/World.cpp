#include "Kelo/World.h"

#include <chrono>

#include "Kelo/Backend.h"
#include "Kelo/BackendFactory.h"
#include "Kelo/Emitter.h"
#include "Kelo/Log.h"
#include "Kelo/Source.h"

namespace Kelo {

namespace {

constexpr float kTolerance = 1e-6f;

// Calls one backend operation on every backend, in the order of their creation.
template <typename Operation, typename... Args>
inline void fanOut(const std::vector<Backend*>& backends, Operation operation, Args&... args) {
    for (Backend* backend : backends)
        (backend->*operation)(args...);
}

// False when id is past the largest key: the usual case for a new part, told without a search.
template <typename Part>
bool mayHold(const std::map<int, Part*>& parts, int id) {
    return !parts.empty() && id <= parts.rbegin()->first;
}

}  // namespace

World::World() = default;

World::World(const World&) {
    KELO_LOG(osg::LOG_WARNING, "In World copy constructor\n");
}

World::~World() {
    if (!_emitters.empty() || !_sources.empty())
        KELO_LOG(osg::LOG_FATAL, "clearWorld() should be called in derived World dest.\n");
}

void World::resetWorld() {
    clearWorld();
    fanOut(_backends, &Backend::resetBackend);
}

void World::reset() {
    resetWorld();
}

void World::clearWorld() {
    // Parts take themselves out of the maps in their destructors.
    while (!_emitters.empty())
        delete _emitters.begin()->second;
    while (!_sources.empty())
        delete _sources.begin()->second;
}

void World::setEnabled() {
    fanOut(_backends, &Backend::setEnabled);
}

void World::setListenerTransform() {
    fanOut(_backends, &Backend::setListenerTransform);
}

void World::createSource(Source& source) {
    fanOut(_backends, &Backend::createSource, source);
}

void World::destroySource(Source& source) {
    fanOut(_backends, &Backend::destroySource, source);
}

void World::setSourceData(Source& source) {
    fanOut(_backends, &Backend::setSourceData, source);
}

void World::setSourceParam(Source& source) {
    fanOut(_backends, &Backend::setSourceParam, source);
}

// Backends have no duration notification; a subclass overrides this to learn of one.
void World::setSourceDuration(Source&) {}

void World::setSourceState(Source& source) {
    fanOut(_backends, &Backend::setSourceState, source);
}

void World::createEmitter(Emitter& emitter) {
    fanOut(_backends, &Backend::createEmitter, emitter);
}

void World::destroyEmitter(Emitter& emitter) {
    fanOut(_backends, &Backend::destroyEmitter, emitter);
}

void World::setEmitterTransform(Emitter& emitter) {
    fanOut(_backends, &Backend::setEmitterTransform, emitter);
}

void World::setEmitterHull(Emitter& emitter) {
    fanOut(_backends, &Backend::setEmitterHull, emitter);
}

void World::setEmitterParam(Emitter& emitter) {
    fanOut(_backends, &Backend::setEmitterParam, emitter);
}

void World::setEmitterConnection(Emitter& emitter) {
    fanOut(_backends, &Backend::setEmitterConnection, emitter);
}

void World::setEmitterState(Emitter& emitter) {
    fanOut(_backends, &Backend::setEmitterState, emitter);
}

void World::setEnabled(bool enabled) {
    _enabled = enabled;
    setEnabled();
}

void World::setSpatialize(bool spatialize) {
    _spatialize = spatialize;
}

void World::setListenerTransform(const osg::Vec3f& position, const osg::Quaternion& rotation) {
    if (position.equals(_listenerPosition, kTolerance) &&
        rotation.equals(_listenerRotation, kTolerance))
        return;
    _listenerPosition = position;
    _listenerRotation = rotation;
    setListenerTransform();
}

int World::claimId(int id) {
    if (id != 0) {
        if (_lastId < id)
            _lastId = id;
        return id;
    }
    // Wraps through the negative ids back to 0 instead of overflowing.
    _lastId = static_cast<int>(static_cast<unsigned>(_lastId) + 1u);
    return _lastId;
}

Emitter* World::createEmitter(const std::vector<std::string>& labels, int id) {
    if (id != 0 && getEmitter(id)) {
        KELO_LOG(osg::LOG_FATAL, "There is already a Kelo emitter with the ID %d", id);
        return nullptr;
    }
    id = claimId(id);
    if (id == 0)
        return nullptr;
    // The emitter enters _emitters itself; clearWorld() or its owner deletes it.
    Emitter* emitter = new Emitter(*this, id, labels);
    createEmitter(*emitter);
    return emitter;
}

Emitter* World::getEmitter(int id) const {
    if (Index<Emitter>::covers(id))
        return _emitterIndex.find(id);
    if (!mayHold(_emitters, id))
        return nullptr;
    auto it = _emitters.find(id);
    return it == _emitters.end() ? nullptr : it->second;
}

Source* World::createSource(int id) {
    if (id != 0 && getSource(id)) {
        KELO_LOG(osg::LOG_FATAL, "There is already a source with the ID %d\n", id);
        return nullptr;
    }
    id = claimId(id);
    if (id == 0)
        return nullptr;
    // The source enters _sources itself; clearWorld() or its owner deletes it.
    Source* source = new Source(*this, id);
    createSource(*source);
    return source;
}

Source* World::getSource(int id) const {
    if (Index<Source>::covers(id))
        return _sourceIndex.find(id);
    if (!mayHold(_sources, id))
        return nullptr;
    auto it = _sources.find(id);
    return it == _sources.end() ? nullptr : it->second;
}

bool World::update() {
    const auto start = std::chrono::steady_clock::now();
    fanOut(_backends, &Backend::update);
    _updateTimes.observe(
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    return true;
}

Backend* World::addBackend(const char* type, const char* params) {
    const char* name = type ? type : "";
    Backend* backend = BackendFactory::_the.createBackend(*this, name, params);
    if (!backend) {
        KELO_LOG(osg::LOG_WARNING, "Could not create Kelo backend: %s\n", name);
        return nullptr;
    }
    KELO_LOG(osg::LOG_NOTICE, "Create new Kelo backend: %s\n", name);
    initBackendState(*backend);
    return backend;
}

void World::deleteAllBackends() {
    // Each backend takes itself out of the list in its destructor.
    while (!_backends.empty())
        delete _backends.front();
}

void World::initBackendState(Backend& backend) {
    backend.setEnabled();
    backend.setListenerTransform();
    for (const auto& [id, source] : _sources) {
        backend.createSource(*source);
        backend.setSourceData(*source);
        backend.setSourceParam(*source);
        backend.setSourceState(*source);
    }
    for (const auto& [id, emitter] : _emitters) {
        backend.createEmitter(*emitter);
        backend.setEmitterTransform(*emitter);
        backend.setEmitterHull(*emitter);
        backend.setEmitterParam(*emitter);
        backend.setEmitterConnection(*emitter);
        backend.setEmitterState(*emitter);
    }
}

void World::print() const {
    KELO_LOG(osg::LOG_LOG, "Kelo Emitter/Source/Backend count: %d/%d/%d\n",
             static_cast<int>(_emitters.size()), static_cast<int>(_sources.size()),
             static_cast<int>(_backends.size()));
}

}  // namespace Kelo
