#pragma once

#include <string>
#include <vector>

#include <osg/Quaternion.h>
#include <osg/Vec3f.h>

#include "Kelo/WorldPart.h"

namespace Kelo {

class Source;

// A positioned instance of a sound, connected to at most one source. Created by
// World::createEmitter; the application deletes it (or World::clearWorld does).
class Emitter : public WorldPart {
public:
    Emitter(World& world, int id, const std::vector<std::string>& labels);
    Emitter(const Emitter&) = delete;
    Emitter& operator=(const Emitter&) = delete;
    ~Emitter() override;

    // Connects, reconnects or (with null) disconnects; the play state is left alone.
    void setSource(Source* source);
    // Shared with the connected source and, through it, with its other emitters.
    void setState(State state) override;
    // Always notifies, even when nothing changed.
    void setHull(float maxBack, float maxFront, float minBack, float minFront);
    void setParam(bool spatialize, float extraParam, float gain);
    // A null pointer leaves that part alone; notifies only when something moved by more than
    // 1e-6 in some component.
    void setTransform(const osg::Vec3f* position, const osg::Quaternion* rotation);

    const osg::Vec3f& position() const { return _position; }
    const osg::Quaternion& rotation() const { return _rotation; }
    float maxBack() const { return _maxBack; }
    float maxFront() const { return _maxFront; }
    float minBack() const { return _minBack; }
    float minFront() const { return _minFront; }
    float gain() const { return _gain; }
    float extraParam() const { return _extraParam; }
    bool spatialize() const { return _spatialize; }
    Source* source() const { return _source; }
    const std::vector<std::string>& labels() const { return _labels; }

private:
    osg::Vec3f _position;
    osg::Quaternion _rotation;
    float _maxBack = 10.0f;
    float _maxFront = 10.0f;
    float _minBack = 0.0f;
    float _minFront = 0.0f;
    float _gain = 1.0f;
    float _extraParam = 0.0f;
    bool _spatialize = true;
    Source* _source = nullptr;
    std::vector<std::string> _labels;
};

}  // namespace Kelo
