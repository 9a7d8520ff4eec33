#pragma once

#include "Kelo/Backend.h"
#include "Kelo/BackendType.h"

namespace Kelo {

class Source;

// "play": for every start of a sound named by a URL, writes the command line that would play
// it, "systemCall: <command> <url> &", on standard output; whoever reads that output may run
// it. The line is never executed here. Parameter "command": the player and its options.
class PlayBackend : public Backend {
public:
    PlayBackend(World& world, const char* params);
    PlayBackend(const PlayBackend& other);

    void resetBackend() override {}
    void setEnabled() override {}
    void setListenerTransform() override {}
    void createSource(Source&) override {}
    void destroySource(Source&) override {}
    void setSourceData(Source&) override {}
    void setSourceParam(Source&) override {}
    void setSourceState(Source& source) override;
    void createEmitter(Emitter&) override {}
    void destroyEmitter(Emitter&) override {}
    void setEmitterTransform(Emitter&) override {}
    void setEmitterHull(Emitter&) override {}
    void setEmitterParam(Emitter&) override {}
    void setEmitterConnection(Emitter&) override {}
    void setEmitterState(Emitter& emitter) override;
    const BackendType* type() const override { return &_type; }

    static Backend* createMethod(World& world, const char* params);
    static BackendType _type;

private:
    // Writes the play line for source, or "Invalid SourceData" when it has no URL.
    void play(const Source& source) const;
    // Unknown states are reported with the line that noticed them.
    static void unknownState(int line);
};

}  // namespace Kelo
