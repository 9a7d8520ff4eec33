#pragma once

#include "Kelo/CommandEvent.h"

namespace Kelo {

// A source's playing time in seconds, reported back by a server (command 23).
class SourceDurationEvent : public CommandEvent {
public:
    void addFields() override;
    void getFields() override;
    const Lirra::EventType* type() const override { return &_type; }

    float duration() const { return _duration; }
    void setDuration(float duration) { _duration = duration; }

    static Lirra::Event* create();
    static Lirra::EventType _type;

private:
    float _duration = 0.0f;
};

}  // namespace Kelo
