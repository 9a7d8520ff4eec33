#pragma once

#include "Kelo/Backend.h"
#include "Kelo/BackendType.h"

namespace Kelo {

// "log": writes one always-printed log line for every notification.
class LogBackend : public Backend {
public:
    LogBackend(World& world, const char* params);
    LogBackend(const LogBackend& other);
    ~LogBackend() override;

    void resetBackend() override;
    void setEnabled() override;
    void setListenerTransform() override;
    void createSource(Source& source) override;
    void destroySource(Source& source) override;
    void setSourceData(Source& source) override;
    void setSourceParam(Source& source) override;
    void setSourceState(Source& source) override;
    void createEmitter(Emitter& emitter) override;
    void destroyEmitter(Emitter& emitter) override;
    void setEmitterTransform(Emitter& emitter) override;
    void setEmitterHull(Emitter& emitter) override;
    void setEmitterParam(Emitter& emitter) override;
    void setEmitterConnection(Emitter& emitter) override;
    void setEmitterState(Emitter& emitter) override;
    bool update() override { return true; }
    const BackendType* type() const override { return &_type; }

    // "play", "pause", "stop" for 1, 2, 3; "unknown" for anything else.
    static const char* stateName(int state);

    static Backend* createMethod(World& world, const char* params);
    static BackendType _type;
};

}  // namespace Kelo
