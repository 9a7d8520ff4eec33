// Servers found through the multicast group. CTest runs this inside a network namespace of its
// own with only loopback up, and announcements leave by 127.0.0.1: nothing reaches a network.
#include <chrono>
#include <memory>
#include <thread>

#include <gtest/gtest.h>

#include <Kelo/ClientBackend.h>
#include <Kelo/Server.h>
#include <Kelo/World.h>

namespace {

constexpr unsigned short kGroupPort = 17627;

std::unique_ptr<Kelo::Server> announcedServer(bool announce = true) {
    auto server = std::make_unique<Kelo::Server>(0, "127.0.0.1");
    server->setMulticastInterface(Lirra::InetAddress("127.0.0.1"));
    server->setMulticastPort(kGroupPort);
    server->setMulticastEnabled(announce);
    return server;
}

// Polls until the client has n servers; false after the time is up.
bool found(Kelo::World& world, Kelo::ClientBackend* client, std::vector<Kelo::Server*> servers,
           size_t n, std::chrono::milliseconds limit = std::chrono::milliseconds(4000)) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (client->servers() != n && std::chrono::steady_clock::now() < end) {
        for (Kelo::Server* s : servers)
            s->receive(false);
        world.update();
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return client->servers() == n;
}

TEST(Discovery, AnnouncedServersAreFoundAndFoundAgainAfterARestart) {
    auto silent = announcedServer(false);
    auto first = announcedServer();
    Kelo::World world;
    auto* client = static_cast<Kelo::ClientBackend*>(world.addBackend(
        "client", ("interface=127.0.0.1 groupPort=" + std::to_string(kGroupPort)).c_str()));
    ASSERT_TRUE(found(world, client, {first.get(), silent.get()}, 1));
    EXPECT_EQ(first->clients(), 1u);
    EXPECT_EQ(silent->clients(), 0u);  // it never announced itself

    // Gone, then back on another port: its next announcement brings the client back.
    first.reset();
    ASSERT_TRUE(found(world, client, {silent.get()}, 0));
    auto again = announcedServer();
    ASSERT_TRUE(found(world, client, {again.get(), silent.get()}, 1));
    EXPECT_EQ(again->clients(), 1u);
    world.deleteAllBackends();
}

TEST(Discovery, NamedServersOnlyWhenDiscoveryIsOff) {
    auto server = announcedServer();
    Kelo::World world;
    auto* client = static_cast<Kelo::ClientBackend*>(world.addBackend(
        "client",
        ("multicast=false interface=127.0.0.1 groupPort=" + std::to_string(kGroupPort)).c_str()));
    EXPECT_FALSE(found(world, client, {server.get()}, 1, std::chrono::milliseconds(1500)));
    world.deleteAllBackends();
}

}  // namespace
