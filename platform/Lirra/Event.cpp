#include "Lirra/Event.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#ifdef __GLIBC__
#include <malloc.h>
#endif

#include "Lirra/EventDecoder.h"
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
std::atomic<unsigned> registryGeneration{0};

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
    // The frame's room doubles: a large frame takes a few resizes, and only what is opened gets
    // zeroed, however much the buffer already holds before the frame.
    _out->resize(written + std::max(count + 64, written - _outBegin));
    _outPos = _out->data() + written;
    _outEnd = _out->data() + _out->size();
}

void Event::encode(std::vector<uint8_t>& out) {
    // Open room for a typical frame at once and trim it afterwards: one resize each way instead
    // of one per field. Not the buffer's whole capacity: resizing zeroes what it opens, and a
    // buffer that kept the room of a large frame (a sound's data, say) would have all of it
    // zeroed again for every small event after it.
    const size_t start = out.size();
    out.resize(start + kHeaderSize + 64);
    _out = &out;
    _outBegin = start;
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

// A frame from a peer, which may send bad ones at will, is refused through a limiter. A
// direct decode is the caller's to log as it sees fit.
Event* refuse(const std::string& why, std::string* error, bool fromPeer) {
    if (fromPeer)
        LIRRA_LOG_LIMITED(osg::LOG_WARNING, "Refused event frame: %s\n", why.c_str());
    else
        LIRRA_LOG(osg::LOG_WARNING, "Refused event frame: %s\n", why.c_str());
    if (error)
        *error = why;
    return nullptr;
}

Event* decodeNew(const uint8_t* body, size_t size, std::string* error, bool fromPeer) {
    if (size < Event::kHeaderSize - 4)
        return refuse("frame shorter than its header", error, fromPeer);
    const auto id = static_cast<int16_t>(fromWire<uint16_t>(body));
    const EventType* t = EventType::find(id);
    if (!t)
        return refuse("unknown event type " + std::to_string(id), error, fromPeer);
    std::unique_ptr<Event> event(t->create());
    if (!event->decodeInto(body, size, error))
        return nullptr;
    return event.release();
}

}  // namespace

Event* Event::decode(const uint8_t* body, size_t size, std::string* error) {
    return decodeNew(body, size, error, false);
}

bool Event::decodeInto(const uint8_t* body, size_t size, std::string* error) {
    return read(body, size, error, false);
}

bool Event::read(const uint8_t* body, size_t size, std::string* error, bool fromPeer,
                 const EventType* known) {
    if (size < kHeaderSize - 4)
        return refuse("frame shorter than its header", error, fromPeer);
    const EventType* t = known ? known : type();
    const auto id = static_cast<int16_t>(fromWire<uint16_t>(body));
    if (!t || t->id() != id)
        return refuse("event type " + std::to_string(id) + " read into another type", error,
                      fromPeer);
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
            error, fromPeer);
    return true;
}

bool Event::readFrame(Receiver* from, std::vector<uint8_t>& body, std::string* error) {
    body.clear();
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
    while (body.size() < size) {
        const size_t at = body.size();
        body.resize(at + std::min<size_t>(kChunk, size - at));
        if (!from->readExact(body.data() + at, body.size() - at))
            return false;
    }
    return true;
}

namespace {

// Reads one frame and decodes it with decode(bytes, size): in place when the receiver holds
// the frame whole, else through body, whose room a large frame gives back afterwards.
template <typename Decode>
bool readAndDecode(Receiver* from, Event*& event, std::string* error, std::vector<uint8_t>& body,
                   Decode decode) {
    event = nullptr;
    if (error)
        error->clear();
    if (!from)
        return false;
    size_t size = 0;
    if (const uint8_t* frame = from->nextFrame(size)) {
        event = decode(frame, size);
        from->frameDone();
        return event != nullptr;
    }
    struct Trim {
        std::vector<uint8_t>& buffer;
        ~Trim() { release(buffer); }
    } trim{body};
    if (!Event::readFrame(from, body, error))
        return false;
    event = decode(body.data(), body.size());
    return event != nullptr;
}

}  // namespace

bool Event::receive(Receiver* from, Event*& event, std::string* error) {
    thread_local std::vector<uint8_t> body;
    return readAndDecode(from, event, error, body, [error](const uint8_t* bytes, size_t size) {
        return decodeNew(bytes, size, error, true);
    });
}

EventDecoder::Slot* EventDecoder::slot(int16_t id) {
    if (_last < _slots.size() && _slots[_last].id == id)
        return &_slots[_last];
    for (size_t i = 0; i < _slots.size(); ++i)
        if (_slots[i].id == id) {
            _last = i;
            return &_slots[i];
        }
    return nullptr;
}

Event* EventDecoder::decode(const uint8_t* body, size_t size, std::string* error) {
    return decode(body, size, error, false);
}

Event* EventDecoder::decode(const uint8_t* body, size_t size, std::string* error, bool fromPeer) {
    _large = nullptr;
    if (size < Event::kHeaderSize - 4)
        return refuse("frame shorter than its header", error, fromPeer);
    const auto id = static_cast<int16_t>(fromWire<uint16_t>(body));
    Slot* s = slot(id);
    // The registry is asked again whenever it has changed: a type that left it is refused
    // like any unknown one, and another type registered under the id gets an object of its own.
    const unsigned generation = EventType::generation();
    if (!s || s->generation != generation) {
        const EventType* type = EventType::find(id);
        if (!type)
            return refuse("unknown event type " + std::to_string(id), error, fromPeer);
        if (!s) {
            _slots.push_back({id, nullptr, generation, nullptr});
            _last = _slots.size() - 1;
            s = &_slots.back();
        }
        if (s->type != type)
            s->event.reset();
        s->type = type;
        s->generation = generation;
    }
    if (!s->event)
        s->event.reset(s->type->create());
    if (!s->event->read(body, size, error, fromPeer, s->type))
        return nullptr;
    if (size > kKeptFrame)
        _large = s->event.get();
    return s->event.get();
}

void EventDecoder::done() {
    if (!_large)
        return;
    for (Slot& s : _slots)
        if (s.event.get() == _large)
            s.event.reset();
    _large = nullptr;
}

bool EventDecoder::receive(Receiver* from, Event*& event, std::string* error) {
    _large = nullptr;
    return readAndDecode(from, event, error, _body,
                         [this, error](const uint8_t* bytes, size_t size) {
                             return decode(bytes, size, error, true);
                         });
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
    registryGeneration.fetch_add(1, std::memory_order_relaxed);
}

EventType::~EventType() {
    if (!registry)
        return;
    auto it = entry(_id);
    if (it != registry->end() && it->second == this) {
        registry->erase(it);
        registryGeneration.fetch_add(1, std::memory_order_relaxed);
    }
    if (registry->empty()) {
        delete registry;
        registry = nullptr;
    }
}

bool EventType::registered() const {
    return find(_id) == this;
}

unsigned EventType::generation() {
    return registryGeneration.load(std::memory_order_relaxed);
}

const EventType* EventType::find(int16_t id) {
    if (!registry)
        return nullptr;
    auto it = entry(id);
    return it != registry->end() && it->first == id ? it->second : nullptr;
}

}  // namespace Lirra
