#pragma once

#include <memory>
#include <string>
#include <unordered_map>

#include <pybind11/pybind11.h>

#include <Kelo/Backend.h>
#include <Kelo/Emitter.h>
#include <Kelo/Source.h>
#include <Kelo/World.h>

namespace KeloPython {

namespace py = pybind11;

class Tracker;
class WorldBox;

// What Python holds of a source or an emitter. The part itself belongs to its world, which may
// delete it at any time (a client's reset, clearWorld()); the world's tracker then clears the
// pointer, and every later use raises instead of touching freed memory. Holds the Python world,
// so that a part keeps its world alive as long as Python keeps the part.
template <class Part>
class PartHandle {
public:
    PartHandle(Part& part, Tracker& tracker, py::object world)
        : _part(&part), _tracker(&tracker), _id(part.id()), _world(std::move(world)) {}
    PartHandle(const PartHandle&) = delete;
    PartHandle& operator=(const PartHandle&) = delete;

    static const char* kind();

    // The part; RuntimeError once it is gone.
    Part& get() const;
    // The same, for a change: also refused while a backend is being notified.
    Part& change() const;
    Tracker& tracker() const;
    bool deleted() const { return _part == nullptr; }
    int id() const { return _id; }
    const py::object& world() const { return _world; }
    void invalidate() { _part = nullptr, _tracker = nullptr; }

private:
    Part* _part;
    Tracker* _tracker;
    int _id;
    py::object _world;
};

using SourceHandle = PartHandle<Kelo::Source>;
using EmitterHandle = PartHandle<Kelo::Emitter>;

// What Python holds of a backend: kelo.Backend, the base of backends written in Python and the
// handle of built-in ones. Cleared when the world deletes the backend.
class BackendHandle {
public:
    BackendHandle() = default;
    BackendHandle(Kelo::Backend& backend, WorldBox& box, std::string type)
        : _backend(&backend), _box(&box), _type(std::move(type)) {}
    BackendHandle(const BackendHandle&) = delete;
    BackendHandle& operator=(const BackendHandle&) = delete;

    Kelo::Backend& get() const;
    WorldBox& box() const;
    bool attached() const { return _backend != nullptr; }
    const std::string& type() const { return _type; }
    void attach(Kelo::Backend& backend, WorldBox& box, std::string type);
    void invalidate() { _backend = nullptr, _box = nullptr, _deleted = true; }
    bool deleted() const { return _deleted; }

private:
    Kelo::Backend* _backend = nullptr;
    WorldBox* _box = nullptr;
    std::string _type;
    bool _deleted = false;
};

// Per world: the handles Python was given, so that deleting a part or a backend clears them,
// and the count of notifications under way to Python backends, during which the world must not
// change (the world is walking its lists).
class Tracker {
public:
    explicit Tracker(WorldBox& box) : _box(box) {}
    Tracker(const Tracker&) = delete;
    Tracker& operator=(const Tracker&) = delete;
    ~Tracker() { forgetAll(); }

    // The one handle of a part (the same Python object while Python keeps it); None for null.
    py::object handle(Kelo::Source* source);
    py::object handle(Kelo::Emitter* emitter);
    py::object handle(Kelo::Backend* backend);
    // A part or backend is being deleted.
    void forget(const Kelo::Source& source);
    void forget(const Kelo::Emitter& emitter);
    // Every backend handle whose backend is no longer in the world.
    void forgetBackends(const Kelo::World& world);
    void forgetAll();

    WorldBox& box() const { return _box; }
    py::object world() const;

    // RuntimeError while a Python backend is being notified.
    void checkChange() const;
    class Notifying {
    public:
        explicit Notifying(Tracker& tracker) : _tracker(tracker) { ++_tracker._notifying; }
        ~Notifying() { --_tracker._notifying; }
        Notifying(const Notifying&) = delete;
        Notifying& operator=(const Notifying&) = delete;

    private:
        Tracker& _tracker;
    };

private:
    WorldBox& _box;
    int _notifying = 0;
    // Weak: Python owns the handles; an entry whose handle Python dropped is made anew.
    std::unordered_map<const Kelo::Source*, std::weak_ptr<SourceHandle>> _sources;
    std::unordered_map<const Kelo::Emitter*, std::weak_ptr<EmitterHandle>> _emitters;
    std::unordered_map<const Kelo::Backend*, std::weak_ptr<BackendHandle>> _backends;
};

// Implemented by the worlds Python makes: how a backend finds the tracker of its world.
class Tracked {
public:
    virtual ~Tracked() = default;
    virtual Tracker& tracker() const = 0;
    // The world's own resetWorld(), whatever the box puts around it.
    virtual void baseResetWorld() = 0;
    // Null for a world Python did not make.
    static Tracker* of(Kelo::World& world);
};

}  // namespace KeloPython
