#include "Kelo/CreateEmitterEvent.h"

namespace Kelo {

Lirra::EventType CreateEmitterEvent::_type("CreateEmitterEvent", 202, &CreateEmitterEvent::create);

Lirra::Event* CreateEmitterEvent::create() {
    return new CreateEmitterEvent();
}

CreateEmitterEvent& CreateEmitterEvent::operator=(const CreateEmitterEvent& other) {
    CommandEvent::operator=(other);
    if (this != &other)
        _labels = other._labels;
    return *this;
}

void CreateEmitterEvent::addFields() {
    CommandEvent::addFields();
    addField(static_cast<uint32_t>(_labels.size()));
    for (const std::string& label : _labels)
        addField(label);
}

void CreateEmitterEvent::getFields() {
    CommandEvent::getFields();
    uint32_t count = 0;
    getField(count);
    // Each label takes at least its 4-byte length: a count the frame cannot hold is refused
    // before the vector grows.
    if (count > remaining() / 4) {
        fail("more labels than the frame can hold");
        count = 0;
    }
    _labels.resize(count);
    for (std::string& label : _labels)
        getField(label);
}

}  // namespace Kelo
