#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "Kelo/CommandEvent.h"

namespace Kelo {

// A source's sound data (command 20): the name of the file or URL it came from, a byte count
// and, when that is not 0, the bytes themselves as one block.
class SourceDataEvent : public CommandEvent {
public:
    SourceDataEvent() = default;
    // Copies the command part and the name, not the data.
    SourceDataEvent(const SourceDataEvent& other);
    // Copies everything, the data deeply.
    SourceDataEvent& operator=(const SourceDataEvent& other);

    void addFields() override;
    void getFields() override;
    const Lirra::EventType* type() const override { return &_type; }

    // Reads the whole local file named name() into the event; false, with the event left
    // empty, when that fails.
    bool loadData();
    // Writes the event's bytes to fileName, replacing it; false when there is nothing to write
    // or the write fails.
    bool storeData(const std::string& fileName) const;

    const std::string& name() const { return _name; }
    void setName(const std::string& name) { _name = name; }
    uint64_t size() const { return _size; }
    const unsigned char* data() const { return _data.get(); }
    void setData(const unsigned char* bytes, uint64_t size);

    static Lirra::Event* create();
    static Lirra::EventType _type;

private:
    std::string _name;
    uint64_t _size = 0;
    std::unique_ptr<unsigned char[]> _data;
};

}  // namespace Kelo
