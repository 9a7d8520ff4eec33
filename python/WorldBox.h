#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>

#include <Kelo/Server.h>
#include <Kelo/World.h>

#include "Handles.h"

namespace KeloPython {

// kelo.World: owns a world made for Python, whose deletions clear the handles Python holds.
// close() (or the Python object's end) clears the world, deletes its backends and the world.
class WorldBox {
public:
    WorldBox();
    virtual ~WorldBox();
    WorldBox(const WorldBox&) = delete;
    WorldBox& operator=(const WorldBox&) = delete;

    // The world; RuntimeError once closed.
    Kelo::World& world() const;
    // The same, for a change: also refused while a backend is being notified.
    Kelo::World& change() const;
    bool closed() const { return !_world; }
    // In the destructor: Python has let go of the world.
    bool dying() const { return _dying; }
    virtual void close();
    Tracker& tracker() { return _tracker; }

    // The world's own reset; a subclass may put Python code around it.
    virtual void resetWorld();
    bool update();

    // Marks a call during which the world must stay: Python code it runs (a reset_world
    // override) cannot close it.
    class Busy {
    public:
        explicit Busy(WorldBox& box) : _box(box) { ++_box._busy; }
        ~Busy() { --_box._busy; }
        Busy(const Busy&) = delete;
        Busy& operator=(const Busy&) = delete;

    private:
        WorldBox& _box;
    };

protected:
    explicit WorldBox(int);  // for subclasses that make their own world
    // Clears and deletes the world.
    void release();

    Tracker _tracker;
    std::unique_ptr<Kelo::World> _world;
    Tracked* _tracked = nullptr;
    int _busy = 0;
    bool _dying = false;
};

// kelo.Server: a sound server whose receiving is driven from Python.
class ServerBox : public WorldBox {
public:
    ServerBox(unsigned short port, const std::string& host, bool multicast);

    Kelo::Server& server() const;
    void close() override;
    // Calls a Python subclass's reset_world() instead, when it has one.
    void resetWorld() override;

    int receive();
    bool waitForEvents(double seconds);
    void run(std::optional<double> seconds);
    void stop() { _stop = true; }

private:
    // Counts calls that wait without the GIL, so that another thread cannot close the server
    // under them.
    class Waiting {
    public:
        explicit Waiting(ServerBox& box) : _box(box) { ++_box._waiting; }
        ~Waiting() { --_box._waiting; }
        Waiting(const Waiting&) = delete;
        Waiting& operator=(const Waiting&) = delete;

    private:
        ServerBox& _box;
    };

    std::atomic<bool> _stop{false};
    std::atomic<int> _waiting{0};
};

}  // namespace KeloPython
