#pragma once

#include <memory>
#include <string>
#include <vector>

#include <Parmel/ParamLine.h>

namespace Kelo {

class BackendType;
class Emitter;
class Source;
class World;

// Renders or reports one world. A backend enters its world's backend list when constructed and
// leaves it when destroyed; from then on the world calls the notifications below for every
// change, whatever enabled() says. A backend reads the world and its parts and never changes
// them, except to report a sound's playing time through setSourceDuration().
class Backend {
public:
    // params is one line of key=value pairs; "labels" is a comma-separated list.
    Backend(World& world, const char* params);
    virtual ~Backend();
    Backend& operator=(const Backend&) = delete;

    virtual void resetBackend() = 0;
    virtual void setEnabled() = 0;
    virtual void setListenerTransform() = 0;
    virtual void createSource(Source& source) = 0;
    virtual void destroySource(Source& source) = 0;
    virtual void setSourceData(Source& source) = 0;
    virtual void setSourceParam(Source& source) = 0;
    virtual void setSourceState(Source& source) = 0;
    virtual void createEmitter(Emitter& emitter) = 0;
    virtual void destroyEmitter(Emitter& emitter) = 0;
    virtual void setEmitterTransform(Emitter& emitter) = 0;
    virtual void setEmitterHull(Emitter& emitter) = 0;
    virtual void setEmitterParam(Emitter& emitter) = 0;
    virtual void setEmitterConnection(Emitter& emitter) = 0;
    virtual void setEmitterState(Emitter& emitter) = 0;

    virtual bool enabled() const { return _enabled; }
    // Called once per frame by World::update().
    virtual bool update() { return true; }
    // The registry entry of the backend's class.
    virtual const BackendType* type() const = 0;

    // True when either side has no labels or they share one exact label.
    bool hasSameLabel(const Emitter& emitter) const;
    // Stores the playing time on the source and tells the world.
    void setSourceDuration(Source& source, float seconds);

    World& world() const { return _world; }
    const std::vector<std::string>& labels() const { return _labels; }
    const Parmel::ParamLine& params() const { return *_params; }

protected:
    // Backends are not meant to be copied: the copy is not listed in the world and complains.
    Backend(const Backend& other);

    bool _enabled = true;

private:
    World& _world;
    std::vector<std::string> _labels;
    std::unique_ptr<Parmel::ParamLine> _params;
};

}  // namespace Kelo
