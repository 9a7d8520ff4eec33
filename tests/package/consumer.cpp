#include <cstdio>

#include <Kelo/Emitter.h>
#include <Kelo/Source.h>
#include <Kelo/World.h>

int main() {
    Kelo::World world;
    if (!world.addBackend("silent", "labels=front")) return 1;
    Kelo::Emitter* emitter = world.createEmitter({"front"});
    emitter->setSource(world.createSource());
    emitter->setState(Kelo::WorldPart::PLAY);
    const bool playing = emitter->source()->state() == Kelo::WorldPart::PLAY;
    world.clearWorld();
    world.deleteAllBackends();
    std::puts(playing ? "consumer ok" : "consumer wrong state");
    return playing ? 0 : 1;
}
