#include "Kelo/ClientBackend.h"

#include <cstdio>
#include <cstdlib>
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

// "host:port,host:port"; the port after the last colon, so "[::1]:7000" works too.
void connectNamed(KeloMultiClient& client, const std::string& list) {
    size_t at = 0;
    while (at < list.size()) {
        size_t comma = list.find(',', at);
        if (comma == std::string::npos)
            comma = list.size();
        std::string item = list.substr(at, comma - at);
        at = comma + 1;
        const size_t colon = item.rfind(':');
        const unsigned port =
            colon == std::string::npos ? 0 : Parmel::Base::string2Value(item.substr(colon + 1), 0u);
        std::string host = colon == std::string::npos ? item : item.substr(0, colon);
        if (host.size() > 2 && host.front() == '[' && host.back() == ']')
            host = host.substr(1, host.size() - 2);
        if (host.empty() || port == 0 || port > 65535) {
            KELO_LOG(osg::LOG_FATAL, "ClientBackend: bad server address \"%s\"\n", item.c_str());
            continue;
        }
        client.connectToServer(host, static_cast<unsigned short>(port));
    }
}

void fill(TransformEvent& e, const osg::Vec3f& position, const osg::Quaternion& rotation) {
    e.setPosition(position);
    e.setRotation(rotation);
}

}  // namespace

ClientBackend::ClientBackend(World& world, const char* params) : Backend(world, params) {
    if (const char* text = param(*this, "transferData"))
        _transferData = Parmel::Base::string2Value(text, true);

    _communicator = std::make_unique<KeloMultiClient>(this);
    KeloMultiClient& client = *_communicator;
    const char* servers = param(*this, "servers");
    // Named servers only, unless discovery is asked for as well.
    const char* multicast = param(*this, "multicast");
    client.setDiscover(multicast ? Parmel::Base::string2Value(multicast, true) : !servers);
    if (const char* group = param(*this, "group"))
        client.setAddress(Lirra::InetAddress(group));
    if (const char* port = param(*this, "groupPort"))
        client.setPort(static_cast<unsigned short>(
            Parmel::Base::string2Value(port, static_cast<unsigned>(client.port()))));
    if (const char* interface = param(*this, "interface"))
        client.setInterface(Lirra::InetAddress(interface));
    if (const char* retry = param(*this, "retry"))
        client.setRetryInterval(Parmel::Base::string2Value(retry, client.retryInterval()));
    if (const char* limit = param(*this, "sendLimit"))
        client.setSendLimit(Parmel::Base::string2Value(limit, 64u << 20));  // the default
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
    resetBackend();
    if (_receiveThread) {
        _communicator->breakWait();
        _receiveThread->join();
        _receiveThread.reset();
    }
    _communicator->close();  // sends what is queued, the reset included, then closes
    _communicator.reset();
    for (Lirra::Communicator* c : _joining)
        delete c;
}

void ClientBackend::send(CommandEvent& event) {
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
    e.setLabels(emitter.labels());
    send(e);
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
    // One object per class, overwritten for every part, each sent to this server alone.
    auto to = [server](CommandEvent& e) {
        e.setStamp(CommandEvent::kSenderStamp);
        e.send(server);
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
        create.setLabels(emitter->labels());
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
    return true;
}

void ClientBackend::serverConnected(Lirra::Communicator* server) {
    std::lock_guard<std::mutex> lock(_pendingMutex);
    _joining.push_back(server);
}

bool ClientBackend::update() {
    std::vector<Lirra::Communicator*> joining;
    std::vector<std::unique_ptr<CommandEvent>> received;
    {
        std::lock_guard<std::mutex> lock(_pendingMutex);
        joining.swap(_joining);
        received.swap(_received);
    }
    for (Lirra::Communicator* server : joining) {
        addCommunicator(server);
        _communicator->join(server);  // live changes from now on
    }
    for (auto& event : received)
        dispatchEvent(event.get());
    return true;
}

size_t ClientBackend::servers() const {
    return _communicator ? _communicator->size() : 0;
}

int ClientBackend::receiveThread() {
    while (_communicator->waitForCommunicators()) {
        Lirra::Communicator* server = nullptr;
        if (!_communicator->receiveCommunicator(server))
            break;
        Lirra::Event* event = nullptr;
        if (Lirra::Event::receive(server, event) && event) {
            if (auto* command = dynamic_cast<CommandEvent*>(event)) {
                // Applied on the world's thread, in update().
                std::lock_guard<std::mutex> lock(_pendingMutex);
                _received.emplace_back(command);
                continue;
            }
            KELO_LOG(osg::LOG_FATAL,
                     "Kelo::ClientBackend got Lirra::Event which is not a Kelo::Event\n");
            delete event;
        } else {
            KELO_LOG(osg::LOG_FATAL, "ClientBackend: Lost server\n");
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
        KELO_LOG(osg::LOG_FATAL, "Unkown command ID: %d\n", event->command());
    }
    KELO_LOG(osg::LOG_FATAL, "Got invalid Event: %s/%d/%d/%d\n", event->type()->name().c_str(),
             event->command(), event->id(), event->stamp());
    return false;
}

}  // namespace Kelo
