#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Lirra/Event.h"

namespace Lirra {

// Decodes frames into one object per event type, made by the type's factory the first time a
// frame of that type arrives and reused for every later one: a receiver that has seen each
// type once no longer allocates per frame. An event returned stays the decoder's and keeps its
// fields until the next frame of its type is decoded, or until done(). Its code is with the
// event's, in Event.cpp.
class EventDecoder {
public:
    EventDecoder() = default;
    EventDecoder(const EventDecoder&) = delete;
    EventDecoder& operator=(const EventDecoder&) = delete;

    // Decodes the part of a frame after its length field, as Event::decode does; null (with
    // the reason in *error) when refused.
    Event* decode(const uint8_t* body, size_t size, std::string* error = nullptr);
    // Reads one frame and decodes it, as Event::receive does, from the receiver's own buffer
    // when it holds the frame whole.
    bool receive(Receiver* from, Event*& event, std::string* error = nullptr);
    // The caller is finished with the event returned last: one decoded from a large frame is
    // freed, so that a single big frame does not keep its memory for the decoder's lifetime.
    void done();

    // Frames larger than this are decoded into an object that done() frees.
    static constexpr size_t kKeptFrame = 64 * 1024;

private:
    struct Slot {
        int16_t id;
        const EventType* type;
        unsigned generation;  // of the registry when type was looked up
        std::unique_ptr<Event> event;
    };
    Slot* slot(int16_t id);
    Event* decode(const uint8_t* body, size_t size, std::string* error, bool fromPeer);

    std::vector<Slot> _slots;
    size_t _last = 0;  // the slot used last: a stream is mostly one type
    Event* _large = nullptr;
    std::vector<uint8_t> _body;  // a frame the receiver cannot hand over in place
};

}  // namespace Lirra
