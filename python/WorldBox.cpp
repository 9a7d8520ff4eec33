#include "WorldBox.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <stdexcept>

#include "PythonLog.h"

namespace KeloPython {

namespace {

// A world whose deletions reach the tracker of its box, and whose resets go through the box.
template <class World>
class TrackedWorld : public World, public Tracked {
public:
    template <class... Args>
    explicit TrackedWorld(WorldBox& box, Args&&... args)
        : World(std::forward<Args>(args)...), _box(box) {}

    Tracker& tracker() const override { return _box.tracker(); }
    void baseResetWorld() override { World::resetWorld(); }

    void destroySource(Kelo::Source& source) override {
        World::destroySource(source);
        _box.tracker().forget(source);
    }
    void destroyEmitter(Kelo::Emitter& emitter) override {
        World::destroyEmitter(emitter);
        _box.tracker().forget(emitter);
    }
    void resetWorld() override { _box.resetWorld(); }

private:
    WorldBox& _box;
};

// Seconds given by Python: finite and not negative.
double checkSeconds(double seconds, const char* what) {
    if (!std::isfinite(seconds) || seconds < 0)
        throw py::value_error(std::string(what) + " must be a finite number of seconds >= 0");
    return seconds;
}

}  // namespace

WorldBox::WorldBox() : _tracker(*this) {
    auto world = std::make_unique<TrackedWorld<Kelo::World>>(*this);
    _tracked = world.get();
    _world = std::move(world);
}

WorldBox::WorldBox(int) : _tracker(*this) {}

WorldBox::~WorldBox() {
    _dying = true;
    release();
}

Kelo::World& WorldBox::world() const {
    if (!_world)
        throw std::runtime_error("the world was closed");
    return *_world;
}

Kelo::World& WorldBox::change() const {
    Kelo::World& world = this->world();
    _tracker.checkChange();
    return world;
}

void WorldBox::close() {
    if (!_world)
        return;
    change();
    if (_busy > 0)
        throw std::runtime_error("the world cannot be closed while it is updating or receiving");
    release();
}

void WorldBox::release() {
    if (!_world)
        return;
    _world->clearWorld();
    _world->deleteAllBackends();
    _tracker.forgetAll();
    _world.reset();
    _tracked = nullptr;
}

void WorldBox::resetWorld() {
    world();
    _tracked->baseResetWorld();
}

bool WorldBox::update() {
    Kelo::World& world = change();
    Busy busy(*this);
    return world.update();
}

ServerBox::ServerBox(unsigned short port, const std::string& host, bool multicast) : WorldBox(0) {
    auto server = std::make_unique<TrackedWorld<Kelo::Server>>(*this, port, host);
    server->setMulticastEnabled(multicast);
    const bool listening = server->listening();
    _tracked = server.get();
    _world = std::move(server);
    if (!listening) {
        const std::string where =
            (host.empty() ? std::string("*") : host) + ":" + std::to_string(port);
        PyErr_SetString(PyExc_OSError, ("kelo.Server cannot listen on " + where).c_str());
        throw py::error_already_set();
    }
}

Kelo::Server& ServerBox::server() const {
    return static_cast<Kelo::Server&>(world());
}

void ServerBox::close() {
    if (_waiting > 0)
        throw std::runtime_error(
            "the server is waiting for clients in another thread: stop() it first");
    WorldBox::close();
}

void ServerBox::resetWorld() {
    py::gil_scoped_acquire gil;
    // A Python subclass's reset_world(); its call of super().reset_world() comes back here
    // and finds no override, so it runs the world's own.
    py::function override = py::get_override(static_cast<const ServerBox*>(this), "reset_world");
    if (!override) {
        WorldBox::resetWorld();
        return;
    }
    try {
        override();
    } catch (py::error_already_set& error) {
        logPythonError("kelo.Server.reset_world() failed", error);
    }
}

int ServerBox::receive() {
    Kelo::Server& server = static_cast<Kelo::Server&>(change());
    Busy busy(*this);
    return server.receive(false);
}

bool ServerBox::waitForEvents(double seconds) {
    checkSeconds(seconds, "timeout");
    Kelo::Server& server = static_cast<Kelo::Server&>(change());
    // In slices, so that Ctrl-C is noticed during a long wait.
    const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    for (;;) {
        const double left =
            std::chrono::duration<double>(end - std::chrono::steady_clock::now()).count();
        bool arrived = false;
        {
            Waiting waiting(*this);
            py::gil_scoped_release release;
            arrived = server.waitForEvents(std::clamp(left, 0.0, 0.1));
        }
        if (arrived)
            return true;
        if (PyErr_CheckSignals() != 0)
            throw py::error_already_set();
        if (left <= 0.1)
            return false;
    }
}

void ServerBox::run(std::optional<double> seconds) {
    if (seconds)
        checkSeconds(*seconds, "duration");
    change();
    _stop = false;
    const auto start = std::chrono::steady_clock::now();
    while (!_stop) {
        double slice = 0.02;
        if (seconds) {
            const double left =
                *seconds -
                std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
            if (left <= 0)
                break;
            slice = std::min(slice, left);
        }
        {
            Kelo::Server& server = this->server();
            Waiting waiting(*this);
            py::gil_scoped_release release;
            server.waitForEvents(slice);
        }
        receive();
        update();
        deliverLog();
        if (PyErr_CheckSignals() != 0)
            throw py::error_already_set();
    }
}

}  // namespace KeloPython
