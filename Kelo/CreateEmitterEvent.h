#pragma once

#include <string>
#include <vector>

#include "Kelo/CommandEvent.h"

namespace Kelo {

// An emitter's labels, for its creation (command 30): a count, then each label as a string.
class CreateEmitterEvent : public CommandEvent {
public:
    CreateEmitterEvent() = default;
    // Copies the command part only: the copy has no labels.
    CreateEmitterEvent(const CreateEmitterEvent& other) : CommandEvent(other) {}
    CreateEmitterEvent& operator=(const CreateEmitterEvent& other);

    void addFields() override;
    void getFields() override;
    const Lirra::EventType* type() const override { return &_type; }

    const std::vector<std::string>& labels() const { return _labels; }
    void setLabels(const std::vector<std::string>& labels) { _labels = labels; }

    static Lirra::Event* create();
    static Lirra::EventType _type;

private:
    std::vector<std::string> _labels;
};

}  // namespace Kelo
