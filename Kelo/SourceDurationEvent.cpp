#include "Kelo/SourceDurationEvent.h"

namespace Kelo {

Lirra::EventType SourceDurationEvent::_type("SourceDurationEvent", 208,
                                            &SourceDurationEvent::create);

Lirra::Event* SourceDurationEvent::create() {
    return new SourceDurationEvent();
}

void SourceDurationEvent::addFields() {
    CommandEvent::addFields();
    addField(_duration);
}

void SourceDurationEvent::getFields() {
    CommandEvent::getFields();
    getField(_duration);
}

}  // namespace Kelo
