#pragma once

#include <cstdint>

#include "Kelo/World.h"

namespace Kelo {

class CommandEvent;

// A world driven by recorded command events, as the application's own calls drove the world
// they came from. Given a "client" backend, it sends servers what the application sent: each
// recorded event becomes the same call, whose notifications (and the cascades they start, such
// as a source's state reaching its emitters) are those the application's world made. A recorded
// event that changes nothing (the second half of such a cascade) sends nothing again. A reset
// sends the reset alone, as a server's view of a reset is: the parts it deletes are not
// announced one by one.
class ReplayWorld : public World {
public:
    ReplayWorld() = default;
    // Deletes the parts without telling the backends; the owner deletes the backends.
    ~ReplayWorld() override;

    // Applies one recorded event; false (logged) for one that cannot be applied: a command
    // with the wrong event type, an id the world does not hold, a server's report.
    bool apply(const CommandEvent& event);

    void resetWorld() override;
    void destroySource(Source& source) override;
    void destroyEmitter(Emitter& emitter) override;
    void setEmitterConnection(Emitter& emitter) override;
    void setListenerTransform() override;
    void setEmitterTransform(Emitter& emitter) override;
    using World::setListenerTransform;

    // Events applied and refused since the world was made.
    uint64_t applied() const { return _applied; }
    uint64_t refused() const { return _refused; }

private:
    bool dispatch(const CommandEvent& event);

    // Set while a reset deletes the parts: their deletions are not sent.
    bool _quiet = false;
    // Counts transform notifications, so that a recorded transform is sent even when the
    // world's tolerance finds it unchanged.
    uint64_t _moves = 0;
    uint64_t _applied = 0;
    uint64_t _refused = 0;
};

}  // namespace Kelo
