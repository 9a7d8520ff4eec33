#include "Tovan/Thread.h"

namespace Tovan {

Thread::~Thread() {
    join();
}

bool Thread::start() {
    if (_thread.joinable())
        return false;
    _terminated = false;
    _thread = std::thread([this] {
        const int code = main();
        if (!_terminated)
            _code = code;
    });
    return true;
}

void Thread::join() {
    if (_thread.joinable() && _thread.get_id() != std::this_thread::get_id())
        _thread.join();
}

void Thread::terminate(int code) {
    _code = code;
    _terminated = true;
}

}  // namespace Tovan
