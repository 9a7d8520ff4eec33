#pragma once

#include <cstdint>

#include <Lirra/Event.h>

namespace Kelo {

// Command numbers: world commands in the tens, sources in the twenties, emitters in the
// thirties. The gaps are unassigned.
enum Command : int16_t {
    NoCommand = 0,
    ResetWorld = 10,
    EnableWorld = 11,
    DisableWorld = 12,
    SetListenerTransform = 13,
    CreateSource = 20,
    DestroySource = 21,
    SetSourceParam = 22,
    SourceDuration = 23,
    PlaySource = 24,
    PauseSource = 25,
    StopSource = 26,
    CreateEmitter = 30,
    DestroyEmitter = 31,
    SetEmitterParam = 32,
    SetEmitterConnection = 33,
    SetEmitterTransform = 34,
    SetEmitterHull = 35,
    PlayEmitter = 36,
    PauseEmitter = 37,
    StopEmitter = 38,
};

// A command about the world or about one source or emitter, by id. Subclasses carry the
// command's payload after these two fields.
class CommandEvent : public Lirra::Event {
public:
    // The stamp every sender puts in the header just before sending.
    static constexpr int16_t kSenderStamp = 3378;

    CommandEvent(int16_t command = 0, int16_t id = 0) : _command(command), _id(id) {}
    CommandEvent(const CommandEvent& other);
    CommandEvent& operator=(const CommandEvent& other);

    void addFields() override;
    void getFields() override;
    ~CommandEvent() override = default;
    const Lirra::EventType* type() const override { return &_type; }

    int16_t command() const { return _command; }
    int16_t id() const { return _id; }
    void setCommand(int16_t command) { _command = command; }
    void setId(int16_t id) { _id = id; }

    // The command's name as the enum spells it ("SetEmitterTransform"); null for a number
    // that is no command.
    static const char* commandName(int16_t command);
    // A world id on the wire: its low 16 bits (70000 travels as 4464).
    static int16_t wireId(int id) { return static_cast<int16_t>(static_cast<uint16_t>(id)); }

    static Lirra::Event* create();
    static Lirra::EventType _type;

protected:
    int16_t _command;
    int16_t _id;
};

}  // namespace Kelo
