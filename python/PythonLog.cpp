#include "PythonLog.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>

#include <Kelo/Log.h>

namespace KeloPython {

namespace {

struct Line {
    int level;
    std::string file;
    int line;
    std::string function;
    std::string text;
};

// Lines between the library's threads and Python. Bounded: a library that logs faster than
// Python's handlers write loses the surplus, and says how much.
struct Queue {
    static constexpr size_t kLimit = 10000;

    std::mutex mutex;
    std::condition_variable changed;
    std::deque<Line> lines;
    size_t dropped = 0;
    bool stop = false;
};

std::shared_ptr<Queue> queue;
std::string loggerName = "kelo";
// The background thread (a Python threading.Thread) while lines go to Python.
py::object pump;
bool delivering = false;

int pythonLevel(int level) {
    switch (level) {
        case osg::LOG_FATAL:
            return 40;  // ERROR
        case osg::LOG_WARNING:
            return 30;  // WARNING
        case osg::LOG_LOG:
        case osg::LOG_NOTICE:
            return 20;  // INFO
        default:
            return 10;  // DEBUG
    }
}

void deliverFrom(Queue& from) {
    // A handler that writes releases the GIL, and another thread may then deliver too: the one
    // already at it goes on, so that lines keep their order.
    if (delivering)
        return;
    delivering = true;
    try {
        py::object logger = py::module_::import("logging").attr("getLogger")(loggerName);
        for (;;) {
            Line line;
            size_t dropped = 0;
            {
                std::lock_guard<std::mutex> lock(from.mutex);
                dropped = from.dropped;
                from.dropped = 0;
                if (dropped == 0) {
                    if (from.lines.empty())
                        break;
                    line = std::move(from.lines.front());
                    from.lines.pop_front();
                }
            }
            if (dropped > 0)
                line = {osg::LOG_WARNING, "", 0, "",
                        std::to_string(dropped) + " log lines of the library were dropped: " +
                            "Python did not take them fast enough"};
            while (!line.text.empty() && line.text.back() == '\n')
                line.text.pop_back();
            const int level = pythonLevel(line.level);
            if (!logger.attr("isEnabledFor")(level).cast<bool>())
                continue;
            py::object record =
                logger.attr("makeRecord")(logger.attr("name"), level, line.file, line.line,
                                          line.text, py::tuple(), py::none(), line.function);
            logger.attr("handle")(record);
        }
    } catch (py::error_already_set& error) {
        // A failing handler must not take the library's caller down with it.
        error.discard_as_unraisable("kelo log delivery");
    }
    delivering = false;
}

// The background thread's body: waits without the GIL, delivers with it.
void pumpLoop(std::shared_ptr<Queue> from) {
    for (;;) {
        {
            py::gil_scoped_release release;
            std::unique_lock<std::mutex> lock(from->mutex);
            from->changed.wait_for(lock, std::chrono::milliseconds(100), [&] {
                return from->stop || !from->lines.empty() || from->dropped > 0;
            });
            if (from->stop)
                return;
        }
        deliverFrom(*from);
    }
}

}  // namespace

void logToPython(const std::string& logger) {
    loggerName = logger;
    if (queue)
        return;
    auto to = std::make_shared<Queue>();
    osg::Log::the().setSink([to](const osg::LogMessage& message) {
        std::lock_guard<std::mutex> lock(to->mutex);
        if (to->lines.size() >= Queue::kLimit) {
            ++to->dropped;
            return;
        }
        to->lines.push_back({message.level, message.file, message.line,
                             message.function ? message.function : "", message.text});
        to->changed.notify_one();
    });
    queue = to;
    py::object thread = py::module_::import("threading").attr("Thread");
    pump = thread(py::arg("target") = py::cpp_function([to] { pumpLoop(to); }),
                  py::arg("name") = "kelo-log", py::arg("daemon") = true);
    pump.attr("start")();
}

void logToStderr() {
    if (!queue)
        return;
    osg::Log::the().setSink(nullptr);
    deliverFrom(*queue);
    {
        std::lock_guard<std::mutex> lock(queue->mutex);
        queue->stop = true;
    }
    queue->changed.notify_all();
    pump.attr("join")(1.0);
    pump = py::object();
    queue.reset();
}

void deliverLog() {
    if (queue)
        deliverFrom(*queue);
}

void logPythonError(const std::string& text, py::error_already_set& error) {
    std::string trace;
    try {
        py::object lines =
            py::module_::import("traceback")
                .attr("format_exception")(error.type(), error.value(), error.trace());
        trace = py::str("").attr("join")(lines).cast<std::string>();
    } catch (py::error_already_set&) {
        trace = std::string(error.what()) + "\n";
    }
    KELO_LOG_LIMITED(osg::LOG_FATAL, "%s:\n%s", text.c_str(), trace.c_str());
}

void bindLog(py::module_& module) {
    module.def(
        "set_log_level", [](int level) { osg::Log::the().setLevel(level); }, py::arg("level"),
        "The library's log threshold: 0 always, 1 errors, 2 warnings (the default), 3 "
        "notices, more for more.");
    module.def("log_level", [] { return osg::Log::the().level(); });
    module.def("log_to_python", &logToPython, py::arg("logger") = "kelo",
               "Sends the library's log lines to the Python logger of that name.");
    module.def("log_to_stderr", &logToStderr, "Sends the library's log lines to standard error.");
    module.def("flush_log", &deliverLog, "Hands the library's waiting log lines to Python now.");
    // The interpreter's end: no more lines into Python.
    py::module_::import("atexit").attr("register")(py::cpp_function(&logToStderr));
}

}  // namespace KeloPython
