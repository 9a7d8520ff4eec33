#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "Kelo/CommandEvent.h"

namespace Kelo {

// An emitter's labels, for its creation (command 30): a count, then each label as a string.
//
// A receiver keeps the labels as long as the emitter lives, so their number and length are
// bounded: a frame with more than kMaxLabels labels, or a label longer than kMaxLabelBytes, is
// refused as malformed. What an emitter can then cost a receiver is bounded too, and stays
// within a small multiple of the frame's bytes.
class CreateEmitterEvent : public CommandEvent {
public:
    static constexpr size_t kMaxLabels = 32;
    static constexpr size_t kMaxLabelBytes = 255;

    CreateEmitterEvent() = default;
    // Copies the command part only: the copy has no labels.
    CreateEmitterEvent(const CreateEmitterEvent& other) : CommandEvent(other) {}
    CreateEmitterEvent& operator=(const CreateEmitterEvent& other);

    void addFields() override;
    void getFields() override;
    const Lirra::EventType* type() const override { return &_type; }

    const std::vector<std::string>& labels() const { return _labels; }
    // Sets the labels as they are, even beyond the limits (a receiver then refuses the frame).
    void setLabels(const std::vector<std::string>& labels) { _labels = labels; }
    // Sets the labels cut to what a receiver accepts: the first kMaxLabels, each at most
    // kMaxLabelBytes long and not cut inside a UTF-8 character. False when something was cut.
    bool setFittingLabels(const std::vector<std::string>& labels);

    static Lirra::Event* create();
    static Lirra::EventType _type;

private:
    std::vector<std::string> _labels;
};

}  // namespace Kelo
