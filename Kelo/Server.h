#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include <Lirra/InetAddress.h>
#include <Tovan/ObjectThread.h>

#include "Kelo/World.h"

namespace Lirra {
class Communicator;
}

namespace Kelo {

class CommandEvent;
class KeloMultiServer;
class SourceDataEvent;

// A sound server: a world driven by the command events that client backends send, applied to
// its own backends (usually "openal"), which reports the playing times of its sounds back to the
// clients. It listens for clients and makes itself known on a multicast group.
//
// Its sources are made by the program that runs it: clients cannot create sources. A client's
// reset (the first thing every client sends) empties the world, those sources included; a
// program re-creates them by overriding resetWorld(). Either call
// run() once, which receives on a thread of its own, or call receive(false) from the thread that
// drives the world (with waitForEvents() to sleep until something arrives).
class Server : public World {
public:
    // Listens on every interface, on a port the system chooses.
    Server();
    // Listens on host:port (empty host: every interface; port 0: the system chooses).
    explicit Server(unsigned short port, const std::string& host = "");
    // Stops the receive thread and closes the connections. Does not clear the world: whoever
    // owns a server calls clearWorld() before deleting it.
    ~Server() override;

    void run();
    void receiveThread();
    // Reads and applies events; returns how many it handled. receive(false) handles what is
    // waiting and returns; receive(true) keeps going until the server closes.
    int receive(bool block);
    // Sleeps until a client has sent something or the time is up; true when something waits.
    bool waitForEvents(double seconds);
    bool dispatchEvent(CommandEvent* event);
    bool writeLocalData(SourceDataEvent& event, std::string& fileName);
    void setSourceDuration(Source& source) override;

    const Lirra::InetAddress& multicastAddress() const;
    void setMulticastAddress(const Lirra::InetAddress& address);
    unsigned short multicastPort() const;
    void setMulticastPort(unsigned short port);
    int multicastTtl() const;
    void setMulticastTtl(int ttl);
    const Lirra::InetAddress& multicastInterface() const;
    void setMulticastInterface(const Lirra::InetAddress& address);
    // Off: the server does not announce itself; clients must name it.
    void setMulticastEnabled(bool enabled);
    bool multicastEnabled() const;
    short id() const;
    void setId(short id);
    // A number, or else the sum of the text's characters; empty or null gives 0.
    void setId(const char* id);

    // Where clients connect.
    unsigned short port() const;
    const std::string& host() const;
    bool listening() const { return _listening; }
    int64_t receivedCount() const { return _received; }
    // Connected clients.
    size_t clients() const;
    const std::string& localDataPrefix() const { return _localDataPrefix; }
    void setLocalDataPrefix(const std::string& prefix) { _localDataPrefix = prefix; }

    // Network thread: a client has connected. It gets the known playing times, then joins.
    void clientConnected(Lirra::Communicator* client);

private:
    void open(unsigned short port, const std::string& host);
    // Drops remembered playing times of sources that are gone. World's thread.
    void forgetGoneSources();

    std::unique_ptr<KeloMultiServer> _communicator;
    int64_t _received = 0;
    std::unique_ptr<Tovan::ObjectThread<Server, void>> _receiveThread;
    std::string _localDataPrefix;
    bool _listening = false;
    std::atomic<bool> _announcing{false};
    // Playing times reported so far, by source id, for clients that connect later.
    std::mutex _durationMutex;
    std::map<int, float> _durations;
    // Copies for the accessors that hand out references.
    mutable Lirra::InetAddress _address, _interface;
};

}  // namespace Kelo
