// Feeds arbitrary bytes to the event decoder as a stream of frames. Besides not crashing, every
// frame it accepts must encode back to exactly the bytes it came from.
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include <Kelo/CommandEvent.h>
#include <osg/Log.h>

namespace {

struct Bytes : Lirra::Receiver {
    Bytes(const uint8_t* data, size_t size) : _data(data), _size(size) {}
    bool readExact(uint8_t* out, size_t count) override {
        if (_size - _at < count)
            return false;
        std::memcpy(out, _data + _at, count);
        _at += count;
        return true;
    }
    const uint8_t* _data;
    size_t _size;
    size_t _at = 0;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    osg::Log::the().setLevel(osg::LOG_FATAL);  // refusals are expected, not news
    Lirra::Event::setMaxFrameSize(1 << 20);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Bytes stream(data, size);
    std::vector<uint8_t> again;
    for (;;) {
        const size_t start = stream._at;
        Lirra::Event* raw = nullptr;
        if (!Lirra::Event::receive(&stream, raw))
            break;
        std::unique_ptr<Lirra::Event> event(raw);
        again.clear();
        event->encode(again);
        if (again.size() != stream._at - start ||
            std::memcmp(again.data(), data + start, again.size()) != 0)
            __builtin_trap();
    }
    return 0;
}
