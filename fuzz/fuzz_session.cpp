// Feeds arbitrary bytes to the session reader as a file. Besides not crashing or allocating
// beyond its bounds, it must end cleanly or name the damage with its offset, and every event it
// hands out must encode back to the frame it was read from.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include <Kelo/CommandEvent.h>
#include <Kelo/SessionReader.h>
#include <osg/Log.h>

namespace {

std::string path;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    osg::Log::the().setLevel(osg::LOG_FATAL);  // refusals are expected, not news
    Lirra::Event::setMaxFrameSize(1 << 20);
    const char* dir = std::getenv("TMPDIR");
    path =
        std::string(dir && *dir ? dir : "/tmp") + "/kelo-fuzz-session-" + std::to_string(getpid());
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (std::FILE* file = std::fopen(path.c_str(), "wb")) {
        std::fwrite(data, 1, size, file);
        std::fclose(file);
    } else {
        std::abort();
    }
    Kelo::SessionReader reader;
    if (!reader.open(path)) {
        if (reader.error().empty())
            std::abort();
        return 0;
    }
    uint64_t micros = 0, last = 0;
    std::vector<uint8_t> frame, again;
    while (reader.nextFrame(micros, frame)) {
        if (micros < last)
            std::abort();
        last = micros;
        std::string why;
        std::unique_ptr<Lirra::Event> event(
            Lirra::Event::decode(frame.data() + 4, frame.size() - 4, &why));
        if (!event)
            continue;  // next() reports it as damage; the frame's bytes are read all the same
        again.clear();
        event->encode(again);
        if (again != frame)
            std::abort();
    }
    if (reader.damaged() && reader.error().rfind("offset ", 0) != 0)
        std::abort();
    std::remove(path.c_str());
    return 0;
}
