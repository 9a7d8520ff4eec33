#include "Kelo/SourceParamEvent.h"

namespace Kelo {

Lirra::EventType SourceParamEvent::_type("SourceParamEvent", 206, &SourceParamEvent::create);

Lirra::Event* SourceParamEvent::create() {
    return new SourceParamEvent();
}

void SourceParamEvent::addFields() {
    CommandEvent::addFields();
    addField(_pitch);
    addField(_loop);
}

void SourceParamEvent::getFields() {
    CommandEvent::getFields();
    getField(_pitch);
    getField(_loop);
}

}  // namespace Kelo
