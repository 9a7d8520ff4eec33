// The transform stream of load_remote's one-server throughput run, sent as OSC messages over TCP
// with liblo, next to libKelo's own figure taken in the same run (load_remote as a child
// process) and the ratio of the two. Both stay on loopback and stop by themselves; liblo's TCP
// server cannot be bound to one address, so this runs only where no interface but loopback is up
// (a private network namespace).
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <ifaddrs.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <lo/lo.h>
#include <CLI/CLI.hpp>

#include "CommandLine.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kPath = "/emitter/transform";
// The fields of a transform event: command, emitter id, position, rotation.
constexpr const char* kTypes = "iifffffff";
constexpr int kSetEmitterTransform = 34;

double seconds(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration<double>(to - from).count();
}

// The interfaces, other than loopback, that are up with an address: where a socket bound to
// every interface could be reached from outside.
std::vector<std::string> reachableInterfaces() {
    std::vector<std::string> names;
    ifaddrs* list = nullptr;
    if (::getifaddrs(&list) != 0)
        return {"(unknown: getifaddrs failed)"};
    for (const ifaddrs* i = list; i; i = i->ifa_next)
        if (i->ifa_addr &&
            (i->ifa_addr->sa_family == AF_INET || i->ifa_addr->sa_family == AF_INET6) &&
            (i->ifa_flags & IFF_UP) && !(i->ifa_flags & IFF_LOOPBACK))
            names.push_back(i->ifa_name);
    ::freeifaddrs(list);
    return names;
}

// What arrives at the OSC server: every position one step further along x, as load_remote's
// servers check.
struct Watch {
    std::atomic<long> moves{0};
    std::atomic<bool> disorder{false};
    float expected = 1;
};

int onTransform(const char*, const char*, lo_arg** argv, int, lo_message, void* data) {
    auto& watch = *static_cast<Watch*>(data);
    if (argv[0]->i != kSetEmitterTransform || argv[2]->f != watch.expected)
        watch.disorder = true;
    watch.expected = argv[2]->f + 1;
    ++watch.moves;
    return 0;
}

void onError(int number, const char* message, const char* where) {
    std::fprintf(stderr, "compare_osc: liblo error %d: %s (%s)\n", number, message,
                 where ? where : "");
}

class ServerThread {
public:
    explicit ServerThread(Watch& watch)
        : _thread(lo_server_thread_new_with_proto(nullptr, LO_TCP, onError)) {
        if (!_thread)
            return;
        lo_server_thread_add_method(_thread, kPath, kTypes, onTransform, &watch);
        if (lo_server_thread_start(_thread) != 0) {
            lo_server_thread_free(_thread);
            _thread = nullptr;
        }
    }
    ServerThread(const ServerThread&) = delete;
    ServerThread& operator=(const ServerThread&) = delete;
    ~ServerThread() {
        if (_thread) {
            lo_server_thread_stop(_thread);
            lo_server_thread_free(_thread);
        }
    }
    bool ok() const { return _thread != nullptr; }
    int port() const { return lo_server_thread_get_port(_thread); }

private:
    lo_server_thread _thread;
};

// OSC over TCP: the figure in M messages/s, negative when the run failed.
double osc(long events, double limit) {
    Watch watch;
    ServerThread server(watch);
    if (!server.ok()) {
        std::fprintf(stderr, "compare_osc: liblo could not start a TCP server\n");
        return -1;
    }
    lo_address address =
        lo_address_new_with_proto(LO_TCP, "127.0.0.1", std::to_string(server.port()).c_str());
    const auto start = Clock::now();
    const auto end =
        start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(limit));
    long sent = 0;
    for (long i = 1; i <= events && (i % 1024 || Clock::now() < end); ++i, ++sent)
        if (lo_send(address, kPath, kTypes, kSetEmitterTransform, 1, static_cast<float>(i), 0.0f,
                    0.0f, 0.0f, 0.0f, 0.0f, 1.0f) < 0) {
            std::fprintf(stderr, "compare_osc: sending failed: %s\n", lo_address_errstr(address));
            break;
        }
    const auto written = Clock::now();
    while (watch.moves < sent && Clock::now() < end)
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    const auto arrived = Clock::now();
    lo_address_free(address);
    char version[32] = "?";
    lo_version(version, sizeof version, nullptr, nullptr, nullptr, 0, nullptr, nullptr, nullptr);
    const double rate = watch.moves / seconds(start, arrived) / 1e6;
    std::printf(
        "OSC over TCP (liblo %s), 1 server: %ld messages sent in %.2f s (%.2f M/s sent), %ld "
        "arrived in %.2f s = %.3f M messages/s, %s, %s\n",
        version, sent, seconds(start, written), sent / seconds(start, written) / 1e6,
        watch.moves.load(), seconds(start, arrived), rate,
        watch.disorder ? "OUT OF ORDER" : "in order",
        watch.moves == events ? "none lost" : "SOME LOST");
    return watch.moves == events && !watch.disorder ? rate : -1;
}

