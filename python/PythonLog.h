#pragma once

#include <string>

#include <pybind11/pybind11.h>

namespace KeloPython {

namespace py = pybind11;

// The library's log lines go to the Python logger of that name instead of standard error. The
// library writes from its network threads too, and under its log's lock: lines are queued, and
// handed to Python by deliverLog() (at the end of the calls that run the world) and by a
// background thread for what arrives in between.
void logToPython(const std::string& logger);
// Back to standard error; stops the background thread.
void logToStderr();
// Hands the queued lines to Python now. Needs the GIL.
void deliverLog();

// Logs a Python exception with its traceback, after text. Needs the GIL.
void logPythonError(const std::string& text, py::error_already_set& error);

void bindLog(py::module_& module);

}  // namespace KeloPython
