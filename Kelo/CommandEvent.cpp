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

const char* CommandEvent::commandName(int16_t command) {
    switch (command) {
#define KELO_COMMAND_NAME(name) \
    case name:                  \
        return #name;
        KELO_COMMAND_NAME(ResetWorld)
        KELO_COMMAND_NAME(EnableWorld)
        KELO_COMMAND_NAME(DisableWorld)
        KELO_COMMAND_NAME(SetListenerTransform)
        KELO_COMMAND_NAME(CreateSource)
        KELO_COMMAND_NAME(DestroySource)
        KELO_COMMAND_NAME(SetSourceParam)
        KELO_COMMAND_NAME(SourceDuration)
        KELO_COMMAND_NAME(PlaySource)
        KELO_COMMAND_NAME(PauseSource)
        KELO_COMMAND_NAME(StopSource)
        KELO_COMMAND_NAME(CreateEmitter)
        KELO_COMMAND_NAME(DestroyEmitter)
        KELO_COMMAND_NAME(SetEmitterParam)
        KELO_COMMAND_NAME(SetEmitterConnection)
        KELO_COMMAND_NAME(SetEmitterTransform)
        KELO_COMMAND_NAME(SetEmitterHull)
        KELO_COMMAND_NAME(PlayEmitter)
        KELO_COMMAND_NAME(PauseEmitter)
        KELO_COMMAND_NAME(StopEmitter)
#undef KELO_COMMAND_NAME
        default:
            return nullptr;
    }
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
