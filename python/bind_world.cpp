// kelo.World and kelo.Server.
#include <optional>
#include <stdexcept>
#include <string>

#include <pybind11/stl.h>

#include <Kelo/BackendFactory.h>
#include <Lirra/MultiCommunicator.h>
#include <Tovan/Thread.h>

#include "Bindings.h"
#include "PythonLog.h"
#include "WorldBox.h"

namespace KeloPython {

namespace {

std::vector<std::string> toLabels(const py::object& labels) {
    if (py::isinstance<py::str>(labels) || py::isinstance<py::bytes>(labels) ||
        !py::isinstance<py::iterable>(labels))
        throw py::type_error(std::string("labels must be a sequence of strings, not ") +
                             Py_TYPE(labels.ptr())->tp_name);
    std::vector<std::string> result;
    for (py::handle label : labels) {
        if (!py::isinstance<py::str>(label))
            throw py::type_error(std::string("labels must be strings, not ") +
                                 Py_TYPE(label.ptr())->tp_name);
        result.push_back(label.cast<std::string>());
    }
    return result;
}

int checkId(long long id, const char* kind) {
    if (id < std::numeric_limits<int>::min() || id > std::numeric_limits<int>::max())
        throw py::value_error(std::string(kind) + " ids are 32-bit integers, not " +
                              std::to_string(id));
    return static_cast<int>(id);
}

// Clash and exhaustion are logged by the world and returned as null; Python raises.
template <class Part>
py::object created(WorldBox& box, Part* part, const char* kind, int id) {
    if (part)
        return box.tracker().handle(part);
    if (id != 0)
        throw py::value_error("there is already " + std::string(kind) + " with the id " +
                              std::to_string(id));
    throw std::runtime_error(std::string("no ") + kind + " ids are left");
}

template <class Map>
py::dict handles(WorldBox& box, const Map& parts) {
    py::dict result;
    for (const auto& [id, part] : parts)
        result[py::int_(id)] = box.tracker().handle(part);
    return result;
}

py::object addBackend(WorldBox& box, const std::string& type, const std::string& params) {
    Kelo::World& world = box.change();
    if (type != "default" && !Kelo::BackendFactory::findBackendType(type))
        throw py::value_error(
            "unknown backend type '" + type + "'; known: " +
            py::str(", ").attr("join")(Kelo::BackendFactory::typeNames()).cast<std::string>());
    WorldBox::Busy busy(box);
    Kelo::Backend* backend = world.addBackend(type.c_str(), params.c_str());
    deliverLog();
    if (PyErr_Occurred())  // a Python backend's __init__ raised
        throw py::error_already_set();
    if (!backend)
        throw std::runtime_error("could not create a '" + type +
                                 "' backend (the library's log says why)");
    return box.tracker().handle(backend);
}

}  // namespace

void bindWorld(py::module_& module) {
    py::class_<WorldBox> world(module, "World", R"(A sound scene: sources, emitters, one listener.

Every change is handed to the world's backends, created by type name with add_backend().
Use it as a context manager, or call close(), to end it at a known moment.)");
    world.def(py::init<>())
        .def("close", &WorldBox::close,
             "Deletes every emitter and source, then the backends, then the world.")
        .def_property_readonly("closed", &WorldBox::closed)
        .def("__enter__", [](py::object self) { return self; })
        .def("__exit__", [](WorldBox& self, py::args) { self.close(); })
        .def("add_backend", &addBackend, py::arg("type"), py::arg("params") = "",
             "Creates a backend by type name and brings it up to the world's state.")
        .def_property_readonly("backends",
                               [](WorldBox& self) {
                                   py::list result;
                                   for (Kelo::Backend* backend : self.world().backends())
                                       result.append(self.tracker().handle(backend));
                                   return result;
                               })
        .def("delete_all_backends",
             [](WorldBox& self) {
                 Kelo::World& world = self.change();
                 WorldBox::Busy busy(self);
                 world.deleteAllBackends();
                 self.tracker().forgetBackends(world);
             })
        .def(
            "create_source",
            [](WorldBox& self, long long id) {
                const int checked = checkId(id, "source");
                return created(self, self.change().createSource(checked), "a source", checked);
            },
            py::arg("id") = 0, "A new source; id 0 takes the next free id.")
        .def(
            "create_emitter",
            [](WorldBox& self, const py::object& labels, long long id) {
                const int checked = checkId(id, "emitter");
                std::vector<std::string> list = toLabels(labels);
                return created(self, self.change().createEmitter(list, checked), "an emitter",
                               checked);
            },
            py::arg("labels") = py::tuple(), py::arg("id") = 0,
            "A new emitter with labels; id 0 takes the next free id.")
        .def(
            "get_source",
            [](WorldBox& self, long long id) {
                return self.tracker().handle(self.world().getSource(checkId(id, "source")));
            },
            py::arg("id"))
        .def(
            "get_emitter",
            [](WorldBox& self, long long id) {
                return self.tracker().handle(self.world().getEmitter(checkId(id, "emitter")));
            },
            py::arg("id"))
        .def_property_readonly("sources",
                               [](WorldBox& self) { return handles(self, self.world().sources()); })
        .def_property_readonly(
            "emitters", [](WorldBox& self) { return handles(self, self.world().emitters()); })
        .def(
            "set_listener_transform",
            [](WorldBox& self, const py::object& position, const py::object& rotation) {
                Kelo::World& world = self.change();
                osg::Vec3f p =
                    position.is_none() ? world.listenerPosition() : toVec3(position, "position");
                osg::Quaternion r = rotation.is_none() ? world.listenerRotation()
                                                       : toQuaternion(rotation, "rotation");
                world.setListenerTransform(p, r);
            },
            py::arg("position") = py::none(), py::arg("rotation") = py::none(),
            "Listener position (x, y, z) and rotation (x, y, z, w); None keeps the present one.")
        .def_property_readonly(
            "listener_position",
            [](WorldBox& self) { return toTuple(self.world().listenerPosition()); })
        .def_property_readonly(
            "listener_rotation",
            [](WorldBox& self) { return toTuple(self.world().listenerRotation()); })
        .def_property(
            "enabled", [](WorldBox& self) { return self.world().enabled(); },
            [](WorldBox& self, bool enabled) { self.change().setEnabled(enabled); })
        .def_property(
            "spatialize", [](WorldBox& self) { return self.world().spatialize(); },
            [](WorldBox& self, bool spatialize) { self.change().setSpatialize(spatialize); })
        .def(
            "update",
            [](WorldBox& self) {
                const bool result = self.update();
                deliverLog();
                return result;
            },
            "Once per frame: lets every backend do its frame's work.")
        .def(
            "clear_world", [](WorldBox& self) { self.change().clearWorld(); },
            "Deletes every emitter, then every source.")
        .def(
            "reset_world",
            [](WorldBox& self) {
                Kelo::World& world = self.change();
                WorldBox::Busy busy(self);
                world.resetWorld();
                deliverLog();
            },
            "Clears the world and resets every backend.")
        .def(
            "print",
            [](WorldBox& self) {
                self.world().print();
                deliverLog();
            },
            "Logs the numbers of emitters, sources and backends.");

    py::class_<ServerBox, WorldBox>(
        module, "Server", R"(A sound server: a world that client worlds drive over the network.

receive() applies what clients sent, run() does so until stop(). Subclass it and override
reset_world() to re-create the server's own sources after every reset.)")
        .def(py::init<unsigned short, const std::string&, bool>(), py::arg("port") = 0,
             py::arg("host") = "", py::arg("multicast") = true)
        .def_property_readonly("port", [](ServerBox& self) { return self.server().port(); })
        .def_property_readonly("host", [](ServerBox& self) { return self.server().host(); })
        .def_property_readonly("clients", [](ServerBox& self) { return self.server().clients(); })
        .def_property_readonly("received_count",
                               [](ServerBox& self) { return self.server().receivedCount(); })
        .def_property(
            "multicast_enabled", [](ServerBox& self) { return self.server().multicastEnabled(); },
            [](ServerBox& self, bool enabled) { self.server().setMulticastEnabled(enabled); })
        .def_property(
            "exclusive", [](ServerBox& self) { return self.server().exclusive(); },
            [](ServerBox& self, bool exclusive) { self.server().setExclusive(exclusive); })
        .def_property(
            "max_clients", [](ServerBox& self) { return self.server().maxClients(); },
            [](ServerBox& self, size_t count) {
                if (count < 1)
                    throw py::value_error("max_clients must be at least 1");
                self.server().setMaxClients(count);
            })
        .def_property(
            "idle_limit", [](ServerBox& self) { return self.server().idleLimit(); },
            [](ServerBox& self, double seconds) {
                self.server().setIdleLimit(finite(seconds, "idle_limit"));
            })
        .def_property(
            "busy_poll", [](ServerBox& self) { return self.server().busyPoll(); },
            [](ServerBox& self, unsigned microseconds) {
                if (microseconds > Lirra::MultiCommunicator::kMaxBusyPollMicros)
                    throw py::value_error("busy_poll must be from 0 to 1000000 microseconds");
                self.server().setBusyPoll(microseconds);
            })
        .def_property(
            "scheduler_slice", [](ServerBox& self) { return self.server().schedulerSlice(); },
            [](ServerBox& self, unsigned microseconds) {
                if (!Tovan::Thread::validSlice(microseconds))
                    throw py::value_error(
                        "scheduler_slice must be 0 or from 100 to 100000 "
                        "microseconds");
                self.server().setSchedulerSlice(microseconds);
            })
        .def_property(
            "local_socket", [](ServerBox& self) { return self.server().localSocket(); },
            [](ServerBox& self, bool on) {
                if (!self.server().setLocalSocket(on))
                    throw std::runtime_error("cannot listen on a local socket for port " +
                                             std::to_string(self.server().port()));
            })
        .def_property(
            "receive_budget", [](ServerBox& self) { return self.server().receiveBudget(); },
            [](ServerBox& self, size_t bytes) { self.server().setReceiveBudget(bytes); })
        .def(
            "set_receive_batch",
            [](ServerBox& self, int maxEvents, double maxSeconds) {
                self.server().setReceiveBatch(maxEvents, maxSeconds);
            },
            py::arg("max_events"), py::arg("max_seconds"),
            "Bounds one receive(): at most max_events events or max_seconds (0: no bound).")
        .def(
            "receive",
            [](ServerBox& self) {
                const int handled = self.receive();
                deliverLog();
                return handled;
            },
            "Applies what clients have sent; returns the number of events.")
        .def("wait_for_events", &ServerBox::waitForEvents, py::arg("timeout"),
             "Sleeps until a client has sent something (True) or the time is up (False).")
        .def("run", &ServerBox::run, py::arg("duration") = py::none(),
             "Receives and updates until stop(), the duration in seconds, or Ctrl-C.")
        .def("stop", &ServerBox::stop, "Ends run(); callable from any thread.");
}

}  // namespace KeloPython
