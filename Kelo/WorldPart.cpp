#include "Kelo/WorldPart.h"

#include "Kelo/Log.h"

namespace Kelo {

WorldPart::WorldPart(const WorldPart& other) : _world(other._world), _id(-1) {
    KELO_LOG(osg::LOG_FATAL, "Runing WorldPart copy constructor\n");
}

bool WorldPart::changeState(State state) {
    if (state == _state)
        return false;
    _lastState = _state;
    _state = state;
    return true;
}

}  // namespace Kelo
