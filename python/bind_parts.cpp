// kelo.Source, kelo.Emitter and kelo.State.
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <limits>
#include <optional>

#include <pybind11/numpy.h>
#include <pybind11/stl.h>

#include <Lirra/URL.h>

#include "Bindings.h"
#include "Handles.h"

namespace KeloPython {

float finite(double value, const char* what) {
    if (!std::isfinite(value) || std::fabs(value) > std::numeric_limits<float>::max())
        throw py::value_error(std::string(what) + " must be a finite number, not " +
                              std::to_string(value));
    return static_cast<float>(value);
}

namespace {

template <int N>
std::array<float, N> components(py::handle value, const char* what) {
    if (!PySequence_Check(value.ptr()) || py::isinstance<py::str>(value) ||
        py::isinstance<py::bytes>(value))
        throw py::type_error(std::string(what) + " must be a sequence of " + std::to_string(N) +
                             " numbers, not " + Py_TYPE(value.ptr())->tp_name);
    py::sequence sequence = py::reinterpret_borrow<py::sequence>(value);
    if (sequence.size() != N)
        throw py::value_error(std::string(what) + " must have " + std::to_string(N) +
                              " components, not " + std::to_string(sequence.size()));
    std::array<float, N> result{};
    for (int i = 0; i < N; ++i) {
        py::object item = sequence[i];
        if (!PyNumber_Check(item.ptr()) || py::isinstance<py::str>(item))
            throw py::type_error(std::string(what) + " components must be numbers, not " +
                                 Py_TYPE(item.ptr())->tp_name);
        result[i] = finite(py::float_(item), what);
    }
    return result;
}

// Interleaved PCM from a numpy array: int16 is 16 bits, uint8 8 bits; (n,) is mono and
// (n, channels) interleaved.
void setData(const SourceHandle& handle, const py::object& samples, long long frequency) {
    Kelo::Source& source = handle.change();
    if (samples.is_none()) {
        source.setData(0, 0, 0, nullptr, 0);
        return;
    }
    if (!py::isinstance<py::array>(samples))
        throw py::type_error(std::string("samples must be a numpy array of int16 or uint8, not ") +
                             Py_TYPE(samples.ptr())->tp_name);
    auto array = py::reinterpret_borrow<py::array>(samples);
    const std::string dtype = py::str(array.attr("dtype").attr("str"));
    const std::string name = py::str(array.attr("dtype").attr("name"));
    unsigned bits = 0;
    if (dtype == "<i2")
        bits = 16;
    else if (dtype == "|u1")
        bits = 8;
    else if (name == "int16")
        throw py::type_error(
            "samples must be little-endian int16, not big-endian "
            "(numpy: samples.astype('<i2'))");
    else
        throw py::type_error("samples must be int16 or uint8, not " + name);
    if (array.ndim() != 1 && array.ndim() != 2)
        throw py::value_error("samples must have the shape (n,) or (n, channels), not " +
                              std::to_string(array.ndim()) + " dimensions");
    if (!(array.flags() & py::array::c_style))
        throw py::value_error(
            "samples must be C-contiguous (numpy.ascontiguousarray(samples) makes such a copy)");
    const auto channels = array.ndim() == 2 ? array.shape(1) : 1;
    if (channels < 1 || channels > 64)
        throw py::value_error("samples must have 1 to 64 channels, not " +
                              std::to_string(channels));
    if (frequency <= 0 || frequency > std::numeric_limits<int>::max())
        throw py::value_error("frequency must be a positive number of samples per second, not " +
                              std::to_string(frequency));
    if (array.nbytes() > static_cast<py::ssize_t>(std::numeric_limits<unsigned>::max()))
        throw py::value_error("samples must be smaller than 4 GiB");
    source.setData(static_cast<unsigned>(frequency), bits, static_cast<unsigned>(channels),
                   static_cast<const unsigned char*>(array.data()),
                   static_cast<unsigned>(array.nbytes()));
}

py::array data(const SourceHandle& handle) {
    const Kelo::Source& source = handle.get();
    const auto& bytes = source.data();
    const py::ssize_t channels = source.channels() > 0 ? source.channels() : 1;
    auto shaped = [&](py::dtype type, size_t width) {
        const py::ssize_t frames = static_cast<py::ssize_t>(bytes.size() / (width * channels));
        std::vector<py::ssize_t> shape{frames};
        if (channels > 1)
            shape.push_back(channels);
        py::array array(type, shape);
        std::memcpy(array.mutable_data(), bytes.data(), static_cast<size_t>(array.nbytes()));
        return array;
    };
    if (source.bits() == 8)
        return shaped(py::dtype::of<uint8_t>(), 1);
    if (source.bits() == 16 || bytes.empty())
        return shaped(py::dtype("<i2"), 2);
    // Another sample format (from the network, say): the bytes as they are.
    py::array_t<uint8_t> raw(static_cast<py::ssize_t>(bytes.size()));
    std::memcpy(raw.mutable_data(), bytes.data(), bytes.size());
    return std::move(raw);
}

void dumpWav(const SourceHandle& handle, const std::string& path) {
    const Kelo::Source& source = handle.get();
    if (source.data().empty())
        throw py::value_error("source " + std::to_string(handle.id()) + " has no PCM samples");
    // The library logs and carries on when it cannot write; Python expects OSError.
    std::FILE* file = std::fopen(path.c_str(), "ab");
    if (!file) {
        PyErr_SetFromErrnoWithFilename(PyExc_OSError, path.c_str());
        throw py::error_already_set();
    }
    std::fclose(file);
    source.dumpWavFile(path);
}

template <class Handle>
std::string repr(const Handle& handle) {
    return std::string("<kelo.") + (Handle::kind()[0] == 's' ? "Source " : "Emitter ") +
           std::to_string(handle.id()) + (handle.deleted() ? " (deleted)>" : ">");
}

// The part of a handle, deleted the way the application deletes parts: the part tells the world
// and leaves it, and the handle is cleared.
template <class Handle>
void deletePart(const Handle& handle) {
    delete &handle.change();
}

}  // namespace

osg::Vec3f toVec3(py::handle value, const char* what) {
    auto v = components<3>(value, what);
    return {v[0], v[1], v[2]};
}

osg::Quaternion toQuaternion(py::handle value, const char* what) {
    auto v = components<4>(value, what);
    return {v[0], v[1], v[2], v[3]};
}

py::tuple toTuple(const osg::Vec3f& value) {
    return py::make_tuple(value.x(), value.y(), value.z());
}

py::tuple toTuple(const osg::Quaternion& value) {
    return py::make_tuple(value.x(), value.y(), value.z(), value.w());
}

void bindParts(py::module_& module) {
    using State = Kelo::WorldPart::State;
    py::enum_<State>(module, "State", "Play state of a source or an emitter.")
        .value("NONE", State::NONE)
        .value("PLAY", State::PLAY)
        .value("PAUSE", State::PAUSE)
        .value("STOP", State::STOP);

    py::class_<SourceHandle, std::shared_ptr<SourceHandle>>(
        module, "Source",
        "A sound: PCM samples or a sound file's URL. Made by World.create_source().")
        .def_property_readonly("id", &SourceHandle::id)
        .def_property_readonly("deleted", &SourceHandle::deleted)
        .def_property(
            "state", [](const SourceHandle& self) { return self.get().state(); },
            [](const SourceHandle& self, State state) { self.change().setState(state); },
            "Play state, shared with the connected emitters.")
        .def_property_readonly("duration",
                               [](const SourceHandle& self) { return self.get().duration(); })
        .def_property_readonly("data_type",
                               [](const SourceHandle& self) {
                                   switch (self.get().dataType()) {
                                       case Kelo::Source::URL_SD:
                                           return "url";
                                       case Kelo::Source::PCM_SD:
                                           return "pcm";
                                       default:
                                           return "none";
                                   }
                               })
        .def_property_readonly("loop", [](const SourceHandle& self) { return self.get().loop(); })
        .def_property_readonly("pitch", [](const SourceHandle& self) { return self.get().pitch(); })
        .def_property_readonly("frequency",
                               [](const SourceHandle& self) { return self.get().frequency(); })
        .def_property_readonly("bits", [](const SourceHandle& self) { return self.get().bits(); })
        .def_property_readonly("channels",
                               [](const SourceHandle& self) { return self.get().channels(); })
        .def_property_readonly("url",
                               [](const SourceHandle& self) -> std::optional<std::string> {
                                   const Lirra::URL* url = self.get().url();
                                   if (!url)
                                       return std::nullopt;
                                   return url->toString();
                               })
        .def_property_readonly("data", &data, "A copy of the PCM samples.")
        .def_property_readonly("emitters",
                               [](const SourceHandle& self) {
                                   py::dict emitters;
                                   for (const auto& [id, emitter] : self.get().emitters())
                                       emitters[py::int_(id)] = self.tracker().handle(emitter);
                                   return emitters;
                               })
        .def("set_data", &setData, py::arg("samples"), py::arg("frequency"),
             "PCM samples from a numpy array of int16 or uint8, shape (n,) or (n, channels).")
        .def(
            "set_data_from_url",
            [](const SourceHandle& self, const std::string& url) {
                Kelo::Source& source = self.change();
                // The library resolves paths against the directory it started in; a Python
                // program expects the one it is in now (os.chdir).
                std::string text = url;
                if (!text.empty() && text.find(':') == std::string::npos && text[0] != '/')
                    text = (std::filesystem::current_path() / text).string();
                try {
                    source.setDataFromURL(text);
                } catch (const Lirra::URLImpl::Exception& error) {
                    throw py::value_error(std::string(error.what()) + ": " + url);
                }
            },
            py::arg("url"), "A sound file's URL; a path is taken from the current directory.")
        .def(
            "set_param",
            [](const SourceHandle& self, bool loop, double pitch) {
                Kelo::Source& source = self.change();
                source.setParam(loop, finite(pitch, "pitch"));
            },
            py::arg("loop") = false, py::arg("pitch") = 1.0,
            "Loop flag and pitch, both set at once (the defaults are a new source's).")
        .def("dump_wav", &dumpWav, py::arg("path"), "Writes the PCM samples as a WAV file.")
        .def("delete", &deletePart<SourceHandle>)
        .def("__repr__", &repr<SourceHandle>);

    py::class_<EmitterHandle, std::shared_ptr<EmitterHandle>>(
        module, "Emitter", "A positioned instance of a sound. Made by World.create_emitter().")
        .def_property_readonly("id", &EmitterHandle::id)
        .def_property_readonly("deleted", &EmitterHandle::deleted)
        .def_property_readonly(
            "labels",
            [](const EmitterHandle& self) { return py::tuple(py::cast(self.get().labels())); })
        .def_property(
            "state", [](const EmitterHandle& self) { return self.get().state(); },
            [](const EmitterHandle& self, State state) { self.change().setState(state); },
            "Play state, shared with the source and its other emitters.")
        .def_property(
            "source",
            [](const EmitterHandle& self) { return self.tracker().handle(self.get().source()); },
            [](const EmitterHandle& self, const std::shared_ptr<SourceHandle>& source) {
                Kelo::Emitter& emitter = self.change();
                Kelo::Source* part = source ? &source->get() : nullptr;
                if (part && &part->world() != &emitter.world())
                    throw py::value_error("source " + std::to_string(source->id()) +
                                          " belongs to another world");
                emitter.setSource(part);
            },
            "The connected source; None disconnects.")
        .def_property_readonly(
            "position", [](const EmitterHandle& self) { return toTuple(self.get().position()); })
        .def_property_readonly(
            "rotation", [](const EmitterHandle& self) { return toTuple(self.get().rotation()); })
        .def_property_readonly("max_back",
                               [](const EmitterHandle& self) { return self.get().maxBack(); })
        .def_property_readonly("max_front",
                               [](const EmitterHandle& self) { return self.get().maxFront(); })
        .def_property_readonly("min_back",
                               [](const EmitterHandle& self) { return self.get().minBack(); })
        .def_property_readonly("min_front",
                               [](const EmitterHandle& self) { return self.get().minFront(); })
        .def_property_readonly("gain", [](const EmitterHandle& self) { return self.get().gain(); })
        .def_property_readonly("extra",
                               [](const EmitterHandle& self) { return self.get().extraParam(); })
        .def_property_readonly("spatialize",
                               [](const EmitterHandle& self) { return self.get().spatialize(); })
        .def(
            "set_transform",
            [](const EmitterHandle& self, const py::object& position, const py::object& rotation) {
                Kelo::Emitter& emitter = self.change();
                std::optional<osg::Vec3f> p;
                std::optional<osg::Quaternion> r;
                if (!position.is_none())
                    p = toVec3(position, "position");
                if (!rotation.is_none())
                    r = toQuaternion(rotation, "rotation");
                emitter.setTransform(p ? &*p : nullptr, r ? &*r : nullptr);
            },
            py::arg("position") = py::none(), py::arg("rotation") = py::none(),
            "Position (x, y, z) and rotation (x, y, z, w); None keeps the present one.")
        .def(
            "set_hull",
            [](const EmitterHandle& self, double maxBack, double maxFront, double minBack,
               double minFront) {
                Kelo::Emitter& emitter = self.change();
                emitter.setHull(finite(maxBack, "max_back"), finite(maxFront, "max_front"),
                                finite(minBack, "min_back"), finite(minFront, "min_front"));
            },
            py::arg("max_back"), py::arg("max_front"), py::arg("min_back"), py::arg("min_front"))
        .def(
            "set_param",
            [](const EmitterHandle& self, bool spatialize, double extra, double gain) {
                Kelo::Emitter& emitter = self.change();
                emitter.setParam(spatialize, finite(extra, "extra"), finite(gain, "gain"));
            },
            py::arg("spatialize") = true, py::arg("extra") = 0.0, py::arg("gain") = 1.0,
            "Spatialize switch, extra parameter and gain, all set at once (the defaults are a "
            "new emitter's).")
        .def("delete", &deletePart<EmitterHandle>)
        .def("__repr__", &repr<EmitterHandle>);
}

}  // namespace KeloPython
