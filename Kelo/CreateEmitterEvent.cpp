#include "Kelo/CreateEmitterEvent.h"

#include <algorithm>

namespace Kelo {

static_assert(CreateEmitterEvent::kMaxLabels == 32 && CreateEmitterEvent::kMaxLabelBytes == 255,
              "the refusals below name the limits");

Lirra::EventType CreateEmitterEvent::_type("CreateEmitterEvent", 202, &CreateEmitterEvent::create);

Lirra::Event* CreateEmitterEvent::create() {
    return new CreateEmitterEvent();
}

CreateEmitterEvent& CreateEmitterEvent::operator=(const CreateEmitterEvent& other) {
    CommandEvent::operator=(other);
    if (this != &other)
        _labels = other._labels;
    return *this;
}

bool CreateEmitterEvent::setFittingLabels(const std::vector<std::string>& labels) {
    const size_t count = std::min(labels.size(), kMaxLabels);
    bool whole = count == labels.size();
    _labels.assign(labels.begin(), labels.begin() + static_cast<long>(count));
    for (std::string& label : _labels) {
        if (label.size() <= kMaxLabelBytes)
            continue;
        size_t end = kMaxLabelBytes;
        // Back up over continuation bytes (10xxxxxx) so that no character is split.
        while (end > 0 && (static_cast<unsigned char>(label[end]) & 0xc0) == 0x80)
            --end;
        label.resize(end);
        whole = false;
    }
    return whole;
}

void CreateEmitterEvent::addFields() {
    CommandEvent::addFields();
    addField(static_cast<uint32_t>(_labels.size()));
    for (const std::string& label : _labels)
        addField(label);
}

void CreateEmitterEvent::getFields() {
    CommandEvent::getFields();
    uint32_t count = 0;
    getField(count);
    // Checked before the vector grows: a count over the limit or more than the frame can hold
    // (each label takes at least its 4-byte length) allocates nothing.
    if (count > kMaxLabels) {
        fail("more than 32 labels");
        count = 0;
    } else if (count > remaining() / 4) {
        fail("more labels than the frame can hold");
        count = 0;
    }
    _labels.resize(count);
    for (std::string& label : _labels) {
        // The length is checked before the label is allocated.
        uint32_t length = 0;
        getField(length);
        if (length > kMaxLabelBytes) {
            fail("label longer than 255 bytes");
            length = 0;
        } else if (length > remaining()) {
            fail("string longer than the frame");
            length = 0;
        }
        label.resize(length);
        getData(label.data(), length);
    }
}

}  // namespace Kelo
