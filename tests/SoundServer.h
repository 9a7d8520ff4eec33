#pragma once

#include <string>

#include <Kelo/Server.h>

namespace KeloTest {

// A sound server on 127.0.0.1 whose own sounds are sources 1 and 2, put back after every reset
// as a sound server program does. Port 0 takes a free one.
struct SoundServer : Kelo::Server {
    explicit SoundServer(unsigned short port = 0) : Kelo::Server(port, "127.0.0.1") {
        setMulticastEnabled(false);
        own();
    }
    ~SoundServer() override { clearWorld(); }
    void resetWorld() override {
        Kelo::Server::resetWorld();
        own();
    }
    void own() {
        for (int id : {1, 2})
            if (!getSource(id))
                createSource(id);
    }
    std::string address() const { return "127.0.0.1:" + std::to_string(port()); }
};

}  // namespace KeloTest
