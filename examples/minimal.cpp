// The smallest useful program: one sound on one emitter, traced by the "log" backend.
#include <Kelo/Emitter.h>
#include <Kelo/Source.h>
#include <Kelo/World.h>

int main() {
    Kelo::World world;
    world.addBackend("log", "");

    Kelo::Source* sound = world.createSource();
    sound->setDataFromURL("beep.wav");  // relative to the current directory
    Kelo::Emitter* emitter = world.createEmitter();
    emitter->setSource(sound);
    emitter->setState(Kelo::WorldPart::PLAY);
    world.update();  // once per frame

    world.clearWorld();
    world.deleteAllBackends();
    return 0;
}
