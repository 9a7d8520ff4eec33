#pragma once

#include <array>
#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <osg/Quaternion.h>
#include <osg/Vec3f.h>

#include "Kelo/Histogram.h"

namespace Kelo {

class Backend;
class Emitter;
class Source;

// The sound scene: sources and emitters by id, the listener and two switches. Every change is
// forwarded, in order and unfiltered, to each backend in the order of their creation.
class World {
public:
    World();
    // Copies are not supported: this builds an empty world and complains.
    World(const World& other);
    World& operator=(const World&) = delete;

    virtual void resetWorld();

    // Notifications: called by the parts after they changed, fanned out to every backend.
    virtual void setEnabled();
    virtual void setListenerTransform();
    virtual void createSource(Source& source);
    virtual void destroySource(Source& source);
    virtual void setSourceData(Source& source);
    virtual void setSourceParam(Source& source);
    virtual void setSourceDuration(Source& source);
    virtual void setSourceState(Source& source);
    virtual void createEmitter(Emitter& emitter);
    virtual void destroyEmitter(Emitter& emitter);
    virtual void setEmitterTransform(Emitter& emitter);
    virtual void setEmitterHull(Emitter& emitter);
    virtual void setEmitterParam(Emitter& emitter);
    virtual void setEmitterConnection(Emitter& emitter);
    virtual void setEmitterState(Emitter& emitter);

    // Deletes every emitter, then every source.
    virtual void clearWorld();
    // Does not delete parts or backends; call clearWorld() and deleteAllBackends() first.
    virtual ~World();
    virtual void reset();

    virtual bool enabled() const { return _enabled; }
    // Always notifies, even when the value is unchanged.
    virtual void setEnabled(bool enabled);
    virtual bool spatialize() const { return _spatialize; }
    // Stores only; backends read it when they need it.
    virtual void setSpatialize(bool spatialize);
    virtual const osg::Vec3f& listenerPosition() const { return _listenerPosition; }
    virtual const osg::Quaternion& listenerRotation() const { return _listenerRotation; }
    // Notifies only when some component moved by more than 1e-6.
    virtual void setListenerTransform(const osg::Vec3f& position, const osg::Quaternion& rotation);

    // An id of 0 asks for the next free one; null on an id clash or when the counter wraps.
    virtual Emitter* createEmitter(const std::vector<std::string>& labels = {}, int id = 0);
    virtual Emitter* getEmitter(int id) const;
    virtual Source* createSource(int id = 0);
    virtual Source* getSource(int id) const;

    // Once per frame: calls update() on every backend. Each call's time goes into
    // updateTimes().
    virtual bool update();
    // How long update() took, for monitoring; any thread may read it.
    const Histogram& updateTimes() const { return _updateTimes; }

    // Creates a backend by type name and replays the world's state to it.
    Backend* addBackend(const char* type, const char* params);
    void deleteAllBackends();
    void initBackendState(Backend& backend);
    void print() const;

    int lastId() const { return _lastId; }
    const std::map<int, Emitter*>& emitters() const { return _emitters; }
    const std::map<int, Source*>& sources() const { return _sources; }
    const std::vector<Backend*>& backends() const { return _backends; }

private:
    friend class Backend;
    friend class Emitter;
    friend class Source;

    // Takes the next id or checks an explicit one; 0 means "do not create".
    int claimId(int id);

    // Parts by id, for the ids from 1 to kIndexed - 1: the counter hands them out from 1 up,
    // and they travel the wire unchanged. A look-up there is two loads, where the map costs a
    // dozen cache misses in a large world; the maps stay the record that emitters() and
    // sources() show. Pages of 8 KiB come as ids need them and stay: nothing is copied as the
    // table grows, and glibc serves pages that small from its heap, not with mmap.
    template <class Part>
    class Index {
    public:
        static constexpr int kIndexed = 32768;
        static bool covers(int id) { return id > 0 && id < kIndexed; }
        Part* find(int id) const {
            Part* const* at = slot(id);
            return at ? *at : nullptr;
        }
        // May throw; put() then cannot.
        void makeRoom(int id) {
            if (!covers(id))
                return;
            auto& page = _pages[static_cast<size_t>(id) >> kPageBits];
            if (!page)
                page = std::make_unique<Part*[]>(kPageSize);
        }
        void put(int id, Part* part) noexcept {
            if (Part** at = slot(id))
                *at = part;
        }
        void remove(int id) noexcept { put(id, nullptr); }

    private:
        static constexpr size_t kPageBits = 10, kPageSize = size_t{1} << kPageBits,
                                kPageMask = kPageSize - 1;
        // Where id's part is kept; null when id is not covered or its page is not made yet.
        Part** slot(int id) const {
            if (!covers(id))
                return nullptr;
            const auto& page = _pages[static_cast<size_t>(id) >> kPageBits];
            return page ? &page[static_cast<size_t>(id) & kPageMask] : nullptr;
        }
        std::array<std::unique_ptr<Part*[]>, kIndexed / kPageSize> _pages;
    };

    int _lastId = 0;
    bool _enabled = true;
    bool _spatialize = true;
    std::map<int, Emitter*> _emitters;
    std::map<int, Source*> _sources;
    Index<Emitter> _emitterIndex;
    Index<Source> _sourceIndex;
    osg::Vec3f _listenerPosition;
    osg::Quaternion _listenerRotation;
    // A vector: the fan-out walks it on every change, and it changes only when backends come
    // and go.
    std::vector<Backend*> _backends;
    Histogram _updateTimes;
};

}  // namespace Kelo
