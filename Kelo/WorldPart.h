#pragma once

#include <map>

namespace Kelo {

class World;

// Common base of what lives in a world: the owning world, the id and the play state.
class WorldPart {
public:
    // A fixed underlying type: values beyond STOP can arrive (from the network, say) and are
    // legal; backends treat them as unknown.
    enum State : int { NONE = 0, PLAY = 1, PAUSE = 2, STOP = 3 };

    virtual ~WorldPart() = default;
    virtual void setState(State state) = 0;

    World& world() const { return _world; }
    int id() const { return _id; }
    State state() const { return _state; }
    State lastState() const { return _lastState; }

    WorldPart& operator=(const WorldPart&) = delete;

protected:
    WorldPart(World& world, int id) : _world(world), _id(id) {}
    // Parts are not meant to be copied: the copy keeps the world, gets id -1 and complains.
    WorldPart(const WorldPart& other);

    // Records an effective change; false when state is already the current one.
    bool changeState(State state);
    // Puts part under id, replacing what was there. Ids mostly grow, and an id past the
    // largest key goes in without a search.
    template <class Part>
    static void enter(std::map<int, Part*>& parts, int id, Part* part) {
        parts.emplace_hint(parts.end(), id, part)->second = part;
    }

private:
    World& _world;
    int _id;
    State _state = NONE;
    State _lastState = NONE;
};

}  // namespace Kelo
