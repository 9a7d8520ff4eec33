#include "Kelo/EmitterHullEvent.h"

namespace Kelo {

Lirra::EventType EmitterHullEvent::_type("EmitterHullEvent", 204, &EmitterHullEvent::create);

Lirra::Event* EmitterHullEvent::create() {
    return new EmitterHullEvent();
}

EmitterHullEvent::EmitterHullEvent(const EmitterHullEvent& other)
    : CommandEvent(),
      _maxBack(other._maxBack),
      _maxFront(other._maxFront),
      _minBack(other._minBack),
      _minFront(other._minFront) {}

void EmitterHullEvent::setHull(float maxBack, float maxFront, float minBack, float minFront) {
    _maxBack = maxBack;
    _maxFront = maxFront;
    _minBack = minBack;
    _minFront = minFront;
}

void EmitterHullEvent::addFields() {
    CommandEvent::addFields();
    addField(_maxBack);
    addField(_maxFront);
    addField(_minBack);
    addField(_minFront);
}

void EmitterHullEvent::getFields() {
    CommandEvent::getFields();
    getField(_maxBack);
    getField(_maxFront);
    getField(_minBack);
    getField(_minFront);
}

}  // namespace Kelo
