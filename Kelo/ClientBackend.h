#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include <Tovan/ObjectThread.h>

#include "Kelo/Backend.h"
#include "Kelo/BackendType.h"
#include "Kelo/CommandEvent.h"
#include "Kelo/SourceDurationEvent.h"
#include "Kelo/WorldPart.h"

namespace Lirra {
class Communicator;
}

namespace Kelo {

class CreateEmitterEvent;
class KeloMultiClient;

// "client": sends every change of the world as a command event to every connected sound server,
// brings each server that connects up to the world's state first, and stores the playing times
// that servers report back. Servers are found on the multicast group or named in the parameters.
//
// Catch-ups and reported playing times are applied in update(), on the thread that drives the
// world: call World::update() every frame.
class ClientBackend : public Backend {
public:
    ClientBackend(World& world, const char* params);
    // Not supported: builds the backend part only, which complains. Never use a copy.
    ClientBackend(const ClientBackend& other);
    ~ClientBackend() override;

    void resetBackend() override;
    void setEnabled() override;
    void setListenerTransform() override;
    void createSource(Source& source) override;
    void destroySource(Source& source) override;
    void setSourceData(Source& source) override;
    void setSourceParam(Source& source) override;
    void setSourceState(Source& source) override;
    void createEmitter(Emitter& emitter) override;
    void destroyEmitter(Emitter& emitter) override;
    void setEmitterTransform(Emitter& emitter) override;
    void setEmitterHull(Emitter& emitter) override;
    void setEmitterParam(Emitter& emitter) override;
    void setEmitterConnection(Emitter& emitter) override;
    void setEmitterState(Emitter& emitter) override;
    // Catches up the servers that connected since the last call, then applies what servers
    // reported.
    bool update() override;
    const BackendType* type() const override { return &_type; }

    // Sends the world's whole state to one server.
    bool addCommunicator(Lirra::Communicator* server);
    // Command 0 means: nothing to send.
    static Command sourceState2Command(WorldPart::State state);
    static Command emitterState2Command(WorldPart::State state);
    int receiveThread();
    // Applies a received event: only playing times (command 23) are accepted. Refusals are
    // logged, repeats held back.
    bool dispatchEvent(CommandEvent* event);

    // Network thread: a server has connected. It is caught up in the next update().
    void serverConnected(Lirra::Communicator* server);
    // Servers that receive live changes (caught up and not lost).
    size_t servers() const;
    // Servers that have connected and wait for their catch-up in the next update().
    size_t joiningServers() const;
    bool transferData() const { return _transferData; }
    // The connections and their settings, as the parameters left them.
    const KeloMultiClient* communicator() const { return _communicator.get(); }

    // For monitoring; any thread may read these. Events sent and their bytes, counted once for
    // each server that was given them, catch-ups included.
    uint64_t eventsSent() const;
    uint64_t bytesSent() const;
    // Bytes waiting to be sent to the servers now.
    size_t bytesQueued() const;
    // Servers dropped for falling behind: more than sendLimit bytes waited for them.
    uint64_t serversDropped() const;
    // Servers whose connection was lost, whatever the cause (the dropped ones included).
    uint64_t serversLost() const { return _serversLost.load(std::memory_order_relaxed); }
    // Whole-world states sent to servers that connected.
    uint64_t catchUps() const { return _catchUps.load(std::memory_order_relaxed); }

    static Backend* createMethod(World& world, const char* params);
    static BackendType _type;

    // Servers connected or waiting for their catch-up, named or discovered: one more is sent a
    // goodbye and closed. Also the most that "servers" may name.
    static constexpr size_t kMaxServers = 64;
    // Accepted parameter values; anything else is reported and the default kept. The retry
    // interval's range is the communicator's (Lirra::MultiClient::kMinRetry, kMaxRetry).
    static constexpr size_t kMinSendLimit = 64u << 10, kMaxSendLimit = 1u << 30;

private:
    void send(CommandEvent& event);
    // Labels as servers accept them; an emitter beyond the limits is logged.
    static void setLabels(CreateEmitterEvent& event, const Emitter& emitter);

    std::unique_ptr<KeloMultiClient> _communicator;
    std::unique_ptr<Tovan::ObjectThread<ClientBackend>> _receiveThread;
    bool _transferData = true;

    // Handed over between the threads.
    mutable std::mutex _pendingMutex;
    std::vector<Lirra::Communicator*> _joining;
    bool _closing = false;  // being destroyed: a server that connects gets the reset alone
    // The latest playing time reported for each source id.
    std::map<int16_t, std::unique_ptr<SourceDurationEvent>> _durations;

    // Counted here: catch-ups go to one server each, past the set that counts live events.
    std::atomic<uint64_t> _catchUps{0};
    std::atomic<uint64_t> _catchUpEvents{0};
    std::atomic<uint64_t> _catchUpBytes{0};
    std::atomic<uint64_t> _serversLost{0};
};

}  // namespace Kelo
