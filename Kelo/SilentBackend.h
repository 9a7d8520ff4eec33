#pragma once

#include "Kelo/Backend.h"
#include "Kelo/BackendType.h"

namespace Kelo {

// "silent": accepts every notification and does nothing, for a world that needs a backend but
// no output.
class SilentBackend : public Backend {
public:
    SilentBackend(World& world, const char* params) : Backend(world, params) {}
    SilentBackend(const SilentBackend& other) = default;

    void resetBackend() override {}
    void setEnabled() override {}
    void setListenerTransform() override {}
    void createSource(Source&) override {}
    void destroySource(Source&) override {}
    void setSourceData(Source&) override {}
    void setSourceParam(Source&) override {}
    void setSourceState(Source&) override {}
    void createEmitter(Emitter&) override {}
    void destroyEmitter(Emitter&) override {}
    void setEmitterTransform(Emitter&) override {}
    void setEmitterHull(Emitter&) override {}
    void setEmitterParam(Emitter&) override {}
    void setEmitterConnection(Emitter&) override {}
    void setEmitterState(Emitter&) override {}
    const BackendType* type() const override { return &_type; }

    static Backend* createMethod(World& world, const char* params);
    static BackendType _type;
};

}  // namespace Kelo
