#include "PythonBackend.h"

#include <optional>
#include <stdexcept>

#include <pybind11/stl.h>

#include <Kelo/BackendFactory.h>
#include <Kelo/Log.h>

#include "PythonLog.h"
#include "WorldBox.h"

namespace KeloPython {

namespace {

PythonBackend* constructing = nullptr;

// Registered Python types by name. At the interpreter's end their classes are let go of without
// a reference count (the interpreter is gone by the time this map is destroyed).
std::map<std::string, std::unique_ptr<PythonBackendType>> pythonTypes;

}  // namespace

PythonBackend::PythonBackend(Kelo::World& world, const char* params, const PythonBackendType& type)
    : Backend(world, params), _type(type) {
    ++_type._backends;
}

PythonBackend::~PythonBackend() {
    --_type._backends;
    py::gil_scoped_acquire gil;
    if (_handle)
        _handle->invalidate();
    _instance = py::object();
}

void PythonBackend::instantiate(Tracker& tracker) {
    Tracker::Notifying notifying(tracker);
    PythonBackend* outer = constructing;
    constructing = this;
    try {
        _instance = _type.cls()();
    } catch (...) {
        constructing = outer;
        throw;
    }
    constructing = outer;
    if (!_handle)
        throw py::type_error(py::str(_type.cls()).cast<std::string>() +
                             " did not attach to its world: its __init__ must call "
                             "super().__init__()");
}

PythonBackend* PythonBackend::underConstruction() {
    return constructing;
}

void PythonBackend::attach(const std::shared_ptr<BackendHandle>& handle) {
    Tracker* tracker = Tracked::of(world());
    handle->attach(*this, tracker->box(), _type.name());
    _handle = handle;
    constructing = nullptr;
}

template <class... Parts>
void PythonBackend::call(const char* method, Parts*... parts) {
    py::gil_scoped_acquire gil;
    Tracker* tracker = Tracked::of(world());
    if (!tracker || !_instance)
        return;
    Tracker::Notifying notifying(*tracker);
    try {
        _instance.attr(method)(tracker->handle(parts)...);
    } catch (py::error_already_set& error) {
        logPythonError("Python backend '" + _type.name() + "' failed in " + method, error);
    } catch (const std::exception& error) {
        KELO_LOG_LIMITED(osg::LOG_FATAL, "Python backend '%s' failed in %s: %s\n",
                         _type.name().c_str(), method, error.what());
    }
}

void PythonBackend::callIfLabelled(const char* method, Kelo::Emitter& emitter) {
    if (hasSameLabel(emitter))
        call(method, &emitter);
}

void PythonBackend::resetBackend() {
    call("reset_backend");
}
void PythonBackend::setEnabled() {
    call("set_enabled");
}
void PythonBackend::setListenerTransform() {
    call("set_listener_transform");
}
void PythonBackend::createSource(Kelo::Source& source) {
    call("create_source", &source);
}
void PythonBackend::destroySource(Kelo::Source& source) {
    call("destroy_source", &source);
}
void PythonBackend::setSourceData(Kelo::Source& source) {
    call("set_source_data", &source);
}
void PythonBackend::setSourceParam(Kelo::Source& source) {
    call("set_source_param", &source);
}
void PythonBackend::setSourceState(Kelo::Source& source) {
    call("set_source_state", &source);
}
void PythonBackend::createEmitter(Kelo::Emitter& emitter) {
    callIfLabelled("create_emitter", emitter);
}
void PythonBackend::destroyEmitter(Kelo::Emitter& emitter) {
    callIfLabelled("destroy_emitter", emitter);
}
void PythonBackend::setEmitterTransform(Kelo::Emitter& emitter) {
    callIfLabelled("set_emitter_transform", emitter);
}
void PythonBackend::setEmitterHull(Kelo::Emitter& emitter) {
    callIfLabelled("set_emitter_hull", emitter);
}
void PythonBackend::setEmitterParam(Kelo::Emitter& emitter) {
    callIfLabelled("set_emitter_param", emitter);
}
void PythonBackend::setEmitterConnection(Kelo::Emitter& emitter) {
    callIfLabelled("set_emitter_connection", emitter);
}
void PythonBackend::setEmitterState(Kelo::Emitter& emitter) {
    callIfLabelled("set_emitter_state", emitter);
}
bool PythonBackend::update() {
    call("update");
    return true;
}
const Kelo::BackendType* PythonBackend::type() const {
    return &_type;
}

PythonBackendType::PythonBackendType(const std::string& name, py::object cls)
    : BackendType(name, nullptr), _cls(std::move(cls)) {}

PythonBackendType::~PythonBackendType() = default;

Kelo::Backend* PythonBackendType::createBackend(Kelo::World& world, const char* params) const {
    py::gil_scoped_acquire gil;
    Tracker* tracker = Tracked::of(world);
    if (!tracker) {
        KELO_LOG(osg::LOG_FATAL,
                 "Python backend '%s' can only be added to a world made in Python\n",
                 name().c_str());
        return nullptr;
    }
    auto backend = std::make_unique<PythonBackend>(world, params, *this);
    try {
        backend->instantiate(*tracker);
    } catch (py::error_already_set& error) {
        // Handed back to the Python caller of add_backend(), which raises it.
        error.restore();
        return nullptr;
    } catch (py::builtin_exception& error) {
        error.set_error();
        return nullptr;
    }
    // The world owns its backends and deletes them in deleteAllBackends().
    return backend.release();
}

namespace {

py::object baseClass;  // kelo.Backend

void registerBackend(const std::string& name, py::object cls) {
    if (!PyType_Check(cls.ptr()) || !PyObject_IsSubclass(cls.ptr(), baseClass.ptr()))
        throw py::type_error("register_backend() needs a subclass of kelo.Backend, not " +
                             py::repr(cls).cast<std::string>());
    if (name.empty() || name == "default")
        throw py::value_error("'" + name + "' cannot name a backend type");
    if (Kelo::BackendFactory::findBackendType(name))
        throw py::value_error("there is already a backend type '" + name + "'");
    pythonTypes[name] = std::make_unique<PythonBackendType>(name, std::move(cls));
}

void unregisterBackend(const std::string& name) {
    auto it = pythonTypes.find(name);
    if (it == pythonTypes.end())
        throw py::key_error("no backend type '" + name + "' was registered from Python");
    if (it->second->backends() > 0)
        throw std::runtime_error("backends of type '" + name +
                                 "' still exist: " + std::to_string(it->second->backends()));
    pythonTypes.erase(it);
}

void forgetTypes() {
    for (auto& entry : pythonTypes)
        const_cast<py::object&>(entry.second->cls()).release();
    baseClass.release();
}

// The part behind a handle of the backend's own world.
template <class Handle>
auto& partOf(const BackendHandle& backend, const Handle& handle) {
    auto& part = handle.get();
    if (&part.world() != &backend.get().world())
        throw py::value_error(std::string(Handle::kind()) + " " + std::to_string(handle.id()) +
                              " belongs to another world");
    return part;
}

}  // namespace

void bindBackend(py::module_& module) {
    using Handle = std::shared_ptr<BackendHandle>;
    auto noop = [](const BackendHandle&) {};
    auto noopPart = [](const BackendHandle&, const py::object&) {};
    py::class_<BackendHandle, Handle> backend(module, "Backend",
                                              R"(A backend: subclass it to write one in Python.

Override the notifications you need, register the class with kelo.register_backend(name,
cls) and create it with World.add_backend(name, params). Built-in backends are handed out as
plain kelo.Backend objects.)");
    backend
        .def(py::init([] {
            auto handle = std::make_shared<BackendHandle>();
            if (PythonBackend* backend = PythonBackend::underConstruction())
                backend->attach(handle);
            return handle;
        }))
        .def_property_readonly("world",
                               [](const BackendHandle& self) {
                                   py::object world = self.box().tracker().world();
                                   if (world.is_none())
                                       throw std::runtime_error("the world is being deleted");
                                   return world;
                               })
        .def_property_readonly("type",
                               [](const BackendHandle& self) {
                                   self.get();
                                   return self.type();
                               })
        .def_property_readonly(
            "labels",
            [](const BackendHandle& self) { return py::tuple(py::cast(self.get().labels())); })
        .def_property_readonly("deleted", &BackendHandle::deleted)
        .def(
            "param",
            [](const BackendHandle& self, const std::string& key,
               std::optional<std::string> fallback) -> std::optional<std::string> {
                if (const char* value = self.get().params().getParam(key, nullptr))
                    return std::string(value);
                return fallback;
            },
            py::arg("key"), py::arg("default") = py::none(),
            "The value of a parameter of the backend's parameter text, or default.")
        .def(
            "has_same_label",
            [](const BackendHandle& self, const EmitterHandle& emitter) {
                return self.get().hasSameLabel(partOf(self, emitter));
            },
            py::arg("emitter"))
        .def(
            "set_source_duration",
            [](const BackendHandle& self, const SourceHandle& source, float seconds) {
                self.get().setSourceDuration(partOf(self, source), seconds);
            },
            py::arg("source"), py::arg("seconds"),
            "Reports a sound's playing time (allowed in a notification).");
    for (const char* name : {"reset_backend", "set_enabled", "set_listener_transform", "update"})
        backend.def(name, noop);
    for (const char* name : {"create_source", "destroy_source", "set_source_data",
                             "set_source_param", "set_source_state"})
        backend.def(name, noopPart, py::arg("source"));
    for (const char* name :
         {"create_emitter", "destroy_emitter", "set_emitter_transform", "set_emitter_hull",
          "set_emitter_param", "set_emitter_connection", "set_emitter_state"})
        backend.def(name, noopPart, py::arg("emitter"));
    baseClass = backend;

    module.def("register_backend", &registerBackend, py::arg("name"), py::arg("cls"),
               "Registers a subclass of kelo.Backend under a type name for World.add_backend().");
    module.def("unregister_backend", &unregisterBackend, py::arg("name"));
    module.def("backend_types", &Kelo::BackendFactory::typeNames,
               "The registered backend type names, sorted.");
    py::module_::import("atexit").attr("register")(py::cpp_function(&forgetTypes));
}

}  // namespace KeloPython
