#pragma once

#include <osg/Quaternion.h>
#include <osg/Vec3f.h>

#include "Kelo/CommandEvent.h"

namespace Kelo {

// Position and rotation of the listener (command 13) or of an emitter (34): seven floats,
// position x, y, z then rotation x, y, z, w.
class TransformEvent : public CommandEvent {
public:
    TransformEvent() = default;
    // Copies position and rotation only: command and id start at 0.
    TransformEvent(const TransformEvent& other);
    TransformEvent& operator=(const TransformEvent& other);

    void addFields() override;
    void getFields() override;
    const Lirra::EventType* type() const override { return &_type; }

    const osg::Vec3f& position() const { return _position; }
    const osg::Quaternion& rotation() const { return _rotation; }
    void setPosition(const osg::Vec3f& position) { _position = position; }
    void setRotation(const osg::Quaternion& rotation) { _rotation = rotation; }

    static Lirra::Event* create();
    static Lirra::EventType _type;

private:
    osg::Vec3f _position;
    osg::Quaternion _rotation;
};

}  // namespace Kelo
