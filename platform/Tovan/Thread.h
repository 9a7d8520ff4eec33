#pragma once

#include <atomic>
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

protected:
    virtual int main() = 0;

private:
    std::thread _thread;
    std::atomic<bool> _terminated{false};
    std::atomic<int> _code{0};
};

}  // namespace Tovan
