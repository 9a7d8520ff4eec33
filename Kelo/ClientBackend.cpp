#include "Kelo/ClientBackend.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <optional>
#include <string>

#include <Parmel/Base.h>

#include "Kelo/CreateEmitterEvent.h"
#include "Kelo/Emitter.h"
#include "Kelo/EmitterConnectionEvent.h"
#include "Kelo/EmitterHullEvent.h"
#include "Kelo/EmitterParamEvent.h"
#include "Kelo/KeloMultiClient.h"
#include "Kelo/Log.h"
#include "Kelo/Source.h"
#include "Kelo/SourceDataEvent.h"
#include "Kelo/SourceDurationEvent.h"
#include "Kelo/SourceParamEvent.h"
#include "Kelo/TransformEvent.h"
#include "Kelo/World.h"

namespace Kelo {

BackendType ClientBackend::_type("client", &ClientBackend::createMethod);

Backend* ClientBackend::createMethod(World& world, const char* params) {
    return new ClientBackend(world, params);
}

namespace {

const char* param(const Backend& backend, const char* key) {
    return backend.params().getParam(key, nullptr);
}

void badParam(const char* key, const std::string& value, const char* expected) {
    KELO_LOG(osg::LOG_WARNING, "ClientBackend: bad value \"%s\" for parameter %s (%s)\n",
             value.c_str(), key, expected);
}

// A whole decimal number in [low, high], or nothing.
std::optional<unsigned long long> number(const std::string& text, unsigned long long low,
                                         unsigned long long high) {
    if (text.empty() || text.size() > 20 ||
        text.find_first_not_of("0123456789") != std::string::npos)
        return std::nullopt;
    errno = 0;
    const unsigned long long value = std::strtoull(text.c_str(), nullptr, 10);
    if (errno == ERANGE || value < low || value > high)
        return std::nullopt;
    return value;
}

// A finite number of seconds in [low, high], or nothing.
std::optional<double> seconds(const std::string& text, double low, double high) {
    const double value = Parmel::Base::string2Value(text, std::nan(""));
    if (!std::isfinite(value) || value < low || value > high)
        return std::nullopt;
    return value;
}

std::optional<bool> flag(const std::string& text) {
    const bool yes = Parmel::Base::string2Value(text, true);
    if (yes != Parmel::Base::string2Value(text, false))
        return std::nullopt;
    return yes;
}

// "host:port,host:port"; the port after the last colon, so "[::1]:7000" works too.
void connectNamed(KeloMultiClient& client, const std::string& list) {
    if (list.empty()) {
        badParam("servers", list, "host:port,host:port");
        return;
    }
    size_t at = 0, named = 0;
    while (at < list.size()) {
        size_t comma = list.find(',', at);
        if (comma == std::string::npos)
            comma = list.size();
        const std::string item = list.substr(at, comma - at);
        at = comma + 1;
        const size_t colon = item.rfind(':');
        const auto port =
            colon == std::string::npos ? std::nullopt : number(item.substr(colon + 1), 1, 65535);
        std::string host = colon == std::string::npos ? item : item.substr(0, colon);
        if (host.size() > 2 && host.front() == '[' && host.back() == ']')
            host = host.substr(1, host.size() - 2);
        if (host.empty() || !port) {
            badParam("servers", item, "host:port with a port from 1 to 65535");
            continue;
        }
        if (named == ClientBackend::kMaxServers) {
            badParam("servers", list.substr(at - item.size() - 1),
                     "at most 64 servers; these are left out");
            break;
        }
        ++named;
        client.connectToServer(host, static_cast<unsigned short>(*port));
    }
}

void fill(TransformEvent& e, const osg::Vec3f& position, const osg::Quaternion& rotation) {
    e.setPosition(position);
    e.setRotation(rotation);
}

}  // namespace

ClientBackend::ClientBackend(World& world, const char* params) : Backend(world, params) {
    // A bad value is reported and the default used: the backend always comes up.
    if (const char* text = param(*this, "transferData")) {
        if (const auto value = flag(text))
            _transferData = *value;
        else
            badParam("transferData", text, "true or false");
    }

    _communicator = std::make_unique<KeloMultiClient>(this);
    KeloMultiClient& client = *_communicator;
    const char* servers = param(*this, "servers");
    // Named servers only, unless discovery is asked for as well.
    bool discover = !servers;
    if (const char* text = param(*this, "multicast")) {
        if (const auto value = flag(text))
            discover = *value;
        else
            badParam("multicast", text, "true or false");
    }
    client.setDiscover(discover);
    if (const char* text = param(*this, "group")) {
        const Lirra::InetAddress group(text);
        if (group.isMulticast())
            client.setAddress(group);
        else
            badParam("group", text, "a multicast address such as 239.255.76.67");
    }
    if (const char* text = param(*this, "groupPort")) {
        if (const auto port = number(text, 1, 65535))
            client.setPort(static_cast<unsigned short>(*port));
        else
            badParam("groupPort", text, "a port from 1 to 65535");
    }
    if (const char* text = param(*this, "interface")) {
        const Lirra::InetAddress local(text);
        if (local.valid() && !local.isMulticast())
            client.setInterface(local);
        else
            badParam("interface", text, "the numeric address of a local interface");
    }
    if (const char* text = param(*this, "retry")) {
        if (const auto value =
                seconds(text, Lirra::MultiClient::kMinRetry, Lirra::MultiClient::kMaxRetry))
            client.setRetryInterval(*value);
        else
            badParam("retry", text, "seconds from 0.05 to 3600");
    }
    if (const char* text = param(*this, "sendLimit")) {
        if (const auto value = number(text, kMinSendLimit, kMaxSendLimit))
            client.setSendLimit(static_cast<size_t>(*value));
        else
            badParam("sendLimit", text, "bytes from 65536 to 1073741824");
    }
    if (const char* text = param(*this, "gather")) {
        if (const auto value = number(text, 0, Lirra::MultiCommunicator::kMaxGatherMicros))
            client.setGatherTime(static_cast<unsigned>(*value));
        else
            badParam("gather", text, "microseconds from 0 to 1000");
    }
    if (const char* text = param(*this, "local")) {
        if (const auto value = flag(text))
            client.setLocal(*value);
        else
            badParam("local", text, "true or false");
    }
    client.open();
    if (servers)
        connectNamed(client, servers);

    _receiveThread =
        std::make_unique<Tovan::ObjectThread<ClientBackend>>(this, &ClientBackend::receiveThread);
    _receiveThread->start();
}

ClientBackend::ClientBackend(const ClientBackend& other) : Backend(other) {}

ClientBackend::~ClientBackend() {
    if (!_communicator)
        return;  // a copy
    if (_receiveThread) {
        _communicator->breakWait();
        _receiveThread->join();
        _receiveThread.reset();
    }
    // Servers that connected since the last update() get the reset like the others; from here
    // on, one that connects is sent it at once (serverConnected). Every server is then in the
    // set, which closes them all while the network thread still runs.
    std::vector<Lirra::Communicator*> joining;
    {
        std::lock_guard<std::mutex> lock(_pendingMutex);
        _closing = true;
        joining.swap(_joining);
    }
    for (Lirra::Communicator* server : joining)
        _communicator->join(server);
    resetBackend();
    _communicator->close();  // sends what is queued, the reset included, then closes
    _communicator.reset();
}

void ClientBackend::send(CommandEvent& event) {
    // With no server in the set there is nobody to encode for: a server that joins later (on
    // this thread, in update()) is sent the whole world then.
    if (_communicator->empty())
        return;
    event.setStamp(CommandEvent::kSenderStamp);
    event.send(_communicator.get());
}

void ClientBackend::resetBackend() {
    CommandEvent e(ResetWorld, 0);
    send(e);
}

void ClientBackend::setEnabled() {
    // The backend's own switch, not the world's: servers follow what this backend renders.
    CommandEvent e(enabled() ? EnableWorld : DisableWorld, 0);
    send(e);
}

void ClientBackend::setListenerTransform() {
    TransformEvent e;
    e.setCommand(SetListenerTransform);
    fill(e, world().listenerPosition(), world().listenerRotation());
    send(e);
}

void ClientBackend::createSource(Source& source) {
    SourceDataEvent e;
    e.setCommand(CreateSource);
    e.setId(CommandEvent::wireId(source.id()));
    if (_transferData)
        e.loadData();
    send(e);
}

void ClientBackend::destroySource(Source& source) {
    CommandEvent e(DestroySource, CommandEvent::wireId(source.id()));
    send(e);
}

void ClientBackend::setSourceData(Source&) {
    KELO_LOG(osg::LOG_FATAL, "ClientBackend::setSourceData() not implemented\n");
}

void ClientBackend::setSourceParam(Source& source) {
    SourceParamEvent e;
    e.setCommand(SetSourceParam);
    e.setId(CommandEvent::wireId(source.id()));
    e.setParam(source.loop(), source.pitch());
    send(e);
}

void ClientBackend::setSourceState(Source& source) {
    if (const Command command = sourceState2Command(source.state())) {
        CommandEvent e(command, CommandEvent::wireId(source.id()));
        send(e);
    }
}

void ClientBackend::createEmitter(Emitter& emitter) {
    CreateEmitterEvent e;
    e.setCommand(CreateEmitter);
    e.setId(CommandEvent::wireId(emitter.id()));
    setLabels(e, emitter);
    send(e);
}

void ClientBackend::setLabels(CreateEmitterEvent& event, const Emitter& emitter) {
    if (event.setFittingLabels(emitter.labels()))
        return;
    KELO_LOG_LIMITED(osg::LOG_WARNING,
                     "ClientBackend: the %zu labels of emitter %d go beyond what servers take "
                     "(at most %zu labels of at most %zu bytes each): sent cut to that\n",
                     emitter.labels().size(), emitter.id(), CreateEmitterEvent::kMaxLabels,
                     CreateEmitterEvent::kMaxLabelBytes);
}

void ClientBackend::destroyEmitter(Emitter& emitter) {
    CommandEvent e(DestroyEmitter, CommandEvent::wireId(emitter.id()));
    send(e);
}

void ClientBackend::setEmitterTransform(Emitter& emitter) {
    TransformEvent e;
    e.setCommand(SetEmitterTransform);
    e.setId(CommandEvent::wireId(emitter.id()));
    fill(e, emitter.position(), emitter.rotation());
    send(e);
}

void ClientBackend::setEmitterHull(Emitter& emitter) {
    EmitterHullEvent e;
    e.setCommand(SetEmitterHull);
    e.setId(CommandEvent::wireId(emitter.id()));
    e.setHull(emitter.maxBack(), emitter.maxFront(), emitter.minBack(), emitter.minFront());
    send(e);
}

void ClientBackend::setEmitterParam(Emitter& emitter) {
    EmitterParamEvent e;
    e.setCommand(SetEmitterParam);
    e.setId(CommandEvent::wireId(emitter.id()));
    e.setParam(emitter.spatialize(), emitter.extraParam(), emitter.gain());
    send(e);
}

void ClientBackend::setEmitterConnection(Emitter& emitter) {
    EmitterConnectionEvent e;
    e.setCommand(SetEmitterConnection);
    e.setId(CommandEvent::wireId(emitter.id()));
    e.setSourceId(emitter.source() ? CommandEvent::wireId(emitter.source()->id()) : 0);
    send(e);
}

void ClientBackend::setEmitterState(Emitter& emitter) {
    if (const Command command = emitterState2Command(emitter.state())) {
        CommandEvent e(command, CommandEvent::wireId(emitter.id()));
        send(e);
    }
}

Command ClientBackend::sourceState2Command(WorldPart::State state) {
    static const Command commands[] = {NoCommand, PlaySource, PauseSource, StopSource};
    if (static_cast<unsigned>(state) < 4u)
        return commands[state];
    KELO_LOG(osg::LOG_FATAL, "Unknown Kelo::WorldPart::source state: %i\n",
             static_cast<int>(state));
    return NoCommand;
}

Command ClientBackend::emitterState2Command(WorldPart::State state) {
    static const Command commands[] = {NoCommand, PlayEmitter, PauseEmitter, StopEmitter};
    if (static_cast<unsigned>(state) < 4u)
        return commands[state];
    KELO_LOG(osg::LOG_FATAL, "Unknown Kelo::WorldPart::emitter state: %i\n",
             static_cast<int>(state));
    return NoCommand;
}

bool ClientBackend::addCommunicator(Lirra::Communicator* server) {
    constexpr size_t kBatch = 64 * 1024;
    // Counts what goes out, added to the totals once the catch-up is sent. The frames go to
    // the connection in batches: one hand-over for many frames, not one each.
    struct Counted : Lirra::Sender {
        explicit Counted(Lirra::Communicator* to) : to(to) {}
        bool write(const uint8_t* bytes, size_t count) override {
            if (failed)
                return false;
            batch.insert(batch.end(), bytes, bytes + count);
            ++frames;
            this->bytes += count;
            return batch.size() < kBatch || flush();
        }
        bool flush() {
            if (!failed && !batch.empty() && !to->write(batch.data(), batch.size()))
                failed = true;
            batch.clear();
            return !failed;
        }
        Lirra::Communicator* to;
        std::vector<uint8_t> batch;
        bool failed = false;
        uint64_t frames = 0, bytes = 0;
    } counted(server);
    counted.batch.reserve(kBatch + 1024);
    // One object per class, overwritten for every part, each sent to this server alone.
    auto to = [&counted](CommandEvent& e) {
        e.setStamp(CommandEvent::kSenderStamp);
        e.send(&counted);
    };
    CommandEvent command(ResetWorld, 0);
    to(command);
    TransformEvent transform;
    transform.setCommand(SetListenerTransform);
    fill(transform, world().listenerPosition(), world().listenerRotation());
    to(transform);

    SourceDataEvent data;
    SourceParamEvent sourceParam;
    for (const auto& [id, source] : world().sources()) {
        const int16_t wire = CommandEvent::wireId(id);
        data.setCommand(CreateSource);
        data.setId(wire);
        if (_transferData)
            data.loadData();
        to(data);
        sourceParam.setCommand(SetSourceParam);
        sourceParam.setId(wire);
        sourceParam.setParam(source->loop(), source->pitch());
        to(sourceParam);
        if (const Command state = sourceState2Command(source->state())) {
            command.setCommand(state);
            command.setId(wire);
            to(command);
        }
    }

    CreateEmitterEvent create;
    EmitterHullEvent hull;
    EmitterParamEvent emitterParam;
    EmitterConnectionEvent connection;
    for (const auto& [id, emitter] : world().emitters()) {
        const int16_t wire = CommandEvent::wireId(id);
        create.setCommand(CreateEmitter);
        create.setId(wire);
        setLabels(create, *emitter);
        to(create);
        transform.setCommand(SetEmitterTransform);
        transform.setId(wire);
        fill(transform, emitter->position(), emitter->rotation());
        to(transform);
        hull.setCommand(SetEmitterHull);
        hull.setId(wire);
        hull.setHull(emitter->maxBack(), emitter->maxFront(), emitter->minBack(),
                     emitter->minFront());
        to(hull);
        emitterParam.setCommand(SetEmitterParam);
        emitterParam.setId(wire);
        emitterParam.setParam(emitter->spatialize(), emitter->extraParam(), emitter->gain());
        to(emitterParam);
        connection.setCommand(SetEmitterConnection);
        connection.setId(wire);
        connection.setSourceId(emitter->source() ? CommandEvent::wireId(emitter->source()->id())
                                                 : 0);
        to(connection);
        if (const Command state = emitterState2Command(emitter->state())) {
            command.setCommand(state);
            command.setId(wire);
            to(command);
        }
    }
    counted.flush();
    _catchUps.fetch_add(1, std::memory_order_relaxed);
    _catchUpEvents.fetch_add(counted.frames, std::memory_order_relaxed);
    _catchUpBytes.fetch_add(counted.bytes, std::memory_order_relaxed);
    return true;
}

void ClientBackend::serverConnected(Lirra::Communicator* server) {
    std::lock_guard<std::mutex> lock(_pendingMutex);
    if (!_closing && _communicator->size() + _joining.size() >= kMaxServers) {
        KELO_LOG_LIMITED(osg::LOG_WARNING,
                         "ClientBackend: already %zu servers, the most it serves; refused %s\n",
                         kMaxServers, server->peer().c_str());
        server->refuse("too many servers");
        delete server;
        return;
    }
    if (!_closing) {
        _joining.push_back(server);
        return;
    }
    // The backend is going: no catch-up, only the reset, and closed with the others.
    CommandEvent reset(ResetWorld, 0);
    reset.setStamp(CommandEvent::kSenderStamp);
    reset.send(server);
    _communicator->join(server);
}

bool ClientBackend::update() {
    std::vector<Lirra::Communicator*> joining;
    std::map<int16_t, std::unique_ptr<SourceDurationEvent>> durations;
    {
        std::lock_guard<std::mutex> lock(_pendingMutex);
        joining.swap(_joining);
        durations.swap(_durations);
    }
    for (Lirra::Communicator* server : joining) {
        addCommunicator(server);
        _communicator->join(server);  // live changes from now on
    }
    for (auto& [id, event] : durations)
        dispatchEvent(event.get());
    return true;
}

size_t ClientBackend::servers() const {
    return _communicator ? _communicator->size() : 0;
}

uint64_t ClientBackend::eventsSent() const {
    return _catchUpEvents.load(std::memory_order_relaxed) +
           (_communicator ? _communicator->sentFrames() : 0);
}

uint64_t ClientBackend::bytesSent() const {
    return _catchUpBytes.load(std::memory_order_relaxed) +
           (_communicator ? _communicator->sentBytes() : 0);
}

size_t ClientBackend::bytesQueued() const {
    return _communicator ? _communicator->queuedBytes() : 0;
}

uint64_t ClientBackend::serversDropped() const {
    return _communicator ? _communicator->sendLimitDrops() : 0;
}

size_t ClientBackend::joiningServers() const {
    std::lock_guard<std::mutex> lock(_pendingMutex);
    return _joining.size();
}

int ClientBackend::receiveThread() {
    while (_communicator->waitForCommunicators()) {
        Lirra::Communicator* server = nullptr;
        if (!_communicator->receiveCommunicator(server))
            break;
        Lirra::Event* event = nullptr;
        if (Lirra::Event::receive(server, event) && event) {
            auto* duration = dynamic_cast<SourceDurationEvent*>(event);
            if (duration && duration->command() == SourceDuration) {
                // Applied on the world's thread, in update(). Only the latest time of a source
                // counts, so a server that reports faster than the application updates makes
                // it hold one event per source id, no more.
                std::lock_guard<std::mutex> lock(_pendingMutex);
                _durations[duration->id()].reset(duration);
                continue;
            }
            if (auto* command = dynamic_cast<CommandEvent*>(event))
                dispatchEvent(command);  // refused: logs without touching the world
            else
                KELO_LOG_LIMITED(
                    osg::LOG_FATAL,
                    "Kelo::ClientBackend got Lirra::Event which is not a Kelo::Event\n");
            delete event;
        } else {
            KELO_LOG(osg::LOG_FATAL, "ClientBackend: Lost server\n");
            _serversLost.fetch_add(1, std::memory_order_relaxed);
            _communicator->removeCommunicator(server);
            if (server)
                server->close();
            delete server;
        }
    }
    std::fputs("INFO: exit ClientBackend::receiveThread\n", stdout);
    std::fflush(stdout);
    return 0;
}

bool ClientBackend::dispatchEvent(CommandEvent* event) {
    if (event->command() == SourceDuration) {
        auto* duration = dynamic_cast<SourceDurationEvent*>(event);
        if (duration)
            if (Source* source = world().getSource(duration->id())) {
                setSourceDuration(*source, duration->duration());
                return true;
            }
    } else {
        KELO_LOG_LIMITED(osg::LOG_FATAL, "Unkown command ID: %d\n", event->command());
    }
    KELO_LOG_LIMITED(osg::LOG_FATAL, "Got invalid Event: %s/%d/%d/%d\n",
                     event->type()->name().c_str(), event->command(), event->id(), event->stamp());
    return false;
}

}  // namespace Kelo
