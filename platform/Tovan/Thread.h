#pragma once

#include <atomic>
#include <string>
#include <thread>

namespace Tovan {

// A thread that runs main(). Joined (if still running) when destroyed.
class Thread {
public:
    Thread() = default;
    virtual ~Thread();
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    // Starts main() on a new thread; false if it runs already.
    bool start();
    void join();
    bool running() const { return _thread.joinable(); }
    // Asks main() to end: it sees terminated() turn true. A thread cannot be stopped from
    // outside; main() must look, and whatever it waits for must be woken as well.
    void terminate(int code);
    bool terminated() const { return _terminated.load(); }
    int exitCode() const { return _code.load(); }

    // Asks the scheduler to run the calling thread in slices of this many microseconds
    // (kMinSliceMicros to kMaxSliceMicros; 0: the kernel's own). A thread that needs little
    // time per wake-up and asks for a short slice runs as soon as it is woken, ahead of a busy
    // thread on the same processor, rather than when that one blocks or its slice ends. Its
    // policy and niceness stay. Linux takes this from version 6.12 on; false, with why, when
    // the call fails or the kernel does not keep the slice.
    static bool requestSlice(unsigned microseconds, std::string& why);
    // The calling thread's slice in microseconds, its own or the kernel's; 0 where the kernel
    // does not tell (before 6.12).
    static unsigned slice();
    static constexpr unsigned kMinSliceMicros = 100, kMaxSliceMicros = 100000;
    // 0, or from kMinSliceMicros to kMaxSliceMicros.
    static constexpr bool validSlice(unsigned microseconds) {
        return microseconds == 0 ||
               (microseconds >= kMinSliceMicros && microseconds <= kMaxSliceMicros);
    }

protected:
    virtual int main() = 0;

private:
    std::thread _thread;
    std::atomic<bool> _terminated{false};
    std::atomic<int> _code{0};
};

}  // namespace Tovan
