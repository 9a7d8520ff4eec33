#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace Lirra {

class Event;
class EventType;

// Where encoded events go: one connection, or a set of them that all get the same bytes.
class Sender {
public:
    virtual ~Sender() = default;
    // Writes one complete frame; false when the peer is gone.
    virtual bool write(const uint8_t* bytes, size_t count) = 0;
};

// Where events come from: a byte stream read exactly.
class Receiver {
public:
    virtual ~Receiver() = default;
    // Reads exactly count bytes; false when the stream ends or fails first.
    virtual bool readExact(uint8_t* bytes, size_t count) = 0;
    // The next frame, when the receiver holds it whole in memory: the bytes after its length
    // field, valid until frameDone() or the next read, with their count in size; the frame
    // counts as read. Null when it does not hold one whole (then readExact reads on).
    virtual const uint8_t* nextFrame(size_t& size) {
        (void)size;
        return nullptr;
    }
    // The frame from nextFrame() is no longer needed.
    virtual void frameDone() {}
};

// A serialisable event with typed fields. On the wire (docs/protocol.md), a frame is
//   u32 length of what follows | u16 type id | i16 header stamp | fields...
// all little-endian. Subclasses write their fields in addFields() and read them back in the
// same order in getFields(), each calling its base class's version first.
class Event {
public:
    Event() = default;
    Event(const Event& other) : _stamp(other._stamp) {}
    Event& operator=(const Event& other) {
        _stamp = other._stamp;
        return *this;
    }

    virtual void addFields() {}
    virtual void getFields() {}
    virtual ~Event() = default;
    virtual const EventType* type() const = 0;

    int16_t stamp() const { return _stamp; }
    void setStamp(int16_t stamp) { _stamp = stamp; }

    // Appends this event's frame to out; reusing one buffer avoids allocating per event.
    void encode(std::vector<uint8_t>& out);
    // Encodes and hands the frame to the sender.
    bool send(Sender* to);

    // Decodes the part of a frame after its length field. Null, with a log line and the reason
    // in *error (when given), for an unknown type id, a truncated or malformed body, or bytes
    // left over. Never reads outside [body, body + size).
    static Event* decode(const uint8_t* body, size_t size, std::string* error = nullptr);
    // The same into this object, which must be of the frame's type: a receiver can reuse one
    // object for many frames. False, with the object's fields undefined, when refused.
    bool decodeInto(const uint8_t* body, size_t size, std::string* error = nullptr);
    // Reads one frame and decodes it; false (and a null event) when the stream ended, the frame
    // is larger than maxFrameSize() or cannot be decoded. The caller owns the event. When a
    // frame was refused, *error (when given) says why; it is left empty when the stream ended.
    static bool receive(Receiver* from, Event*& event, std::string* error = nullptr);

    // Reads the part of one frame after its length field into body, as receive() does; false
    // when the stream ended (error left empty) or the frame is too large (error says so).
    static bool readFrame(Receiver* from, std::vector<uint8_t>& body, std::string* error);

    // Frames announcing more than this are refused before anything is read or allocated.
    static size_t maxFrameSize();
    static void setMaxFrameSize(size_t bytes);
    static constexpr size_t kHeaderSize = 8;  // length, type id, stamp

protected:
    // Field writing, for addFields(). Numbers go out little-endian.
    void addField(int16_t value) { addField(static_cast<uint16_t>(value)); }
    void addField(uint16_t value) { putNumber(value); }
    void addField(uint32_t value) { putNumber(value); }
    void addField(uint64_t value) { putNumber(value); }
    void addField(float value) {
        uint32_t bits;
        std::memcpy(&bits, &value, 4);  // bit for bit, NaN payloads included
        putNumber(bits);
    }
    void addField(bool value) { putNumber(static_cast<uint8_t>(value ? 1 : 0)); }
    void addField(const std::string& value) {
        putNumber(static_cast<uint32_t>(value.size()));
        put(value.data(), value.size());
    }
    void addData(const void* bytes, size_t count) { put(bytes, count); }

