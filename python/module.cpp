// The kelo Python module: the library's worlds, parts and backends with Python manners.
#include <pybind11/pybind11.h>

#include "Bindings.h"
#include "PythonBackend.h"
#include "PythonLog.h"

PYBIND11_MODULE(kelo, module) {
    module.doc() = "libKelo: spatial sound scenes, their backends and sound servers.";
    module.attr("__version__") = KELO_VERSION;
    KeloPython::bindLog(module);
    KeloPython::bindParts(module);
    KeloPython::bindBackend(module);
    KeloPython::bindWorld(module);
}
