#pragma once

#include "Kelo/CommandEvent.h"

namespace Kelo {

// An emitter's hull (command 35): maxBack, maxFront, minBack, minFront.
class EmitterHullEvent : public CommandEvent {
public:
    EmitterHullEvent() = default;
    // Copies the hull only: command and id start at 0.
    EmitterHullEvent(const EmitterHullEvent& other);
    EmitterHullEvent& operator=(const EmitterHullEvent& other) = default;

    void addFields() override;
    void getFields() override;
    const Lirra::EventType* type() const override { return &_type; }

    void setHull(float maxBack, float maxFront, float minBack, float minFront);
    float maxBack() const { return _maxBack; }
    float maxFront() const { return _maxFront; }
    float minBack() const { return _minBack; }
    float minFront() const { return _minFront; }

    static Lirra::Event* create();
    static Lirra::EventType _type;

private:
    float _maxBack = 0;
    float _maxFront = 0;
    float _minBack = 0;
    float _minFront = 0;
};

}  // namespace Kelo
