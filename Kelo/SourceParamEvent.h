#pragma once

#include "Kelo/CommandEvent.h"

namespace Kelo {

// A source's pitch and loop flag (command 22), in that order on the wire.
class SourceParamEvent : public CommandEvent {
public:
    void addFields() override;
    void getFields() override;
    const Lirra::EventType* type() const override { return &_type; }

    // In the argument order of Source::setParam.
    void setParam(bool loop, float pitch) {
        _loop = loop;
        _pitch = pitch;
    }
    float pitch() const { return _pitch; }
    bool loop() const { return _loop; }

    static Lirra::Event* create();
    static Lirra::EventType _type;

private:
    float _pitch = 1.0f;
    bool _loop = false;
};

}  // namespace Kelo
