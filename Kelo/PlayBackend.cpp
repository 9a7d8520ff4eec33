#include "Kelo/PlayBackend.h"

#include <cstdio>
#include <string>

#include <osg/Log.h>

#include "Kelo/Emitter.h"
#include "Kelo/Source.h"
#include "Kelo/WorldPart.h"

namespace Kelo {

BackendType PlayBackend::_type("play", &PlayBackend::createMethod);

Backend* PlayBackend::createMethod(World& world, const char* params) {
    return new PlayBackend(world, params);
}

PlayBackend::PlayBackend(World& world, const char* params) : Backend(world, params) {}

PlayBackend::PlayBackend(const PlayBackend& other) : Backend(other) {}

void PlayBackend::play(const Source& source) const {
    // Read at every use: the parameters belong to the base and may be the only record.
    const std::string command = params().getParam("command", "");
    if (source.dataType() != Source::URL_SD) {
        std::fputs("Invalid SourceData\n", stdout);
        std::fflush(stdout);
        return;
    }
    const Lirra::URL* url = source.url();
    if (!url)
        return;  // no URL to play: nothing a player could do with the line
    // A command for the player, not a message: the player needs the credentials to fetch.
    const std::string& text = url->shared() ? url->toString() : Lirra::URLFile::_cwd.toString();
    const std::string line = command + " " + text + " &";
    std::fprintf(stdout, "systemCall: %s\n", line.c_str());
    std::fflush(stdout);
}

void PlayBackend::unknownState(int line) {
    std::fprintf(stdout, "ERROR: Unknown emitter state in %s:%d\n",
                 osg::Log::shortFile(__FILE__).c_str(), line);
    std::fflush(stdout);
}

void PlayBackend::setSourceState(Source& source) {
    switch (source.state()) {
        case WorldPart::PLAY:
            play(source);
            break;
        case WorldPart::PAUSE:
        case WorldPart::STOP:
            break;  // a handed-on line cannot be taken back: the sound plays to its end
        default:
            unknownState(__LINE__);
    }
}

void PlayBackend::setEmitterState(Emitter& emitter) {
    const Source* source = emitter.source();
    if (!source)
        return;
    switch (emitter.state()) {
        case WorldPart::PLAY:
            play(*source);
            break;
        case WorldPart::PAUSE:
        case WorldPart::STOP:
            break;
        default:
            unknownState(__LINE__);
    }
}

}  // namespace Kelo
