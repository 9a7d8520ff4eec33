#include "Kelo/Server.h"

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <exception>

#include "Kelo/CommandEvent.h"
#include "Kelo/CreateEmitterEvent.h"
#include "Kelo/Emitter.h"
#include "Kelo/EmitterConnectionEvent.h"
#include "Kelo/EmitterHullEvent.h"
#include "Kelo/EmitterParamEvent.h"
#include "Kelo/KeloMultiServer.h"
#include "Kelo/Log.h"
#include "Kelo/SessionWriter.h"
#include "Kelo/Source.h"
#include "Kelo/SourceDataEvent.h"
#include "Kelo/SourceDurationEvent.h"
#include "Kelo/SourceParamEvent.h"
#include "Kelo/TransformEvent.h"
#include "Lirra/Communicator.h"
#include "Lirra/EventDecoder.h"

namespace Kelo {

namespace {

// The event as a command event. The library's own types are told apart by their type
// objects, which costs far less than a dynamic_cast on every frame.
CommandEvent* asCommand(Lirra::Event* event) {
    const Lirra::EventType* type = event->type();
    if (type == &TransformEvent::_type || type == &CommandEvent::_type ||
        type == &EmitterParamEvent::_type || type == &CreateEmitterEvent::_type ||
        type == &EmitterConnectionEvent::_type || type == &EmitterHullEvent::_type ||
        type == &SourceParamEvent::_type || type == &SourceDataEvent::_type ||
        type == &SourceDurationEvent::_type)
        return static_cast<CommandEvent*>(event);
    return dynamic_cast<CommandEvent*>(event);  // a type registered by the application
}

// An event of the given class, or null for any other.
template <typename T>
T* as(CommandEvent* event) {
    return event->type() == &T::_type ? static_cast<T*>(event) : dynamic_cast<T*>(event);
}

// Where a command's count is kept: its number, or 0 for a number that is no command.
size_t commandSlot(int16_t command) {
    // Which numbers are commands, looked up once: this runs for every event received.
    static const auto isCommand = [] {
        std::array<bool, StopEmitter + 1> table{};
        for (int16_t c = 1; c <= StopEmitter; ++c)
            table[static_cast<size_t>(c)] = CommandEvent::commandName(c) != nullptr;
        return table;
    }();
    return command > 0 && command <= StopEmitter && isCommand[static_cast<size_t>(command)]
               ? static_cast<size_t>(command)
               : 0;
}

}  // namespace

Server::Server() {
    open(0, "");
}

Server::Server(unsigned short port, const std::string& host) {
    open(port, host);
}

void Server::open(unsigned short port, const std::string& host) {
    _decoder = std::make_unique<Lirra::EventDecoder>();
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
    // Only a non-blocking call is bounded: a blocking one runs on a thread of its own.
    const int maxEvents = block ? 0 : _receiveBatchEvents;
    const bool timed = !block && _receiveBatchSeconds > 0;
    const auto deadline = std::chrono::steady_clock::now() +
                          std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                              std::chrono::duration<double>(timed ? _receiveBatchSeconds : 0));
    for (unsigned turn = 1;; ++turn) {
        bool heavy = false;  // a reset rebuilds the world: the clock is read after each
        Lirra::Communicator* client = nullptr;
        if (!_communicator->receiveCommunicator(client))
            break;
        Lirra::Event* event = nullptr;
        std::string error;
        if (!_decoder->receive(client, event, &error) || !event) {
            if (!error.empty())
                _badFrames.fetch_add(1, std::memory_order_relaxed);
            KELO_LOG_LIMITED(osg::LOG_FATAL, "Kelo::Server lost client\n");
            dropClient(client);
        } else {
            if (CommandEvent* command = asCommand(event)) {
                auto& count = _receivedEvents[commandSlot(command->command())];
                // This thread is the only writer.
                count.store(count.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
                if (SessionWriter* recorder = _recorder.load(std::memory_order_acquire))
                    recorder->write(*command);
                if (!_recordOnly.load(std::memory_order_relaxed)) {
                    _sender = client;
                    heavy = command->command() == ResetWorld;
                    dispatchEvent(command);
                    _sender = nullptr;
                }
            } else {
                _badFrames.fetch_add(1, std::memory_order_relaxed);
                KELO_LOG_LIMITED(osg::LOG_FATAL,
                                 "Kelo::Server got Lirra::Event which is not a Kelo::Event\n");
            }
            _decoder->done();
            ++handled;
        }
        if (maxEvents > 0 && handled >= maxEvents)
            break;
        // The clock is read every few events: it costs about as much as a small event.
        if (timed && (heavy || turn % 8 == 0) && std::chrono::steady_clock::now() >= deadline)
            break;
        _communicator->communicatorsAvail(waiting);
        if (!block && waiting == 0)
            break;
    }
    _received += handled;
    if (SessionWriter* recorder = _recorder.load())
        recorder->flushIfDue();
    return handled;
}

void Server::setReceiveBatch(int maxEvents, double maxSeconds) {
    _receiveBatchEvents = maxEvents > 0 ? maxEvents : 0;
    // Beyond an hour a slice is no bound at all (and would overflow the clock's arithmetic).
    _receiveBatchSeconds =
        std::isfinite(maxSeconds) && maxSeconds > 0 && maxSeconds <= 3600 ? maxSeconds : 0;
}

void Server::dropClient(Lirra::Communicator* client) {
    _communicator->removeCommunicator(client);
    {
        std::lock_guard<std::mutex> lock(_clientsMutex);
        _peers.erase(client);
    }
    if (client == _sceneOwner)
        _sceneOwner = nullptr;  // its scene stays, but nobody is left to miss it
    if (client)
        client->close();
    delete client;
}

void Server::takeScene() {
    if (_sender && _sceneOwner && _sceneOwner != _sender)
        KELO_LOG_LIMITED(osg::LOG_WARNING,
                         "Kelo::Server: client %s reset the world, replacing the scene of "
                         "client %s\n",
                         _sender->peer().c_str(), _sceneOwnerPeer.c_str());
    _sceneOwner = _sender;
    _sceneOwnerPeer = _sender ? _sender->peer() : std::string();
}

bool Server::dispatchEvent(CommandEvent* event) {
    const int id = event->id();
    bool applied = false;
    switch (event->command()) {
        case ResetWorld:
            takeScene();
            reset();
            applied = true;
            break;
        case EnableWorld:
        case DisableWorld:
            setEnabled(event->command() == EnableWorld);
            applied = true;
            break;
        case SetListenerTransform:
            if (auto* t = as<TransformEvent>(event)) {
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
            if (auto* p = as<SourceParamEvent>(event))
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
            if (auto* c = as<CreateEmitterEvent>(event))
                applied = createEmitter(c->labels(), id) != nullptr;
            break;
        case DestroyEmitter:
            if (Emitter* emitter = getEmitter(id)) {
                delete emitter;
                applied = true;
            }
            break;
        case SetEmitterParam:
            if (auto* p = as<EmitterParamEvent>(event))
                if (Emitter* emitter = getEmitter(id)) {
                    emitter->setParam(p->spatialize(), p->extraParam(), p->gain());
                    applied = true;
                }
            break;
        case SetEmitterConnection:
            if (auto* c = as<EmitterConnectionEvent>(event))
                if (Emitter* emitter = getEmitter(id)) {
                    emitter->setSource(getSource(c->sourceId()));
                    applied = true;
                }
            break;
        case SetEmitterTransform:
            if (auto* t = as<TransformEvent>(event))
                if (Emitter* emitter = getEmitter(id)) {
                    emitter->setTransform(&t->position(), &t->rotation());
                    applied = true;
                }
            break;
        case SetEmitterHull:
            if (auto* h = as<EmitterHullEvent>(event))
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
            KELO_LOG_LIMITED(osg::LOG_FATAL, "Unkown command ID: %d\n", event->command());
    }
    if (applied && (event->command() == ResetWorld || event->command() == DestroySource))
        forgetGoneSources();
    if (!applied)
        KELO_LOG_LIMITED(osg::LOG_FATAL, "Got invalid Event: %s/%d/%d/%d\n",
                         event->type()->name().c_str(), event->command(), event->id(),
                         event->stamp());
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
    _durationsReported.fetch_add(1, std::memory_order_relaxed);
}

bool Server::clientConnected(Lirra::Communicator* client) {
    std::string holder;  // the client that an exclusive server keeps
    {
        std::lock_guard<std::mutex> lock(_clientsMutex);
        if (_exclusive && !_peers.empty())
            holder = _peers.begin()->second;
        else
            _peers[client] = client->peer();
    }
    if (!holder.empty()) {
        _exclusiveRefusals.fetch_add(1, std::memory_order_relaxed);
        KELO_LOG_LIMITED(osg::LOG_WARNING,
                         "Kelo::Server is exclusive: refused client %s while client %s is "
                         "connected\n",
                         client->peer().c_str(), holder.c_str());
        client->refuse("the server is exclusive and client " + holder + " is connected");
        delete client;
        return false;
    }
    // This runs on the network thread: whatever goes wrong costs this client, not the thread.
    try {
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
        if (_communicator->join(client))
            return true;
    } catch (const std::exception& e) {
        KELO_LOG_LIMITED(osg::LOG_FATAL, "Kelo::Server could not take client %s: %s\n",
                         client->peer().c_str(), e.what());
    }
    {
        std::lock_guard<std::mutex> lock(_clientsMutex);
        _peers.erase(client);
    }
    delete client;
    return false;
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

uint64_t Server::receivedEvents(int16_t command) const {
    return _receivedEvents[commandSlot(command)].load(std::memory_order_relaxed);
}

std::vector<std::pair<std::string, uint64_t>> Server::refusals() const {
    std::vector<std::pair<std::string, uint64_t>> out;
    for (size_t i = 0; i < Lirra::kRefusalKinds; ++i) {
        const auto refusal = static_cast<Lirra::Refusal>(i);
        out.emplace_back(Lirra::refusalName(refusal), _communicator->refusals(refusal));
    }
    out.emplace_back("bad_frame", _badFrames.load(std::memory_order_relaxed));
    out.emplace_back("exclusive", _exclusiveRefusals.load(std::memory_order_relaxed));
    return out;
}

size_t Server::receiveHeld() const {
    return _communicator->receiveHeld();
}

void Server::setMaxClients(size_t count) {
    _communicator->setMaxConnections(count);
}
size_t Server::maxClients() const {
    return _communicator->maxConnections();
}
void Server::setReceiveBudget(size_t bytes) {
    _communicator->setReceiveBudget(bytes);
}
size_t Server::receiveBudget() const {
    return _communicator->receiveBudget();
}
void Server::setIdleLimit(double seconds) {
    _communicator->setIdleLimit(seconds);
}
double Server::idleLimit() const {
    return _communicator->idleLimit();
}
void Server::setBusyPoll(unsigned microseconds) {
    _communicator->setBusyPoll(microseconds);
}
unsigned Server::busyPoll() const {
    return _communicator->busyPoll();
}

void Server::setSchedulerSlice(unsigned microseconds) {
    _communicator->setSchedulerSlice(microseconds);
}

unsigned Server::schedulerSlice() const {
    return _communicator->schedulerSlice();
}

bool Server::setLocalSocket(bool on) {
    return _communicator->setLocalSocket(on);
}

bool Server::localSocket() const {
    return _communicator->localSocket();
}

}  // namespace Kelo
