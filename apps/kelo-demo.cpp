// A small scene driven through a "log" backend: two sounds, three emitters (two of them
// labelled), a listener move, and play/pause/stop, with every notification traced.
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <vector>

#include <Kelo/BackendFactory.h>
#include <Kelo/Emitter.h>
#include <Kelo/Source.h>
#include <Kelo/World.h>

namespace {

// One second of a 440 Hz sine, 16-bit mono at 22050 Hz.
std::vector<unsigned char> sineTone() {
    const unsigned rate = 22050;
    std::vector<unsigned char> bytes;
    bytes.reserve(rate * 2);
    for (unsigned i = 0; i < rate; ++i) {
        const double t = static_cast<double>(i) / rate;
        const auto sample =
            static_cast<int16_t>(std::lround(12000.0 * std::sin(2 * M_PI * 440.0 * t)));
        const auto bits = static_cast<uint16_t>(sample);
        bytes.push_back(static_cast<unsigned char>(bits & 0xff));
        bytes.push_back(static_cast<unsigned char>(bits >> 8));
    }
    return bytes;
}

}  // namespace

int main() {
    Kelo::BackendFactory::printTypes();

    Kelo::World world;
    if (!world.addBackend("log", ""))
        return 1;

    const std::vector<unsigned char> tone = sineTone();
    Kelo::Source* beep = world.createSource();
    beep->setData(22050, 16, 1, tone.data(), static_cast<unsigned>(tone.size()));
    beep->setParam(true, 1.0f);

    Kelo::Source* ambience = world.createSource(100);
    ambience->setDataFromURL("ambience.wav");
    ambience->setParam(true, 0.8f);

    Kelo::Emitter* front = world.createEmitter({"front"});
    Kelo::Emitter* rear = world.createEmitter({"rear"});
    Kelo::Emitter* room = world.createEmitter();

    const osg::Vec3f ahead(0, 0, -2), behind(0, 0, 3);
    front->setTransform(&ahead, nullptr);
    rear->setTransform(&behind, nullptr);
    front->setHull(2, 8, 0.5f, 1);
    room->setParam(false, 0, 0.5f);

    front->setSource(beep);
    rear->setSource(beep);
    room->setSource(ambience);

    front->setState(Kelo::WorldPart::PLAY);  // starts the rear emitter too: they share the beep
    room->setState(Kelo::WorldPart::PLAY);

    const osg::Quaternion quarterTurn(0, std::sin(M_PI / 4), 0, std::cos(M_PI / 4));
    world.setListenerTransform(osg::Vec3f(1, 0, 0), quarterTurn);
    world.update();

    rear->setState(Kelo::WorldPart::PAUSE);
    beep->setState(Kelo::WorldPart::PLAY);
    room->setState(Kelo::WorldPart::STOP);

    world.print();
    world.clearWorld();
    world.deleteAllBackends();
    std::printf("kelo-demo: scene played through the log backend\n");
    return 0;
}
