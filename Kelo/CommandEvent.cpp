#include "Kelo/CommandEvent.h"

namespace Kelo {

Lirra::EventType CommandEvent::_type("CommandEvent", 200, &CommandEvent::create);

Lirra::Event* CommandEvent::create() {
    return new CommandEvent();
}

CommandEvent::CommandEvent(const CommandEvent& other)
    : Lirra::Event(other), _command(other._command), _id(other._id) {}

CommandEvent& CommandEvent::operator=(const CommandEvent& other) {
    Lirra::Event::operator=(other);
    _command = other._command;
    _id = other._id;
    return *this;
}

void CommandEvent::addFields() {
    Lirra::Event::addFields();
    addField(_command);
    addField(_id);
}

void CommandEvent::getFields() {
    Lirra::Event::getFields();
    getField(_command);
    getField(_id);
}

}  // namespace Kelo
