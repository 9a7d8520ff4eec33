#include "Kelo/Emitter.h"

#include "Kelo/Source.h"
#include "Kelo/World.h"

namespace Kelo {

namespace {

constexpr float kTolerance = 1e-6f;

}  // namespace

Emitter::Emitter(World& world, int id, const std::vector<std::string>& labels)
    : WorldPart(world, id), _labels(labels) {
    world._emitterIndex.makeRoom(id);
    enter(world._emitters, id, this);
    world._emitterIndex.put(id, this);
}

Emitter::~Emitter() {
    setSource(nullptr);
    world().destroyEmitter(*this);
    world()._emitters.erase(id());
    world()._emitterIndex.remove(id());
}

void Emitter::setSource(Source* source) {
    if (source == _source)
        return;
    if (_source)
        _source->_emitters.erase(id());
    _source = source;
    if (_source)
        enter(_source->_emitters, id(), this);
    world().setEmitterConnection(*this);
}

void Emitter::setState(State state) {
    if (!changeState(state))
        return;
    world().setEmitterState(*this);
    if (_source)
        _source->setState(state);
}

void Emitter::setHull(float maxBack, float maxFront, float minBack, float minFront) {
    _maxBack = maxBack;
    _maxFront = maxFront;
    _minBack = minBack;
    _minFront = minFront;
    world().setEmitterHull(*this);
}

void Emitter::setParam(bool spatialize, float extraParam, float gain) {
    _spatialize = spatialize;
    _extraParam = extraParam;
    _gain = gain;
    world().setEmitterParam(*this);
}

void Emitter::setTransform(const osg::Vec3f* position, const osg::Quaternion* rotation) {
    bool changed = false;
    if (position && !position->equals(_position, kTolerance)) {
        _position = *position;
        changed = true;
    }
    if (rotation && !rotation->equals(_rotation, kTolerance)) {
        _rotation = *rotation;
        changed = true;
    }
    if (changed)
        world().setEmitterTransform(*this);
}

}  // namespace Kelo
