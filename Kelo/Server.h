#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <Lirra/InetAddress.h>
#include <Tovan/ObjectThread.h>

#include "Kelo/CommandEvent.h"
#include "Kelo/World.h"

namespace Lirra {
class Communicator;
class EventDecoder;
}  // namespace Lirra

namespace Kelo {

class KeloMultiServer;
class SessionWriter;
class SourceDataEvent;

// A sound server: a world driven by the command events that client backends send, applied to
// its own backends (usually "openal"), which reports the playing times of its sounds back to the
// clients. It listens for clients and makes itself known on a multicast group.
//
// Its sources are made by the program that runs it: clients cannot create sources. A client's
// reset (the first thing every client sends) empties the world, those sources included; a
// program re-creates them by overriding resetWorld(). The world holds one scene: a second
// client's reset replaces the first one's (with a warning naming both), unless the server is
// exclusive. Either call run() once, which receives on a thread of its own, or call
// receive(false) from the thread that drives the world (with waitForEvents() to sleep until
// something arrives, and setReceiveBatch() to keep a flood from taking the whole frame).
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
    // waiting and returns (at most one batch, see setReceiveBatch); receive(true) keeps going
    // until the server closes.
    int receive(bool block);
    // Bounds one receive(false): it returns after maxEvents events or once maxSeconds have
    // passed, whichever comes first, so that a client sending at full rate cannot keep the
    // caller from its frame's other work. 0 leaves that bound off; both 0 (the default) drains
    // everything waiting.
    void setReceiveBatch(int maxEvents, double maxSeconds);
    int receiveBatchEvents() const { return _receiveBatchEvents; }
    double receiveBatchSeconds() const { return _receiveBatchSeconds; }
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

    // For monitoring; any thread may read these while the server runs. Command events received
    // with this command number, since construction (a number that is no command counts under
    // NoCommand).
    uint64_t receivedEvents(int16_t command) const;
    // Playing times reported to the clients.
    uint64_t durationsReported() const {
        return _durationsReported.load(std::memory_order_relaxed);
    }
    // Frames refused and clients dropped or turned away, by reason, every reason listed:
    // those of the connection layer (Lirra::refusalName), "bad_frame" (not a command event
    // this server can read) and "exclusive" (refused while another client is served).
    std::vector<std::pair<std::string, uint64_t>> refusals() const;
    // Received bytes not yet read, over all clients: what counts against the receive budget.
    size_t receiveHeld() const;
    // Connected clients.
    size_t clients() const;
    const std::string& localDataPrefix() const { return _localDataPrefix; }
    void setLocalDataPrefix(const std::string& prefix) { _localDataPrefix = prefix; }

    // Exclusive: while a client is connected, any other is refused with a goodbye that names
    // the reason, so that one application's scene cannot be replaced by another's. Off by
    // default: a client's reset replaces the scene whoever made it.
    void setExclusive(bool exclusive) { _exclusive = exclusive; }
    bool exclusive() const { return _exclusive; }
    // Client connections held at once, those still greeting included; one more is refused.
    void setMaxClients(size_t count);
    size_t maxClients() const;
    // Received bytes that all clients together may have waiting to be read; a frame that
    // would go beyond is refused and its client dropped.
    void setReceiveBudget(size_t bytes);
    size_t receiveBudget() const;
    // Seconds without a byte from a client before it is dropped (0: never).
    void setIdleLimit(double seconds);
    double idleLimit() const;
    // Microseconds after the last input during which the receiving thread polls without
    // sleeping (0, the default: it sleeps at once). A play command that comes within them is
    // taken without a wake-up, at the price of a busy processor. Up to a second.
    void setBusyPoll(unsigned microseconds);
    unsigned busyPoll() const;
    // The scheduler slice, in microseconds, that the thread waiting for clients (run()'s, or
    // the one calling waitForEvents()) asks Linux 6.12 and later for: 0, the default, leaves
    // the kernel's; otherwise 100 to 100000. With a short one, a play command from a client on
    // the same machine is taken at once, not once the client's thread blocks or has used up
    // its own slice. It costs no processor time.
    void setSchedulerSlice(unsigned microseconds);
    unsigned schedulerSlice() const;
    // Also takes clients on this machine through a local stream socket named after the port
    // (@kelo-PORT in the abstract namespace, @kelo6-PORT for ::1), for clients with the client
    // backend's local=true. They skip the TCP/IP stack: a play command arrives in about 60% of
    // the time. Off by default; false, with a log line, when another server holds the name or
    // this one is not on 127.0.0.1, ::1 or every address.
    bool setLocalSocket(bool on);
    bool localSocket() const;

    // Every command event received from a client is written to the recorder, with the time it
    // arrived, before it is applied (null: none, the default). The recorder must outlive the
    // server or be taken off first, while nothing receives.
    void setRecorder(SessionWriter* recorder) { _recorder = recorder; }
    SessionWriter* recorder() const { return _recorder; }
    // Record only: received events are recorded (and counted) but not applied, so that the
    // server stands in for a sound server while a session is recorded. Off by default.
    void setRecordOnly(bool recordOnly) { _recordOnly = recordOnly; }
    bool recordOnly() const { return _recordOnly; }

    // Network thread: a client has connected. It gets the known playing times, then joins,
    // or is refused when the server is exclusive and has a client. Takes the client over: false
    // when it was refused or could not be taken (and is gone).
    bool clientConnected(Lirra::Communicator* client);

private:
    void open(unsigned short port, const std::string& host);
    // Drops remembered playing times of sources that are gone. World's thread.
    void forgetGoneSources();
    // A client is gone: it leaves the set and is deleted. World's thread.
    void dropClient(Lirra::Communicator* client);
    // A reset from the client being read replaces the scene another client made: say so.
    void takeScene();

    std::unique_ptr<KeloMultiServer> _communicator;
    // One reusable object per event type for what clients send. World's thread.
    std::unique_ptr<Lirra::EventDecoder> _decoder;
    int64_t _received = 0;
    // By command number; slot 0 for numbers beyond the last command.
    std::array<std::atomic<uint64_t>, StopEmitter + 1> _receivedEvents{};
    std::atomic<uint64_t> _durationsReported{0};
    std::atomic<uint64_t> _badFrames{0};
    std::atomic<uint64_t> _exclusiveRefusals{0};
    std::atomic<SessionWriter*> _recorder{nullptr};
    std::atomic<bool> _recordOnly{false};
    std::unique_ptr<Tovan::ObjectThread<Server, void>> _receiveThread;
    std::string _localDataPrefix;
    bool _listening = false;
    std::atomic<bool> _announcing{false};
    // Playing times reported so far, by source id, for clients that connect later.
    std::mutex _durationMutex;
    std::map<int, float> _durations;
    int _receiveBatchEvents = 0;
    double _receiveBatchSeconds = 0;
    std::atomic<bool> _exclusive{false};
    // "address:port" of the clients that have joined, for the exclusive mode's refusals.
    std::mutex _clientsMutex;
    std::map<const Lirra::Communicator*, std::string> _peers;
    // The client whose events are being applied (null: the application's own calls), and the
    // client whose reset made the present scene. World's thread.
    Lirra::Communicator* _sender = nullptr;
    Lirra::Communicator* _sceneOwner = nullptr;
    std::string _sceneOwnerPeer;
    // Copies for the accessors that hand out references.
    mutable Lirra::InetAddress _address, _interface;
};

}  // namespace Kelo
