// Load on the web backend while the world runs its frame loop: wrk holds keep-alive connections
// to the index page on 127.0.0.1 while the world calls update() at 90 Hz; reports how long the
// longest update() took and wrk's throughput and latency. Optionally, slow clients (from
// 127.0.1.x, each sending a byte of a request now and then and coming back when dropped) hold
// the server's connection table meanwhile. Stops by itself.
//
//   bench_web [seconds=10] [connections=100] [wrk threads=2] [slow clients=0]
//
// Run it through bench/web-load.sh, which keeps it in a network namespace of its own.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include <Kelo/Emitter.h>
#include <Kelo/Source.h>
#include <Kelo/WebBackend.h>
#include <Kelo/World.h>
#include <Lirra/PolledWebServer.h>

extern char** environ;

int main(int argc, char** argv) {
    using Clock = std::chrono::steady_clock;
    const int seconds = argc > 1 ? std::max(1, std::min(60, std::atoi(argv[1]))) : 10;
    const int connections = argc > 2 ? std::max(1, std::min(1000, std::atoi(argv[2]))) : 100;
    const int threads = argc > 3 ? std::max(1, std::min(connections, std::atoi(argv[3]))) : 2;
    const int slowClients = argc > 4 ? std::max(0, std::min(2000, std::atoi(argv[4]))) : 0;
    rlimit files{};
    getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = files.rlim_max;
    setrlimit(RLIMIT_NOFILE, &files);

    Kelo::World world;
    // wrk's connections all come from one address: the table is sized for them.
    const std::string table = std::to_string(std::max(256, connections + 16));
    auto* web = dynamic_cast<Kelo::WebBackend*>(world.addBackend(
        "web", ("host=127.0.0.1 clients=" + table + " clientsPerAddress=" + table).c_str()));
    if (!web || !web->webServer()->isOpen()) {
        std::fprintf(stderr, "bench_web: the web backend did not open\n");
        return 1;
    }
    // A scene that moves, so every frame changes something.
    Kelo::Source* source = world.createSource();
    std::vector<Kelo::Emitter*> emitters;
    for (int i = 0; i < 16; ++i) {
        emitters.push_back(world.createEmitter({"e" + std::to_string(i)}));
        emitters.back()->setSource(source);
    }

    const std::string url =
        "http://127.0.0.1:" + std::to_string(web->webServer()->socketAddress().getServicePort()) +
        "/index.html";
    std::vector<std::string> args = {"wrk",
                                     "-t" + std::to_string(threads),
                                     "-c" + std::to_string(connections),
                                     "-d" + std::to_string(seconds) + "s",
                                     "--timeout",
                                     "2s",
                                     "--latency",
                                     url};
    std::vector<char*> argvWrk;
    for (auto& arg : args)
        argvWrk.push_back(arg.data());
    argvWrk.push_back(nullptr);
    std::printf("wrk -t%d -c%d -d%ds --latency %s, world.update() at 90 Hz\n", threads, connections,
                seconds, url.c_str());
    std::fflush(stdout);
    pid_t wrk = 0;
    if (posix_spawnp(&wrk, "wrk", nullptr, nullptr, argvWrk.data(), environ) != 0) {
        std::fprintf(stderr, "bench_web: cannot run wrk (apt-get install wrk)\n");
        return 1;
    }

    const uint16_t port = web->webServer()->socketAddress().getServicePort();
    const std::string head = "GET /index.html HTTP/1.1\r\nHost: 127.0.0.1\r\nUser-Agent: slow";
    std::vector<int> slow(static_cast<std::size_t>(slowClients), -1);
    std::vector<std::size_t> sent(slow.size(), 0);
    long reconnects = 0;
    // Each slow client sends its next byte, or connects again when the server dropped it.
    const auto trickle = [&] {
        for (std::size_t i = 0; i < slow.size(); ++i) {
            char byte;
            const bool gone = slow[i] < 0 || recv(slow[i], &byte, 1, MSG_DONTWAIT) == 0 ||
                              send(slow[i], &head[sent[i] % head.size()], 1, MSG_NOSIGNAL) != 1;
            ++sent[i];
            if (!gone)
                continue;
            if (slow[i] >= 0)
                close(slow[i]);
            ++reconnects;
            slow[i] = socket(AF_INET, SOCK_STREAM, 0);
            sockaddr_in from{}, to{};
            from.sin_family = to.sin_family = AF_INET;
            inet_pton(AF_INET, ("127.0.1." + std::to_string(1 + i % 200)).c_str(), &from.sin_addr);
            to.sin_port = htons(port);
            to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            bind(slow[i], reinterpret_cast<sockaddr*>(&from), sizeof from);
            connect(slow[i], reinterpret_cast<sockaddr*>(&to), sizeof to);
            sent[i] = 0;
        }
    };

    const auto frame = std::chrono::nanoseconds(1000000000 / 90);
    const auto giveUp = Clock::now() + std::chrono::seconds(seconds + 15);
    std::vector<double> updates;  // milliseconds
    int status = 0;
    auto next = Clock::now();
    for (int n = 0; waitpid(wrk, &status, WNOHANG) == 0; ++n) {
        if (Clock::now() > giveUp) {
            kill(wrk, SIGKILL);
            waitpid(wrk, &status, 0);
            std::fprintf(stderr, "bench_web: wrk overran; stopped it\n");
            break;
        }
        for (std::size_t i = 0; i < emitters.size(); ++i) {
            const float a = 0.01f * n + static_cast<float>(i);
            const osg::Vec3f p(5 * std::cos(a), 0, 5 * std::sin(a));
            emitters[i]->setTransform(&p, nullptr);
        }
        if (n % 9 == 0)
            trickle();
        const auto start = Clock::now();
        world.update();
        updates.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
        next += frame;
        std::this_thread::sleep_until(next);
    }

    std::sort(updates.begin(), updates.end());
    const auto at = [&](double q) {
        return updates.empty() ? 0.0 : updates[static_cast<std::size_t>(q * (updates.size() - 1))];
    };
    std::printf("\nworld.update() over %zu frames: median %.3f ms, p99 %.3f ms, longest %.3f ms\n",
                updates.size(), at(0.5), at(0.99), updates.empty() ? 0.0 : updates.back());

    if (slowClients > 0)
        std::printf("%d slow clients came back %ld times; the server dropped %zu connections\n",
                    slowClients, reconnects - slowClients, web->webServer()->evictions());
    for (const int fd : slow)
        if (fd >= 0)
            close(fd);
    world.clearWorld();
    world.deleteAllBackends();
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : 1;
}
