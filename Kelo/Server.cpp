#include "Kelo/Server.h"

#include <cstdlib>

#include "Kelo/CommandEvent.h"
#include "Kelo/CreateEmitterEvent.h"
#include "Kelo/Emitter.h"
#include "Kelo/EmitterConnectionEvent.h"
#include "Kelo/EmitterHullEvent.h"
#include "Kelo/EmitterParamEvent.h"
#include "Kelo/KeloMultiServer.h"
#include "Kelo/Log.h"
#include "Kelo/Source.h"
#include "Kelo/SourceDataEvent.h"
#include "Kelo/SourceDurationEvent.h"
#include "Kelo/SourceParamEvent.h"
#include "Kelo/TransformEvent.h"

namespace Kelo {

Server::Server() {
    open(0, "");
}

Server::Server(unsigned short port, const std::string& host) {
    open(port, host);
}

void Server::open(unsigned short port, const std::string& host) {
    _communicator = std::make_unique<KeloMultiServer>(this);
    _communicator->setFlag(true);
    _listening = _communicator->open(host, port, true);
}

Server::~Server() {
    if (_receiveThread) {
        _receiveThread->terminate(0);
        _communicator->breakWait();
        _receiveThread->join();
        _receiveThread.reset();
    }
    _communicator->close();  // no client is handed over from now on
    _communicator.reset();
}

void Server::run() {
    if (_receiveThread) {
        KELO_LOG(osg::LOG_FATAL, "Kelo::Server thread is already running\n");
        return;
    }
    _receiveThread =
        std::make_unique<Tovan::ObjectThread<Server, void>>(this, &Server::receiveThread);
    _receiveThread->start();
}

void Server::receiveThread() {
    while (!_receiveThread->terminated() && _communicator->waitForCommunicators())
        receive(true);
}

bool Server::waitForEvents(double seconds) {
    if (!_announcing.exchange(true))
        _communicator->startAnnouncing();
    return _communicator->waitForInput(seconds);
}

int Server::receive(bool block) {
    if (!_announcing.exchange(true))
        _communicator->startAnnouncing();
    forgetGoneSources();
    int handled = 0;
    int waiting = 0;
    _communicator->communicatorsAvail(waiting);
    if (waiting == 0 && !block)
        return 0;
    for (;;) {
        Lirra::Communicator* client = nullptr;
        if (!_communicator->receiveCommunicator(client))
            break;
        Lirra::Event* event = nullptr;
        if (!Lirra::Event::receive(client, event) || !event) {
            KELO_LOG(osg::LOG_FATAL, "Kelo::Server lost client\n");
            _communicator->removeCommunicator(client);
            if (client)
                client->close();
            delete client;
        } else {
            if (auto* command = dynamic_cast<CommandEvent*>(event))
                dispatchEvent(command);
            else
                KELO_LOG(osg::LOG_FATAL,
                         "Kelo::Server got Lirra::Event which is not a Kelo::Event\n");
            delete event;
            ++handled;
        }
        _communicator->communicatorsAvail(waiting);
        if (!block && waiting == 0)
            break;
    }
    _received += handled;
    return handled;
}

bool Server::dispatchEvent(CommandEvent* event) {
    const int id = event->id();
    bool applied = false;
    switch (event->command()) {
        case ResetWorld:
            reset();
            applied = true;
            break;
        case EnableWorld:
        case DisableWorld:
            setEnabled(event->command() == EnableWorld);
            applied = true;
            break;
        case SetListenerTransform:
            if (auto* t = dynamic_cast<TransformEvent*>(event)) {
                setListenerTransform(t->position(), t->rotation());
                applied = true;
            }
            break;
        case CreateSource:  // sources are the server program's own
            break;
        case DestroySource:
            if (Source* source = getSource(id)) {
                delete source;
                applied = true;
            }
            break;
        case SetSourceParam:
            if (auto* p = dynamic_cast<SourceParamEvent*>(event))
                if (Source* source = getSource(id)) {
                    source->setParam(p->loop(), p->pitch());
                    applied = true;
                }
            break;
        case PlaySource:
        case PauseSource:
        case StopSource:
            if (Source* source = getSource(id)) {
                source->setState(static_cast<WorldPart::State>(event->command() - PlaySource + 1));
                applied = true;
            }
            break;
        case CreateEmitter:
            if (auto* c = dynamic_cast<CreateEmitterEvent*>(event))
                applied = createEmitter(c->labels(), id) != nullptr;
            break;
        case DestroyEmitter:
            if (Emitter* emitter = getEmitter(id)) {
                delete emitter;
                applied = true;
            }
            break;
        case SetEmitterParam:
            if (auto* p = dynamic_cast<EmitterParamEvent*>(event))
                if (Emitter* emitter = getEmitter(id)) {
                    emitter->setParam(p->spatialize(), p->extraParam(), p->gain());
                    applied = true;
                }
            break;
        case SetEmitterConnection:
            if (auto* c = dynamic_cast<EmitterConnectionEvent*>(event))
                if (Emitter* emitter = getEmitter(id)) {
                    emitter->setSource(getSource(c->sourceId()));
                    applied = true;
                }
            break;
        case SetEmitterTransform:
            if (auto* t = dynamic_cast<TransformEvent*>(event))
                if (Emitter* emitter = getEmitter(id)) {
                    emitter->setTransform(&t->position(), &t->rotation());
                    applied = true;
                }
            break;
        case SetEmitterHull:
            if (auto* h = dynamic_cast<EmitterHullEvent*>(event))
                if (Emitter* emitter = getEmitter(id)) {
                    emitter->setHull(h->maxBack(), h->maxFront(), h->minBack(), h->minFront());
                    applied = true;
                }
            break;
        case PlayEmitter:
        case PauseEmitter:
        case StopEmitter:
            if (Emitter* emitter = getEmitter(id)) {
                emitter->setState(
                    static_cast<WorldPart::State>(event->command() - PlayEmitter + 1));
                applied = true;
            }
            break;
        default:
            KELO_LOG(osg::LOG_FATAL, "Unkown command ID: %d\n", event->command());
    }
    if (applied && (event->command() == ResetWorld || event->command() == DestroySource))
        forgetGoneSources();
    if (!applied)
        KELO_LOG(osg::LOG_FATAL, "Got invalid Event: %s/%d/%d/%d\n", event->type()->name().c_str(),
                 event->command(), event->id(), event->stamp());
    return applied;
}

bool Server::writeLocalData(SourceDataEvent& event, std::string& fileName) {
    const std::string& name = event.name();
    const size_t dot = name.rfind('.');
    const std::string extension = dot == std::string::npos ? std::string() : name.substr(dot);
    const std::string local = _localDataPrefix + "KeloSRC" + std::to_string(event.id()) + extension;
    if (!event.storeData(local))
        return false;
    fileName = local;
    return true;
}

void Server::setSourceDuration(Source& source) {
    SourceDurationEvent e;
    e.setCommand(SourceDuration);
    e.setId(CommandEvent::wireId(source.id()));
    e.setDuration(source.duration());
    e.setStamp(CommandEvent::kSenderStamp);
    std::lock_guard<std::mutex> lock(_durationMutex);
    _durations[source.id()] = source.duration();
    e.send(_communicator.get());
}

void Server::clientConnected(Lirra::Communicator* client) {
    // Under the lock, so that no playing time reported meanwhile can pass this client by.
    std::lock_guard<std::mutex> lock(_durationMutex);
    SourceDurationEvent e;
    e.setCommand(SourceDuration);
    e.setStamp(CommandEvent::kSenderStamp);
    for (const auto& [id, duration] : _durations) {
        e.setId(CommandEvent::wireId(id));
        e.setDuration(duration);
        e.send(client);
    }
    _communicator->join(client);
}

void Server::forgetGoneSources() {
    std::lock_guard<std::mutex> lock(_durationMutex);
    for (auto it = _durations.begin(); it != _durations.end();)
        it = getSource(it->first) ? std::next(it) : _durations.erase(it);
}

const Lirra::InetAddress& Server::multicastAddress() const {
    _address = _communicator->address();
    return _address;
}
void Server::setMulticastAddress(const Lirra::InetAddress& address) {
    _communicator->setAddress(address);
}
unsigned short Server::multicastPort() const {
    return _communicator->port();
}
void Server::setMulticastPort(unsigned short port) {
    _communicator->setPort(port);
}
int Server::multicastTtl() const {
    return _communicator->ttl();
}
void Server::setMulticastTtl(int ttl) {
    _communicator->setTtl(ttl);
}
const Lirra::InetAddress& Server::multicastInterface() const {
    _interface = _communicator->interface();
    return _interface;
}
void Server::setMulticastInterface(const Lirra::InetAddress& address) {
    _communicator->setInterface(address);
}
void Server::setMulticastEnabled(bool enabled) {
    _communicator->setMulticastEnabled(enabled);
}
bool Server::multicastEnabled() const {
    return _communicator->multicastEnabled();
}
short Server::id() const {
    return _communicator->id();
}
void Server::setId(short id) {
    _communicator->setId(id);
}

void Server::setId(const char* text) {
    int id = 0;
    if (text && *text) {
        id = std::atoi(text);
        if (id == 0)
            for (const char* c = text; *c; ++c)
                id += static_cast<signed char>(*c);
    }
    setId(CommandEvent::wireId(id));
}

unsigned short Server::port() const {
    return _communicator->listeningPort();
}
const std::string& Server::host() const {
    return _communicator->listeningHost();
}
size_t Server::clients() const {
    return _communicator->size();
}

}  // namespace Kelo
