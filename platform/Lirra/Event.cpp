#include "Lirra/Event.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#ifdef __GLIBC__
#include <malloc.h>
#endif

#include "Lirra/Log.h"

namespace Lirra {

namespace {

std::atomic<size_t> maxFrame{64u << 20};

// Gives back the room a large frame has left in a reused buffer. (The fuzz target builds this
// file on its own, so it does not share the connection layer's helper.)
void release(std::vector<uint8_t>& buffer) {
    constexpr size_t kKept = 1u << 20;
    constexpr size_t kLarge = 16u << 20;
    buffer.clear();
    if (buffer.capacity() <= kKept)
        return;
    const bool large = buffer.capacity() > kLarge;
    std::vector<uint8_t>().swap(buffer);
#ifdef __GLIBC__
    if (large)
        malloc_trim(0);  // the allocator would keep it for frames of that size
#else
    (void)large;
#endif
}

// Registry by type id, sorted: a handful of entries, looked up for every frame received. Behind
// a pointer that is null until the first registration, so static EventTypes of other files may
// register in any order.
using Registry = std::vector<std::pair<int16_t, const EventType*>>;
Registry* registry = nullptr;

Registry::iterator entry(int16_t id) {
    return std::lower_bound(
        registry->begin(), registry->end(), id,
        [](const Registry::value_type& e, int16_t key) { return e.first < key; });
}

// Little-endian byte order on the wire, whatever the host's.
template <typename T>
void toWire(T value, uint8_t* out) {
    for (size_t i = 0; i < sizeof(T); ++i)
        out[i] = static_cast<uint8_t>(value >> (8 * i));
}

template <typename T>
T fromWire(const uint8_t* in) {
    T value = 0;
    for (size_t i = 0; i < sizeof(T); ++i)
        value |= static_cast<T>(static_cast<T>(in[i]) << (8 * i));
    return value;
}

}  // namespace

size_t Event::maxFrameSize() {
    return maxFrame.load(std::memory_order_relaxed);
}

void Event::setMaxFrameSize(size_t bytes) {
    maxFrame.store(bytes, std::memory_order_relaxed);
}

void Event::fail(const char* reason) {
    if (!_failure)
        _failure = reason;
    _in = _inEnd;  // nothing more is read from a malformed frame
}

void Event::getField(std::string& value) {
    uint32_t length = 0;
    getField(length);
    if (length > remaining()) {
        fail("string longer than the frame");
        value.clear();
        return;
    }
    value.assign(reinterpret_cast<const char*>(_in), length);
    _in += length;
}

void Event::grow(size_t count) {
    const size_t written = static_cast<size_t>(_outPos - _out->data());
    _out->resize(std::max({_out->capacity(), 2 * _out->size(), written + count + 64}));
    _outPos = _out->data() + written;
    _outEnd = _out->data() + _out->size();
}

void Event::encode(std::vector<uint8_t>& out) {
    // Open the whole buffer (or room for a typical frame) at once and trim it afterwards: one
    // resize each way instead of one per field.
    const size_t start = out.size();
    out.resize(std::max(out.capacity(), start + kHeaderSize + 64));
    _out = &out;
    _outPos = out.data() + start + kHeaderSize;
    _outEnd = out.data() + out.size();
    addFields();
    out.resize(static_cast<size_t>(_outPos - out.data()));
    _out = nullptr;
    _outPos = _outEnd = nullptr;
    const EventType* t = type();
    toWire(static_cast<uint32_t>(out.size() - start - 4), &out[start]);
    toWire(static_cast<uint16_t>(t ? t->id() : 0), &out[start + 4]);
    toWire(static_cast<uint16_t>(_stamp), &out[start + 6]);
}

bool Event::send(Sender* to) {
    // One buffer per thread, reused: sending does not allocate once it has grown.
    thread_local std::vector<uint8_t> frame;
    frame.clear();
    encode(frame);
    const bool sent = to && to->write(frame.data(), frame.size());
    release(frame);
    return sent;
}

namespace {

// Set while Event::receive decodes a frame from a peer, which may send bad ones at will: its
// refusals go through a limiter. A direct decode is the caller's to log as it sees fit.
thread_local bool fromPeer = false;

Event* refuse(const std::string& why, std::string* error) {
    if (fromPeer)
        LIRRA_LOG_LIMITED(osg::LOG_WARNING, "Refused event frame: %s\n", why.c_str());
    else
        LIRRA_LOG(osg::LOG_WARNING, "Refused event frame: %s\n", why.c_str());
    if (error)
        *error = why;
    return nullptr;
}

}  // namespace

Event* Event::decode(const uint8_t* body, size_t size, std::string* error) {
    if (size < kHeaderSize - 4)
        return refuse("frame shorter than its header", error);
    const auto id = static_cast<int16_t>(fromWire<uint16_t>(body));
    const EventType* t = EventType::find(id);
    if (!t)
        return refuse("unknown event type " + std::to_string(id), error);
    Event* event = t->create();
    if (!event->decodeInto(body, size, error)) {
        delete event;
        return nullptr;
    }
    return event;
}

bool Event::decodeInto(const uint8_t* body, size_t size, std::string* error) {
    if (size < kHeaderSize - 4)
        return refuse("frame shorter than its header", error);
    const EventType* t = type();
    const auto id = static_cast<int16_t>(fromWire<uint16_t>(body));
    if (!t || t->id() != id)
        return refuse("event type " + std::to_string(id) + " read into another type", error);
    _stamp = static_cast<int16_t>(fromWire<uint16_t>(body + 2));
    _in = body + 4;
    _inEnd = body + size;
    _failure = nullptr;
    getFields();
    const char* failure = _failure;
    const size_t left = remaining();
    _in = _inEnd = nullptr;
    _failure = nullptr;
    if (failure || left)
        return refuse(
            t->name() + ": " + (failure ? failure : std::to_string(left) + " bytes left over"),
            error);
    return true;
}

bool Event::receive(Receiver* from, Event*& event, std::string* error) {
    event = nullptr;
    if (error)
        error->clear();
    uint8_t length[4];
    if (!from || !from->readExact(length, 4))
        return false;
    const uint32_t size = fromWire<uint32_t>(length);
    if (size > maxFrameSize()) {
        LIRRA_LOG_LIMITED(osg::LOG_WARNING,
                          "Refused event frame: %u bytes, more than the %zu allowed\n", size,
                          maxFrameSize());
        if (error)
            *error = "frame of " + std::to_string(size) + " bytes, more than the " +
                     std::to_string(maxFrameSize()) + " allowed";
        return false;
    }
    // Grown as the bytes arrive: a peer that announces a large frame and sends little of it
    // does not get that much memory allocated.
    constexpr size_t kChunk = 64 * 1024;
    thread_local std::vector<uint8_t> body;
    body.clear();
    // A large frame's room is given back afterwards, whatever happened to it.
    struct Trim {
        std::vector<uint8_t>& buffer;
        ~Trim() { release(buffer); }
    } trim{body};
    while (body.size() < size) {
        const size_t at = body.size();
        body.resize(at + std::min<size_t>(kChunk, size - at));
        if (!from->readExact(body.data() + at, body.size() - at))
            return false;
    }
    struct FromPeer {
        FromPeer() { fromPeer = true; }
        ~FromPeer() { fromPeer = false; }
    } peer;
    event = decode(body.data(), size, error);
    return event != nullptr;
}

EventType::EventType(const char* name, int16_t id, Factory factory)
    : _name(name ? name : ""), _id(id), _factory(factory) {
    if (!registry)
        registry = new Registry;
    auto it = entry(id);
    if (it != registry->end() && it->first == id) {
        LIRRA_LOG(osg::LOG_WARNING,
                  "There is already an event type with the id %d (%s), skip reg.\n", id,
                  it->second->name().c_str());
        return;
    }
    registry->insert(it, {id, this});
}

EventType::~EventType() {
    if (!registry)
        return;
    auto it = entry(_id);
    if (it != registry->end() && it->second == this)
        registry->erase(it);
    if (registry->empty()) {
        delete registry;
        registry = nullptr;
    }
}

bool EventType::registered() const {
    return find(_id) == this;
}

const EventType* EventType::find(int16_t id) {
    if (!registry)
        return nullptr;
    auto it = entry(id);
    return it != registry->end() && it->first == id ? it->second : nullptr;
}

}  // namespace Lirra