// Runs the program with its arguments, its output captured; false if it did not finish well
// within the limit (then it is killed).
bool run(const std::vector<std::string>& command, double limit, std::string& output) {
    int out[2];
    if (::pipe(out) != 0)
        return false;
    const pid_t child = ::fork();
    if (child < 0) {
        ::close(out[0]);
        ::close(out[1]);
        return false;
    }
    if (child == 0) {
        ::dup2(out[1], STDOUT_FILENO);
        ::close(out[0]);
        ::close(out[1]);
        std::vector<char*> argv;
        for (const std::string& word : command)
            argv.push_back(const_cast<char*>(word.c_str()));
        argv.push_back(nullptr);
        ::execv(argv[0], argv.data());
        std::fprintf(stderr, "compare_osc: cannot run %s: %s\n", argv[0], std::strerror(errno));
        ::_exit(127);
    }
    ::close(out[1]);
    const auto end = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                        std::chrono::duration<double>(limit));
    bool late = false;
    char buffer[4096];
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
        if (left <= 0) {
            late = true;
            break;
        }
        pollfd p{out[0], POLLIN, 0};
        if (::poll(&p, 1, static_cast<int>(std::min<long long>(left, 1000))) < 0 && errno != EINTR)
            break;
        if (!(p.revents & (POLLIN | POLLHUP)))
            continue;
        const ssize_t n = ::read(out[0], buffer, sizeof buffer);
        if (n <= 0)
            break;
        if (output.size() < 1 << 20)
            output.append(buffer, static_cast<size_t>(n));
    }
    ::close(out[0]);
    if (late) {
        std::fprintf(stderr, "compare_osc: %s took longer than %.0f s, stopped\n",
                     command[0].c_str(), limit);
        ::kill(child, SIGKILL);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    return !late && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// libKelo's one-server figure from load_remote, in M events/s; negative when it failed.
double kelo(const std::string& program, long events) {
    std::string output;
    // The latency and catch-up runs it ends with are cut down to almost nothing.
    const bool ran =
        run({program, "--events", std::to_string(events), "--rounds", "1", "--emitters", "1"}, 120,
            output);
    // "  server 1: <n> arrived in <s> s = <rate> M events/s, in order, none lost" of the first run.
    const size_t line = output.find("  server 1: ");
    if (!ran || line == std::string::npos) {
        std::fprintf(stderr, "compare_osc: %s gave no figure:\n%s", program.c_str(),
                     output.c_str());
        return -1;
    }
    const size_t from = line + std::strlen("  server 1: ");
    const std::string figure = output.substr(from, output.find('\n', from) - from);
    std::printf("libKelo (load_remote), 1 server: %s\n", figure.c_str());
    const size_t equals = figure.find(" = ");
    if (equals == std::string::npos || figure.find("in order, none lost") == std::string::npos)
        return -1;
    return std::strtod(figure.c_str() + equals + 3, nullptr);
}

std::string besideThisProgram(const std::string& name) {
    std::vector<char> path(4096);
    const ssize_t n = ::readlink("/proc/self/exe", path.data(), path.size() - 1);
    if (n <= 0)
        return name;
    std::string self(path.data(), static_cast<size_t>(n));
    return self.substr(0, self.rfind('/') + 1) + name;
}

}  // namespace

int main(int argc, char** argv) {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    CLI::App app{
        "Transform events as OSC messages over TCP with liblo, next to libKelo's figure for the "
        "same stream (load_remote, one server) in the same run. Loopback only; run it inside a "
        "private network namespace."};
    long events = 1'000'000;
    long keloEvents = 5'000'000;
    double limit = 60;
    std::string program = besideThisProgram("load_remote");
    app.add_option("--events", events, "OSC messages sent")
        ->check(CLI::Range(1L, 20'000'000L))
        ->capture_default_str();
    app.add_option("--kelo-events", keloEvents, "Transform events load_remote sends")
        ->check(CLI::Range(1L, 50'000'000L))
        ->capture_default_str();
    app.add_option("--seconds", limit, "At most this long for the OSC run")
        ->check(CLI::Range(1.0, 300.0))
        ->capture_default_str();
    app.add_option("--load-remote", program, "The load_remote program")
        ->type_name("PATH")
        ->check(CLI::ExistingFile)
        ->capture_default_str();
    if (const auto exitCode = AppOptions::parseCommandLine(app, argc, argv, "compare_osc", [] {}))
        return *exitCode;
    if (::access(program.c_str(), X_OK) != 0) {
        std::fprintf(stderr, "compare_osc: %s is not a program (see --load-remote)\n",
                     program.c_str());
        return 2;
    }
    const std::vector<std::string> others = reachableInterfaces();
    if (!others.empty()) {
        std::fprintf(stderr,
                     "compare_osc: liblo's TCP server listens on every interface and %s is up "
                     "besides loopback; run it in a private network namespace: unshare "
                     "--net bash -c 'ip link set lo up; %s'\n",
                     others.front().c_str(), argv[0]);
        return 2;
    }
    // A last resort: a send blocked for good inside liblo cannot be interrupted otherwise.
    std::signal(SIGALRM, [](int) {
        constexpr char text[] = "compare_osc: still running long after its limits, stopped\n";
        [[maybe_unused]] const ssize_t n = ::write(STDERR_FILENO, text, sizeof text - 1);
        ::_exit(1);
    });
    ::alarm(static_cast<unsigned>(limit) + 180);
    // The liblo server thread would otherwise take SIGPIPE with it when a connection drops.
    std::signal(SIGPIPE, SIG_IGN);
    const double oscRate = osc(events, limit);
    const double keloRate = kelo(program, keloEvents);
    if (oscRate <= 0 || keloRate <= 0) {
        std::printf("ratio: none, a run failed\n");
        return 1;
    }
    std::printf("ratio libKelo / OSC over TCP: %.1f\n", keloRate / oscRate);
    return 0;
}
