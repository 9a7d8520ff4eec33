#include "Kelo/EmitterParamEvent.h"

namespace Kelo {

Lirra::EventType EmitterParamEvent::_type("EmitterParamEvent", 205, &EmitterParamEvent::create);

Lirra::Event* EmitterParamEvent::create() {
    return new EmitterParamEvent();
}

void EmitterParamEvent::setParam(bool spatialize, float extraParam, float gain) {
    _spatialize = spatialize;
    _extraParam = extraParam;
    _gain = gain;
}

void EmitterParamEvent::addFields() {
    CommandEvent::addFields();
    addField(_gain);
    addField(_extraParam);
    addField(_spatialize);
}

void EmitterParamEvent::getFields() {
    CommandEvent::getFields();
    getField(_gain);
    getField(_extraParam);
    getField(_spatialize);
}

}  // namespace Kelo
