#pragma once

#include <map>
#include <string>

#include <AL/al.h>
#include <AL/alc.h>

#include "Kelo/Backend.h"
#include "Kelo/BackendType.h"

namespace Kelo {

// "openal" (also "default"): renders the world through the system's default OpenAL device. Each
// source becomes one OpenAL buffer holding its whole sound, each emitter whose labels match one
// OpenAL source. Without a device the backend stays in place and ignores every call.
class OALBackend : public Backend {
public:
    OALBackend(World& world, const char* params);
    OALBackend(const OALBackend&) = delete;
    OALBackend& operator=(const OALBackend&) = delete;
    ~OALBackend() override;

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
    const BackendType* type() const override { return &_type; }

    // True when there is no context or OpenAL reports an error; then logs message (unless
    // null) and the decoded error. Clears OpenAL's error state either way.
    bool checkALError(const char* message) const;
    // The text for an OpenAL error code.
    static std::string errorText(ALenum code);

    ALCdevice* device() const { return _device; }
    ALCcontext* context() const { return _context; }
    // Emitter id -> OpenAL source, source id -> OpenAL buffer.
    const std::map<int, ALuint>& sources() const { return _sources; }
    const std::map<int, ALuint>& buffers() const { return _buffers; }

    static Backend* createMethod(World& world, const char* params);
    static BackendType _type;

private:
    // Makes the backend's context current; false when the backend has none.
    bool makeCurrent() const;
    // The OpenAL source of a known emitter, or 0.
    ALuint sourceOf(const Emitter& emitter) const;
    bool spatial(const Emitter& emitter) const;
    void loadPcm(Source& source, ALuint buffer);
    void loadUrl(Source& source, ALuint buffer);

    ALCdevice* _device = nullptr;
    ALCcontext* _context = nullptr;
    std::map<int, ALuint> _sources;
    std::map<int, ALuint> _buffers;
};

}  // namespace Kelo
