#include "Tovan/Thread.h"

#include <cerrno>
#include <cstdint>
#include <cstring>

#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

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

namespace {

// The kernel's struct sched_attr, first version: its header clashes with glibc's <sched.h>.
struct SchedAttr {
    uint32_t size;
    uint32_t policy;
    uint64_t flags;
    int32_t nice;
    uint32_t priority;
    uint64_t runtime;  // for a time-shared thread: the slice it asks for, in ns (6.12 on)
    uint64_t deadline;
    uint64_t period;
};
static_assert(sizeof(SchedAttr) == 48, "SCHED_ATTR_SIZE_VER0");
constexpr uint64_t kResetOnFork = 1;  // SCHED_FLAG_RESET_ON_FORK, the one flag kept

}  // namespace

bool Thread::requestSlice(unsigned microseconds, std::string& why) {
    if (!validSlice(microseconds)) {
        why = "not 0 or from " + std::to_string(kMinSliceMicros) + " to " +
              std::to_string(kMaxSliceMicros) + " us";
        return false;
    }
    // glibc has no wrapper for these two calls.
    SchedAttr attr{};
    if (::syscall(SYS_sched_getattr, 0, &attr, sizeof attr, 0) != 0) {
        why = std::strerror(errno);
        return false;
    }
    // A real-time or deadline thread's runtime means something else.
    if (attr.policy != SCHED_OTHER && attr.policy != SCHED_BATCH && attr.policy != SCHED_IDLE) {
        why = "the thread is not time-shared";
        return false;
    }
    attr.size = sizeof attr;
    attr.flags &= kResetOnFork;
    attr.runtime = static_cast<uint64_t>(microseconds) * 1000;
    if (::syscall(SYS_sched_setattr, 0, &attr, 0) != 0) {
        why = std::strerror(errno);
        return false;
    }
    // Kernels before 6.12 accept the call and ignore the slice.
    SchedAttr now{};
    if (microseconds != 0 && (::syscall(SYS_sched_getattr, 0, &now, sizeof now, 0) != 0 ||
                              now.runtime != attr.runtime)) {
        why = "this kernel ignores it (Linux 6.12 and later take it)";
        return false;
    }
    return true;
}

unsigned Thread::slice() {
    SchedAttr attr{};
    if (::syscall(SYS_sched_getattr, 0, &attr, sizeof attr, 0) != 0)
        return 0;
    return static_cast<unsigned>(attr.runtime / 1000);
}

}  // namespace Tovan
