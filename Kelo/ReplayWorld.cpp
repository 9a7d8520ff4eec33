#include "Kelo/ReplayWorld.h"

#include "Kelo/CreateEmitterEvent.h"
#include "Kelo/Emitter.h"
#include "Kelo/EmitterConnectionEvent.h"
#include "Kelo/EmitterHullEvent.h"
#include "Kelo/EmitterParamEvent.h"
#include "Kelo/Log.h"
#include "Kelo/Source.h"
#include "Kelo/SourceParamEvent.h"
#include "Kelo/TransformEvent.h"

namespace Kelo {

ReplayWorld::~ReplayWorld() {
    _quiet = true;
    clearWorld();
}

void ReplayWorld::resetWorld() {
    _quiet = true;
    clearWorld();
    _quiet = false;
    World::resetWorld();  // nothing left to delete: the backends' reset alone
}

void ReplayWorld::destroySource(Source& source) {
    if (!_quiet)
        World::destroySource(source);
}

void ReplayWorld::destroyEmitter(Emitter& emitter) {
    if (!_quiet)
        World::destroyEmitter(emitter);
}

void ReplayWorld::setEmitterConnection(Emitter& emitter) {
    if (!_quiet)
        World::setEmitterConnection(emitter);
}

void ReplayWorld::setListenerTransform() {
    ++_moves;
    World::setListenerTransform();
}

void ReplayWorld::setEmitterTransform(Emitter& emitter) {
    ++_moves;
    World::setEmitterTransform(emitter);
}

bool ReplayWorld::apply(const CommandEvent& event) {
    const bool done = dispatch(event);
    if (done) {
        ++_applied;
    } else {
        ++_refused;
        KELO_LOG_LIMITED(osg::LOG_WARNING, "Kelo::ReplayWorld: cannot apply command %d to id %d\n",
                         event.command(), event.id());
    }
    return done;
}

bool ReplayWorld::dispatch(const CommandEvent& event) {
    const int id = event.id();
    const int command = event.command();
    switch (command) {
        case ResetWorld:
            reset();
            return true;
        case EnableWorld:
        case DisableWorld:
            setEnabled(command == EnableWorld);
            return true;
        case SetListenerTransform:
            if (const auto* t = dynamic_cast<const TransformEvent*>(&event)) {
                const uint64_t moves = _moves;
                World::setListenerTransform(t->position(), t->rotation());
                if (moves == _moves)
                    setListenerTransform();
                return true;
            }
            return false;
        case CreateSource:
            // The data stays with the application: servers play their own sounds.
            return id != 0 && !getSource(id) && createSource(id) != nullptr;
        case DestroySource:
            if (Source* source = getSource(id)) {
                delete source;
                return true;
            }
            return false;
        case SetSourceParam:
            if (const auto* p = dynamic_cast<const SourceParamEvent*>(&event))
                if (Source* source = getSource(id)) {
                    source->setParam(p->loop(), p->pitch());
                    return true;
                }
            return false;
        case PlaySource:
        case PauseSource:
        case StopSource:
            if (Source* source = getSource(id)) {
                source->setState(static_cast<WorldPart::State>(command - PlaySource + 1));
                return true;
            }
            return false;
        case CreateEmitter:
            if (const auto* c = dynamic_cast<const CreateEmitterEvent*>(&event))
                return id != 0 && !getEmitter(id) && createEmitter(c->labels(), id) != nullptr;
            return false;
        case DestroyEmitter:
            if (Emitter* emitter = getEmitter(id)) {
                delete emitter;
                return true;
            }
            return false;
        case SetEmitterParam:
            if (const auto* p = dynamic_cast<const EmitterParamEvent*>(&event))
                if (Emitter* emitter = getEmitter(id)) {
                    emitter->setParam(p->spatialize(), p->extraParam(), p->gain());
                    return true;
                }
            return false;
        case SetEmitterConnection:
            if (const auto* c = dynamic_cast<const EmitterConnectionEvent*>(&event))
                if (Emitter* emitter = getEmitter(id)) {
                    emitter->setSource(c->sourceId() ? getSource(c->sourceId()) : nullptr);
                    return true;
                }
            return false;
        case SetEmitterTransform:
            if (const auto* t = dynamic_cast<const TransformEvent*>(&event))
                if (Emitter* emitter = getEmitter(id)) {
                    const uint64_t moves = _moves;
                    emitter->setTransform(&t->position(), &t->rotation());
                    if (moves == _moves)
                        setEmitterTransform(*emitter);
                    return true;
                }
            return false;
        case SetEmitterHull:
            if (const auto* h = dynamic_cast<const EmitterHullEvent*>(&event))
                if (Emitter* emitter = getEmitter(id)) {
                    emitter->setHull(h->maxBack(), h->maxFront(), h->minBack(), h->minFront());
                    return true;
                }
            return false;
        case PlayEmitter:
        case PauseEmitter:
        case StopEmitter:
            if (Emitter* emitter = getEmitter(id)) {
                emitter->setState(static_cast<WorldPart::State>(command - PlayEmitter + 1));
                return true;
            }
            return false;
        default:
            return false;
    }
}

}  // namespace Kelo
