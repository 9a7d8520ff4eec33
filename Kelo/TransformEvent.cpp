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
    // Straight into the members. Through one array of seven, the copy stored the bytes in two
    // overlapping pieces and read them back across both, a stall of a dozen cycles or more.
    getFloats(&_position[0], 3);
    getFloats(&_rotation[0], 4);  // not normalised
}

}  // namespace Kelo
