#pragma once

#include "Kelo/CommandEvent.h"

namespace Kelo {

// The source an emitter is connected to, by id; 0 when it has none (command 33).
class EmitterConnectionEvent : public CommandEvent {
public:
    void addFields() override;
    void getFields() override;
    const Lirra::EventType* type() const override { return &_type; }

    int16_t sourceId() const { return _sourceId; }
    void setSourceId(int16_t sourceId) { _sourceId = sourceId; }

    static Lirra::Event* create();
    static Lirra::EventType _type;

private:
    int16_t _sourceId = 0;
};

}  // namespace Kelo
