#include "Kelo/TransformEvent.h"

namespace Kelo {

Lirra::EventType TransformEvent::_type("TransformEvent", 201, &TransformEvent::create);

Lirra::Event* TransformEvent::create() {
    return new TransformEvent();
}

TransformEvent::TransformEvent(const TransformEvent& other)
    : CommandEvent(), _position(other._position), _rotation(other._rotation) {}

TransformEvent& TransformEvent::operator=(const TransformEvent& other) {
    CommandEvent::operator=(other);
    if (this != &other) {
        _position = other._position;
        _rotation = other._rotation;
    }
    return *this;
}

void TransformEvent::addFields() {
    CommandEvent::addFields();
    for (int i = 0; i < 3; ++i)
        addField(_position[i]);
    for (int i = 0; i < 4; ++i)
        addField(_rotation[i]);
}

void TransformEvent::getFields() {
    CommandEvent::getFields();
    float values[7];
    getFloats(values, 7);
    _position = osg::Vec3f(values[0], values[1], values[2]);
    _rotation = osg::Quaternion(values[3], values[4], values[5], values[6]);  // not normalised
}

}  // namespace Kelo
