#include "Kelo/EmitterConnectionEvent.h"

namespace Kelo {

Lirra::EventType EmitterConnectionEvent::_type("EmitterConnectionEvent", 203,
                                               &EmitterConnectionEvent::create);

Lirra::Event* EmitterConnectionEvent::create() {
    return new EmitterConnectionEvent();
}

void EmitterConnectionEvent::addFields() {
    CommandEvent::addFields();
    addField(_sourceId);
}

void EmitterConnectionEvent::getFields() {
    CommandEvent::getFields();
    getField(_sourceId);
}

}  // namespace Kelo
