#pragma once

#include <map>
#include <memory>
#include <string>

#include <pybind11/pybind11.h>

#include <Kelo/Backend.h>
#include <Kelo/BackendType.h>

#include "Handles.h"

namespace KeloPython {

namespace py = pybind11;

class PythonBackendType;

// A backend written in Python: holds an instance of the registered subclass of kelo.Backend
// and calls its methods for the notifications. Emitter notifications reach it only for emitters
// that share a label with it. An exception in Python is logged with its traceback and goes no
// further: the other backends are still notified.
class PythonBackend : public Kelo::Backend {
public:
    PythonBackend(Kelo::World& world, const char* params, const PythonBackendType& type);
    ~PythonBackend() override;

    // Makes the Python object (its __init__ runs here, and may raise).
    void instantiate(Tracker& tracker);
    // The backend being made, for kelo.Backend.__init__ to attach to.
    static PythonBackend* underConstruction();
    void attach(const std::shared_ptr<BackendHandle>& handle);

    const py::object& instance() const { return _instance; }

    void resetBackend() override;
    void setEnabled() override;
    void setListenerTransform() override;
    void createSource(Kelo::Source& source) override;
    void destroySource(Kelo::Source& source) override;
    void setSourceData(Kelo::Source& source) override;
    void setSourceParam(Kelo::Source& source) override;
    void setSourceState(Kelo::Source& source) override;
    void createEmitter(Kelo::Emitter& emitter) override;
    void destroyEmitter(Kelo::Emitter& emitter) override;
    void setEmitterTransform(Kelo::Emitter& emitter) override;
    void setEmitterHull(Kelo::Emitter& emitter) override;
    void setEmitterParam(Kelo::Emitter& emitter) override;
    void setEmitterConnection(Kelo::Emitter& emitter) override;
    void setEmitterState(Kelo::Emitter& emitter) override;
    bool update() override;
    const Kelo::BackendType* type() const override;

private:
    template <class... Parts>
    void call(const char* method, Parts*... parts);
    void callIfLabelled(const char* method, Kelo::Emitter& emitter);

    const PythonBackendType& _type;
    py::object _instance;
    std::shared_ptr<BackendHandle> _handle;
};

// A registry entry for a Python class. Lives until unregistered, which is refused while
// backends of it exist.
class PythonBackendType : public Kelo::BackendType {
public:
    PythonBackendType(const std::string& name, py::object cls);
    ~PythonBackendType() override;

    Kelo::Backend* createBackend(Kelo::World& world, const char* params) const override;
    const py::object& cls() const { return _cls; }
    int backends() const { return _backends; }

private:
    friend class PythonBackend;

    py::object _cls;
    mutable int _backends = 0;
};

void bindBackend(py::module_& module);

}  // namespace KeloPython
