#include "Handles.h"

#include <algorithm>
#include <stdexcept>

#include <Kelo/BackendType.h>

#include "PythonBackend.h"
#include "WorldBox.h"

namespace KeloPython {

template <>
const char* PartHandle<Kelo::Source>::kind() {
    return "source";
}

template <>
const char* PartHandle<Kelo::Emitter>::kind() {
    return "emitter";
}

template <class Part>
Part& PartHandle<Part>::get() const {
    if (!_part)
        throw std::runtime_error(std::string(kind()) + " " + std::to_string(_id) + " was deleted");
    return *_part;
}

template <class Part>
Part& PartHandle<Part>::change() const {
    Part& part = get();
    _tracker->checkChange();
    return part;
}

template <class Part>
Tracker& PartHandle<Part>::tracker() const {
    get();
    return *_tracker;
}

template class PartHandle<Kelo::Source>;
template class PartHandle<Kelo::Emitter>;

Kelo::Backend& BackendHandle::get() const {
    if (_backend)
        return *_backend;
    if (_deleted)
        throw std::runtime_error("backend '" + _type + "' was deleted");
    throw std::runtime_error("this backend is in no world: create it with World.add_backend()");
}

WorldBox& BackendHandle::box() const {
    get();
    return *_box;
}

void BackendHandle::attach(Kelo::Backend& backend, WorldBox& box, std::string type) {
    _backend = &backend;
    _box = &box;
    _type = std::move(type);
}

namespace {

// The live handle of key in handles, or a new one made by make().
template <class Handle, class Key, class Make>
py::object lookUp(std::unordered_map<const Key*, std::weak_ptr<Handle>>& handles, const Key* key,
                  Make make) {
    if (!key)
        return py::none();
    std::weak_ptr<Handle>& entry = handles[key];
    std::shared_ptr<Handle> handle = entry.lock();
    if (!handle) {
        handle = make();
        entry = handle;
    }
    return py::cast(handle);
}

template <class Handle, class Key>
void forgetOne(std::unordered_map<const Key*, std::weak_ptr<Handle>>& handles, const Key* key) {
    auto it = handles.find(key);
    if (it == handles.end())
        return;
    if (std::shared_ptr<Handle> handle = it->second.lock())
        handle->invalidate();
    handles.erase(it);
}

template <class Handle, class Key>
void forgetEvery(std::unordered_map<const Key*, std::weak_ptr<Handle>>& handles) {
    for (auto& entry : handles)
        if (std::shared_ptr<Handle> handle = entry.second.lock())
            handle->invalidate();
    handles.clear();
}

}  // namespace

py::object Tracker::handle(Kelo::Source* source) {
    return lookUp(_sources, source,
                  [&] { return std::make_shared<SourceHandle>(*source, *this, world()); });
}

py::object Tracker::handle(Kelo::Emitter* emitter) {
    return lookUp(_emitters, emitter,
                  [&] { return std::make_shared<EmitterHandle>(*emitter, *this, world()); });
}

py::object Tracker::handle(Kelo::Backend* backend) {
    if (auto* python = dynamic_cast<PythonBackend*>(backend))
        return python->instance() ? python->instance() : py::none();  // none while in __init__
    return lookUp(_backends, backend, [&] {
        const Kelo::BackendType* type = backend->type();
        return std::make_shared<BackendHandle>(*backend, _box, type ? type->name() : "");
    });
}

void Tracker::forget(const Kelo::Source& source) {
    forgetOne(_sources, &source);
}

void Tracker::forget(const Kelo::Emitter& emitter) {
    forgetOne(_emitters, &emitter);
}

void Tracker::forgetBackends(const Kelo::World& world) {
    const auto& present = world.backends();
    for (auto it = _backends.begin(); it != _backends.end();) {
        if (std::find(present.begin(), present.end(), it->first) != present.end()) {
            ++it;
            continue;
        }
        if (std::shared_ptr<BackendHandle> handle = it->second.lock())
            handle->invalidate();
        it = _backends.erase(it);
    }
}

void Tracker::forgetAll() {
    forgetEvery(_sources);
    forgetEvery(_emitters);
    forgetEvery(_backends);
}

py::object Tracker::world() const {
    // A world being deleted has already left pybind11's registry: a cast now would make a
    // second Python object for it, which would outlive it.
    if (_box.dying())
        return py::none();
    return py::cast(&_box, py::return_value_policy::reference);
}

void Tracker::checkChange() const {
    if (_notifying > 0)
        throw std::runtime_error("a backend cannot change the world from a notification");
}

Tracker* Tracked::of(Kelo::World& world) {
    auto* tracked = dynamic_cast<Tracked*>(&world);
    return tracked ? &tracked->tracker() : nullptr;
}

}  // namespace KeloPython
