#pragma once

#include "Kelo/CommandEvent.h"

namespace Kelo {

// An emitter's parameters (command 32). On the wire gain, extra parameter, spatialize: the
// order in which the emitter declares them, the reverse of setParam's float arguments.
class EmitterParamEvent : public CommandEvent {
public:
    void addFields() override;
    void getFields() override;
    const Lirra::EventType* type() const override { return &_type; }

    // In the argument order of Emitter::setParam.
    void setParam(bool spatialize, float extraParam, float gain);
    float gain() const { return _gain; }
    float extraParam() const { return _extraParam; }
    bool spatialize() const { return _spatialize; }

    static Lirra::Event* create();
    static Lirra::EventType _type;

private:
    float _gain = 1.0f;
    float _extraParam = 0.0f;
    bool _spatialize = true;
};

}  // namespace Kelo
