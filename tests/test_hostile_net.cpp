// The networking core against hostile peers: raw sockets on 127.0.0.1 that leave frames
// unfinished, fall silent, announce more than the budget, crowd the server or exhaust its
// descriptors. Limits are set small through the API so that each case takes a second or two.
#include <fcntl.h>
#include <sys/resource.h>

#include <atomic>
#include <cmath>
#include <ctime>
#include <memory>
#include <thread>

#include <Lirra/Connection.h>
#include <Lirra/MultiClient.h>
#include <Tovan/Thread.h>
#include <osg/Log.h>

#include "PeerTest.h"
#include "support.h"

using namespace KeloTest;
using namespace std::chrono_literals;

namespace {

constexpr bool kMeasuresMemory = !kAsan && !kTsan;

// Test events of one field: a string, or a number to see that a stream arrives whole and in
// order.
template <typename T, int16_t Id>
struct OneField : Lirra::Event {
    T value{};
    void addFields() override { addField(value); }
    void getFields() override { getField(value); }
    const Lirra::EventType* type() const override { return &_type; }
    static Lirra::Event* create() { return new OneField; }
    static inline Lirra::EventType _type{Id == 31000 ? "Blob" : "Numbered", Id, &create};
};
using Blob = OneField<std::string, 31000>;
using Numbered = OneField<uint32_t, 31001>;

template <typename E>
std::string frameWith(decltype(E::value) value) {
    E event;
    event.value = std::move(value);
    return frameOf(event);
}
std::string blobFrame(size_t dataBytes) {
    return frameWith<Blob>(std::string(dataBytes, 'x'));
}

// Just the start of a Blob frame: its header announcing length bytes, then count bytes of it.
std::string frameStart(uint32_t length, size_t count) {
    const char header[8] = {
        char(length), char(length >> 8), char(length >> 16), char(length >> 24), 0x18, 0x79, 0, 0};
    return std::string(header, 8) + std::string(count, 'y');
}

void connectedClient(Lirra::MultiClient& client, unsigned short port, double keepAlive) {
    client.setMulticastEnabled(false);
    client.setKeepAliveInterval(keepAlive);
    EXPECT_TRUE(client.open());
    EXPECT_TRUE(client.connectToServer("127.0.0.1", port));
}

TEST(HostileNet, APartialFrameIsDroppedAtItsDeadlineAndItsMemoryGoes) {
    BareServer server;
    server.setFrameDeadline(2, 48u << 20);  // 2 s and a second for 48 MiB
    const long before = residentKiB();
    RawPeer peer(server.listeningPort(), kPreamble + frameStart(48u << 20, 32u << 20));
    EXPECT_TRUE(until([&] { return server.receiveHeld() >= (48u << 20); }));
    EXPECT_TRUE(peer.endsWithin(6000ms));
    EXPECT_EQ(peer.goodbye(), "frame of 50331648 bytes not completed within 3.0 s");
    EXPECT_TRUE(until([&] { return server.receiveHeld() == 0; }));
    pump(server);
    EXPECT_EQ(server.size(), 0u);
    if (kMeasuresMemory) {
        EXPECT_LT(residentKiB() - before, 12 << 10) << "held on to the partial frame";
    }
}

TEST(HostileNet, AnIdlePeerIsDroppedWhileKeepAlivesKeepOthers) {
    BareServer server;
    server.setIdleLimit(1);
    Lirra::MultiClient client;
    connectedClient(client, server.listeningPort(), 0.1);
    RawPeer silent(server.listeningPort(), kPreamble), alive(server.listeningPort(), kPreamble);
    ASSERT_TRUE(until([&] { return server.size() == 3; }));
    for (const auto end = std::chrono::steady_clock::now() + 2500ms;
         std::chrono::steady_clock::now() < end; pump(server)) {
        ASSERT_TRUE(alive.send(kKeepAlive));
        alive.readFor(100ms);
    }
    EXPECT_TRUE(silent.endsWithin(1000ms));
    EXPECT_EQ(silent.goodbye(), "nothing received for 1 s");
    EXPECT_FALSE(alive.endsWithin(10ms)) << alive.goodbye();
    pump(server);
    EXPECT_EQ(server.size(), 2u);  // the keep-alive peer and the client
    EXPECT_EQ(client.size(), 1u);
}

// Reads events as a server's reader does, expecting Numbered 1..count in order, for at most
// 20 s; the number it stopped at (count + 1 when all came).
uint32_t readInOrder(Lirra::MultiServer& server, uint32_t count, double wait) {
    uint32_t expected = 1;
    for (const auto end = std::chrono::steady_clock::now() + 20s;
         expected <= count && std::chrono::steady_clock::now() < end;) {
        if (!server.waitForInput(wait))
            continue;
        Lirra::Communicator* c = nullptr;
        Lirra::Event* event = nullptr;
        if (!server.receiveCommunicator(c) || !Lirra::Event::receive(c, event))
            break;
        const std::unique_ptr<Lirra::Event> owned(event);
        auto* numbered = dynamic_cast<Numbered*>(event);
        if (!numbered || numbered->value != expected)
            break;
        ++expected;
    }
    return expected;
}

// Written at once, and gathered after each write for the longest time allowed: the last
// frames, left behind a write with none following, go out too.
TEST(HostileNet, ABurstArrivesWholeAndInOrderAmongKeepAlives) {
    for (const unsigned gather : {0u, Lirra::MultiCommunicator::kMaxGatherMicros}) {
        SCOPED_TRACE(gather);
        BareServer server;
        server.setKeepAliveInterval(0.01);
        Lirra::MultiClient client;
        client.setGatherTime(gather);
        connectedClient(client, server.listeningPort(), 0.01);
        ASSERT_TRUE(until([&] { return server.size() == 1 && client.size() == 1; }));
        constexpr uint32_t kCount = 300000;
        std::thread sender([&] {
            Numbered event;
            for (event.value = 1; event.value <= kCount; ++event.value) {
                event.send(&client);
                if (event.value % 50000 == 0)
                    std::this_thread::sleep_for(30ms);  // quiet spells: keep-alives go between
            }
        });
        EXPECT_EQ(readInOrder(server, kCount, 0.1), kCount + 1);
        sender.join();
        EXPECT_EQ(server.size(), 1u);
    }
}

size_t openDescriptors() {
    size_t count = 0;
    for (int fd = 0; fd < 4096; ++fd)
        count += ::fcntl(fd, F_GETFD) != -1;
    return count;
}

// While the reader waits in poll(), the network thread lets go of the sockets polled. Lone
// frames and a stream are still read whole and in order, a write larger than the socket takes
// goes out, a reader that stops waiting leaves the socket to the network thread again, and the
// peer's close is seen with its descriptor closed once.
TEST(HostileNet, SocketsLentToTheWaitingReaderWorkAsBefore) {
    BareServer server;
    const size_t descriptors = openDescriptors();
    RawPeer peer(server.listeningPort(), kPreamble);
    ASSERT_TRUE(until([&] { return server.size() == 1; }, [&] { pump(server); }));
    constexpr uint32_t kLone = 20, kCount = 50000;
    std::atomic<bool> sent{true};
    std::thread sender([&] {
        for (uint32_t i = 1; i <= kLone; ++i) {
            std::this_thread::sleep_for(5ms);  // the reader is back in poll() by then
            sent = sent && peer.send(frameWith<Numbered>(i));
        }
        std::string stream;
        for (uint32_t i = kLone + 1; i <= kCount; ++i)
            stream += frameWith<Numbered>(i);
        std::this_thread::sleep_for(5ms);
        sent = sent && peer.send(stream);
    });
    EXPECT_EQ(readInOrder(server, kCount, 0.05), kCount + 1);
    sender.join();
    EXPECT_TRUE(sent);

    // 8 MiB written while the reader polls: more than the socket takes at once.
    const std::string large = blobFrame(8u << 20);
    std::thread writer([&] {
        std::this_thread::sleep_for(10ms);
        server.write(reinterpret_cast<const uint8_t*>(large.data()), large.size());
    });
    EXPECT_FALSE(server.waitForInput(0.05));
    writer.join();
    EXPECT_TRUE(until([&] {
        peer.readFor(10ms);
        return peer.received().size() >= kPreamble.size() + large.size();
    }));
    EXPECT_EQ(peer.received().substr(kPreamble.size()), large);

    // A reader that stops waiting leaves the socket lent: the network thread takes it back,
    // and the keep-alives are still read and count against the idle limit.
    server.setIdleLimit(0.5);
    ASSERT_TRUE(peer.send(frameWith<Numbered>(kCount + 1)));
    ASSERT_TRUE(server.waitForInput(1));
    EXPECT_EQ(pump(server), 1);               // applied: the socket goes back to the network thread
    EXPECT_FALSE(server.waitForInput(0.02));  // and is lent again
    for (int i = 0; i < 15; ++i) {
        ASSERT_TRUE(peer.send(kKeepAlive));
        std::this_thread::sleep_for(100ms);
    }
    EXPECT_FALSE(peer.endsWithin(10ms)) << peer.goodbye();
    EXPECT_EQ(pump(server), 0);
    EXPECT_EQ(server.size(), 1u);

    // The peer goes while the reader waits.
    EXPECT_FALSE(server.waitForInput(0.01));
    peer.close();
    EXPECT_TRUE(until([&] { return server.size() == 0; },
                      [&] {
                          server.waitForInput(0.01);
                          pump(server);
                      }));
    EXPECT_TRUE(until([&] { return openDescriptors() == descriptors; }));
}

double threadCpuSeconds() {
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

// A busy-polling reader takes lone frames as a sleeping one does, stops spinning once the time
// after the last input is over (then sleeps and is still woken by the next frame), and a
// breakWait() reaches it while it spins.
TEST(HostileNet, ABusyPollingReaderSpinsOnlyForItsTime) {
    BareServer server;
    EXPECT_EQ(server.busyPoll(), 0u);
    server.setBusyPoll(100000);
    RawPeer peer(server.listeningPort(), kPreamble);
    ASSERT_TRUE(until([&] { return server.size() == 1; }, [&] { pump(server); }));
    constexpr uint32_t kLone = 10;
    std::thread sender([&] {
        for (uint32_t i = 1; i <= kLone; ++i) {
            std::this_thread::sleep_for(5ms);
            EXPECT_TRUE(peer.send(frameWith<Numbered>(i)));
        }
    });
    EXPECT_EQ(readInOrder(server, kLone, 0.05), kLone + 1);
    sender.join();

    // 100 ms of spinning, then 400 ms asleep.
    const double before = threadCpuSeconds();
    EXPECT_FALSE(server.waitForInput(0.5));
    const double spent = threadCpuSeconds() - before;
    EXPECT_GT(spent, 0.02);
    EXPECT_LT(spent, 0.3);

    ASSERT_TRUE(peer.send(frameWith<Numbered>(kLone + 1)));
    ASSERT_TRUE(server.waitForInput(5));
    EXPECT_EQ(pump(server), 1);

    server.setBusyPoll(1000000);
    std::thread breaker([&] {
        std::this_thread::sleep_for(20ms);
        server.breakWait();
    });
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(server.waitForInput(5));
    EXPECT_LT(std::chrono::steady_clock::now() - start, 500ms);
    breaker.join();
}

// The thread that waits for input asks for the scheduler slice set, keeping its niceness, and
// 0 gives it the kernel's own back. Where the kernel does not take slices, the thread says so.
TEST(HostileNet, AWaitingThreadAsksForItsSchedulerSlice) {
    LogCapture log(osg::LOG_WARNING);
    BareServer server;
    EXPECT_EQ(server.schedulerSlice(), 0u);
    server.setSchedulerSlice(250);
    std::thread waiting([&] {
        const unsigned before = Tovan::Thread::slice();
        ASSERT_EQ(setpriority(PRIO_PROCESS, 0, 3), 0);  // this thread's niceness, on Linux
        EXPECT_FALSE(server.waitForInput(0.01));
        EXPECT_EQ(getpriority(PRIO_PROCESS, 0), 3);
        if (before == 0) {  // a kernel before 6.12, or one that hides the slice from us
            EXPECT_TRUE(log.has("Could not set a scheduler slice of 250 us: "));
            return;
        }
        EXPECT_EQ(Tovan::Thread::slice(), 250u);
        EXPECT_EQ(log.text(), "");
        server.setSchedulerSlice(0);
        EXPECT_FALSE(server.waitForInput(0.01));
        EXPECT_EQ(Tovan::Thread::slice(), before);
        EXPECT_EQ(getpriority(PRIO_PROCESS, 0), 3);
    });
    waiting.join();
}

// What a server sends to all its clients is copied once and shared; what it sends to one goes
// between, in the order written, on that connection alone. Across several chunks, with a
// frame larger than a chunk among them.
TEST(HostileNet, SharedAndSingleFramesKeepTheirOrderOnEachConnection) {
    struct Keeping : BareServer {
        bool addCommunicator(Lirra::Communicator* c) override {
            Lirra::Communicator* none = nullptr;
            first.compare_exchange_strong(none, c);
            return BareServer::addCommunicator(c);
        }
        std::atomic<Lirra::Communicator*> first{nullptr};
    } server;
    RawPeer a(server.listeningPort(), kPreamble), b(server.listeningPort(), kPreamble);
    ASSERT_TRUE(until([&] { return server.size() == 2; }));

    std::vector<uint32_t> toAll, toSingle;  // frame numbers as each peer must see them, 0: blob
    Numbered n;
    for (n.value = 1; n.value <= 20000; ++n.value) {
        ASSERT_TRUE(n.send(&server));
        toAll.push_back(n.value);
        toSingle.push_back(n.value);
        if (n.value % 4000 == 0) {
            Numbered single;
            single.value = 1000000 + n.value;
            ASSERT_TRUE(single.send(server.first.load()));
            toSingle.push_back(single.value);
        }
        if (n.value == 10000) {
            const std::string big = blobFrame(100 << 10);
            ASSERT_TRUE(server.write(reinterpret_cast<const uint8_t*>(big.data()), big.size()));
            toAll.push_back(0);
            toSingle.push_back(0);
        }
    }
    const auto numbers = [](const std::string& in) {
        std::vector<uint32_t> out;
        for (const auto& [type, fields] : framesOf(in))
            out.push_back(type == 31001 ? le(fields, 0) : 0);
        return out;
    };
    std::vector<uint32_t> gotA, gotB;
    EXPECT_TRUE(until([&] {
        a.readFor(20ms);
        b.readFor(20ms);
        gotA = numbers(a.received());
        gotB = numbers(b.received());
        return gotA.size() + gotB.size() >= toAll.size() + toSingle.size();
    }));
    // Which raw peer was handed over first, and so got the single frames, is up to the system.
    if (gotA.size() > gotB.size())
        std::swap(gotA, gotB);
    EXPECT_EQ(gotA, toAll);
    EXPECT_EQ(gotB, toSingle);
}

TEST(HostileNet, AFrameBeyondTheBudgetIsRefusedAndTheOthersGoOn) {
    BareServer server;
    server.setReceiveBudget(1u << 20);
    const std::string frame = blobFrame(700 << 10);
    // Most of a 700 KiB frame is under way; another 500 KiB does not fit beside it.
    RawPeer holder(server.listeningPort(), kPreamble + frame.substr(0, 300 << 10));
    ASSERT_TRUE(until([&] { return server.receiveHeld() == frame.size(); }));
    RawPeer greedy(server.listeningPort(), kPreamble + frameStart(500 << 10, 100));
    EXPECT_TRUE(greedy.endsWithin(3000ms));
    EXPECT_EQ(greedy.goodbye(),
              "frame of 512000 bytes refused: over the receive budget of 1048576 bytes");
    ASSERT_TRUE(holder.send(frame.substr(300 << 10)));
    int read = 0;
    EXPECT_TRUE(until([&] { return (read += pump(server)) == 1; }));
    EXPECT_FALSE(holder.endsWithin(10ms));
    EXPECT_EQ(server.receiveHeld(), 0u);
    // Read, it no longer counts: the same again fits.
    ASSERT_TRUE(holder.send(frame));
    EXPECT_TRUE(until([&] { return (read += pump(server)) == 2; }));
}

TEST(HostileNet, MemoryFallsBackAfterTheLargestFrame) {
    if (!kMeasuresMemory)
        GTEST_SKIP() << "resident memory is not meaningful under the sanitizers";
    BareServer server;
    const long before = residentKiB();
    RawPeer peer(server.listeningPort(), kPreamble);
    std::thread sender([&] { peer.send(blobFrame((64u << 20) - 12)); });
    int read = 0;
    EXPECT_TRUE(until([&] { return (read += pump(server)) == 1; }, [] {}, 10000ms));
    sender.join();
    std::this_thread::sleep_for(1500ms);  // the connection idles: a check shrinks its buffer
    EXPECT_LT(residentKiB() - before, 24 << 10) << "an idle connection holds on to the frame";
    peer.close();
    EXPECT_TRUE(until([&] { return server.size() == 0; }, [&] { pump(server); }));
    EXPECT_LT(residentKiB() - before, 24 << 10) << "memory stays after the connection closed";
}

TEST(HostileNet, ClientsBeyondTheCapAreToldAndTheCapIsLogged) {
    LogCapture log(osg::LOG_WARNING);
    BareServer server;
    ASSERT_TRUE(server.setMaxConnections(2));
    EXPECT_FALSE(server.setMaxConnections(0));
    RawPeer a(server.listeningPort(), kPreamble);
    RawPeer b(server.listeningPort());  // still handshaking: it counts
    RawPeer c(server.listeningPort());
    EXPECT_TRUE(c.endsWithin(3000ms));
    EXPECT_EQ(c.goodbye(), "too many clients (2 connected)");
    EXPECT_TRUE(log.has("Reached the limit of 2 client connections"));
    EXPECT_FALSE(a.endsWithin(10ms));
    // One leaves: the next is greeted and stays.
    a.close();
    ASSERT_TRUE(until([&] { return server.size() == 0; }, [&] { pump(server); }));
    RawPeer d(server.listeningPort(), kPreamble);
    d.readFor(300ms);
    EXPECT_EQ(d.received(), kPreamble);
    EXPECT_FALSE(d.endsWithin(10ms));
}

TEST(HostileNet, BadSettingsAreRefusedAndTheOldOnesKept) {
    LogCapture log(osg::LOG_WARNING);
    Lirra::MultiClient client;
    for (double bad : {HUGE_VAL, 1e308, -1.0, 0.0, 0.01, std::nan("")})
        EXPECT_FALSE(client.setRetryInterval(bad)) << bad;
    EXPECT_EQ(client.retryInterval(), 3.0);
    EXPECT_TRUE(client.setRetryInterval(0.5));
    for (int bad : {-5, 256, 1000})
        EXPECT_FALSE(client.setTtl(bad)) << bad;
    EXPECT_EQ(client.ttl(), 1);
    EXPECT_TRUE(client.setTtl(255));
    EXPECT_TRUE(log.has("Ignored a multicast time-to-live of 256: from 0 to 255"));
    client.setIdleLimit(-1);
    client.setIdleLimit(NAN);
    EXPECT_EQ(client.idleLimit(), 0.0);
    client.setGatherTime(1001);
    EXPECT_EQ(client.gatherTime(), Lirra::MultiCommunicator::kDefaultGatherMicros);
    EXPECT_TRUE(log.has("Ignored a gather time of 1001 us: from 0 to 1000 us"));
    client.setBusyPoll(2000);
    client.setBusyPoll(1000001);
    EXPECT_EQ(client.busyPoll(), 2000u);
    EXPECT_TRUE(log.has("Ignored a busy poll of 1000001 us: from 0 to 1000000 us"));
    client.setSchedulerSlice(100);
    client.setSchedulerSlice(99);
    client.setSchedulerSlice(100001);
    EXPECT_EQ(client.schedulerSlice(), 100u);
    EXPECT_TRUE(log.has("Ignored a scheduler slice of 99 us: 0 or from 100 to 100000 us"));
    EXPECT_TRUE(log.has("Ignored a scheduler slice of 100001 us: 0 or from 100 to 100000 us"));
}

TEST(HostileNet, AHandlerThatThrowsDoesNotStopTheNetworkThread) {
    LogCapture log(osg::LOG_FATAL);
    Lirra::detail::NetworkThread thread;
    boost::asio::post(thread.io(), [] { throw std::out_of_range("hops"); });
    EXPECT_EQ(thread.call([] { return 42; }), 42);
    EXPECT_TRUE(log.has("hops"));
}

// With no descriptor left for the client waiting to be accepted, accepting must back off
// instead of spinning, and greet the client once descriptors are free again.
TEST(HostileNet, RunningOutOfDescriptorsBacksOffAndRecovers) {
#ifdef KELO_UNDEFINED_SANITIZER
    // Its check of virtual calls probes memory through a pipe: with no descriptor left, it
    // takes every object for a bad one.
    GTEST_SKIP() << "UBSan needs descriptors of its own";
#endif
    BareServer server;
    rlimit old{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &old), 0);
    rlimit low = old;
    low.rlim_cur = 64;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
    std::vector<int> filler;
    for (int fd; (fd = ::open("/dev/null", O_RDONLY)) >= 0;)
        filler.push_back(fd);
    double spent = -1;
    bool greeted = false;
    if (filler.size() > 8) {
        ::close(filler.back());  // for the client's own socket
        filler.pop_back();
        RawPeer waiting(server.listeningPort());
        std::this_thread::sleep_for(200ms);
        const std::clock_t start = std::clock();  // this process's processor time
        std::this_thread::sleep_for(1000ms);
        spent = static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC;
        for (int i = 0; i < 8; ++i, filler.pop_back())
            ::close(filler.back());
        waiting.readFor(3000ms);
        greeted = waiting.received().rfind(kPreamble, 0) == 0;
    }
    for (int fd : filler)
        ::close(fd);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &old), 0);
    EXPECT_GE(spent, 0) << "no descriptors to fill";
    EXPECT_LT(spent, 0.3) << "the network thread spins while accepting fails";
    EXPECT_TRUE(greeted);
}

}  // namespace