    // Field reading, for getFields(). A read past the end of the frame, or a bool that is not
    // 0 or 1, marks the frame malformed and yields zero; later reads yield zero too.
    void getField(int16_t& value) {
        uint16_t bits;
        getField(bits);
        value = static_cast<int16_t>(bits);
    }
    void getField(uint16_t& value) {
        takeNumber(value);
    }
    void getField(uint32_t& value) {
        takeNumber(value);
    }
    void getField(uint64_t& value) {
        takeNumber(value);
    }
    void getField(float& value) {
        uint32_t bits;
        takeNumber(bits);
        std::memcpy(&value, &bits, 4);
    }
    void getField(bool& value) {
        uint8_t byte;
        takeNumber(byte);
        if (byte > 1)
            fail("bool that is neither 0 nor 1");
        value = byte == 1;
    }
    void getField(std::string& value);
    void getData(void* bytes, size_t count) {
        take(bytes, count);
    }
    // Several float fields in a row, as many getField(float&) calls would read them.
    void getFloats(float* values, size_t count) {
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
        take(values, count * sizeof(float));
#else
        for (size_t i = 0; i < count; ++i)
            getField(values[i]);
#endif
    }
    // Bytes not yet read: a count or size read from the frame is checked against it before
    // anything is allocated for it.
    size_t remaining() const {
        return static_cast<size_t>(_inEnd - _in);
    }
    // Marks the frame malformed.
    void fail(const char* reason);

private:
    friend class EventDecoder;
    // decodeInto(); a frame from a peer is refused through the rate-limited log.
    // The type, when the caller knows it, spares a virtual call.
    bool read(const uint8_t* body, size_t size, std::string* error, bool fromPeer,
              const EventType* known = nullptr);

    void put(const void* bytes, size_t count) {
        if (static_cast<size_t>(_outEnd - _outPos) < count)
            grow(count);
        if (count)
            std::memcpy(_outPos, bytes, count);
        _outPos += count;
    }
    // Makes room for count more bytes in the output buffer.
    void grow(size_t count);
    template <typename T>
    void putNumber(T value) {
        if (static_cast<size_t>(_outEnd - _outPos) < sizeof(T))
            grow(sizeof(T));
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
        std::memcpy(_outPos, &value, sizeof(T));  // already in wire order
#else
        for (size_t i = 0; i < sizeof(T); ++i)
            _outPos[i] = static_cast<uint8_t>(value >> (8 * i));
#endif
        _outPos += sizeof(T);
    }
    bool take(void* bytes, size_t count) {
        if (remaining() < count) {
            fail("truncated field");
            std::memset(bytes, 0, count);
            return false;
        }
        if (count)
            std::memcpy(bytes, _in, count);
        _in += count;
        return true;
    }
    template <typename T>
    void takeNumber(T& value) {
        if (remaining() < sizeof(T)) {
            fail("truncated field");
            value = 0;
            return;
        }
#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
        std::memcpy(&value, _in, sizeof(T));
#else
        value = 0;
        for (size_t i = 0; i < sizeof(T); ++i)
            value |= static_cast<T>(static_cast<T>(_in[i]) << (8 * i));
#endif
        _in += sizeof(T);
    }

    int16_t _stamp = 0;
    // Set only while encoding or decoding. The writer fills the buffer through a cursor and
    // trims it to what was written at the end.
    std::vector<uint8_t>* _out = nullptr;
    uint8_t* _outPos = nullptr;
    uint8_t* _outEnd = nullptr;
    size_t _outBegin = 0;  // where the frame being written starts in *_out
    const uint8_t* _in = nullptr;
    const uint8_t* _inEnd = nullptr;
    const char* _failure = nullptr;
};

// A registered event class: its name, its type id on the wire, and a factory. A static
// EventType registers itself when constructed and leaves the registry when destroyed.
class EventType {
public:
    using Factory = Event* (*)();

    EventType(const char* name, int16_t id, Factory factory);
    EventType(const EventType&) = delete;
    EventType& operator=(const EventType&) = delete;
    ~EventType();

    const std::string& name() const { return _name; }
    int16_t id() const { return _id; }
    Event* create() const { return _factory(); }
    // Whether this object holds the registry entry of its id (a second one of an id does not).
    bool registered() const;

    static const EventType* find(int16_t id);
    // Changes whenever a type joins or leaves the registry: a cache of look-ups made under
    // one value is good as long as it stays.
    static unsigned generation();

private:
    std::string _name;
    int16_t _id;
    Factory _factory;
};

}  // namespace Lirra
