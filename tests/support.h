#pragma once

#include <string>
#include <vector>

#include <Kelo/Backend.h>
#include <Kelo/BackendType.h>
#include <osg/Log.h>

namespace KeloTest {

// Records every notification as "name(id)" ("setEnabled", "createSource(3)" …), in its own
// list and, when given one, in a journal shared with other backends to check the interleaving.
class RecordingBackend : public Kelo::Backend {
public:
    RecordingBackend(Kelo::World& world, const char* params = "",
                     std::vector<std::string>* journal = nullptr, std::string tag = "");
    ~RecordingBackend() override;

    void resetBackend() override { record("resetBackend"); }
    void setEnabled() override { record("setEnabled"); }
    void setListenerTransform() override { record("setListenerTransform"); }
    void createSource(Kelo::Source& s) override;
    void destroySource(Kelo::Source& s) override;
    void setSourceData(Kelo::Source& s) override;
    void setSourceParam(Kelo::Source& s) override;
    void setSourceState(Kelo::Source& s) override;
    void createEmitter(Kelo::Emitter& e) override;
    void destroyEmitter(Kelo::Emitter& e) override;
    void setEmitterTransform(Kelo::Emitter& e) override;
    void setEmitterHull(Kelo::Emitter& e) override;
    void setEmitterParam(Kelo::Emitter& e) override;
    void setEmitterConnection(Kelo::Emitter& e) override;
    void setEmitterState(Kelo::Emitter& e) override;
    bool update() override;
    const Kelo::BackendType* type() const override { return &_type; }

    std::vector<std::string> calls;
    int updates = 0;
    // Set by the destructor, so a test can see that a backend was deleted.
    bool* deleted = nullptr;

    static Kelo::BackendType _type;  // registered as "record"

private:
    void record(const std::string& call);
    std::vector<std::string>* _journal;
    std::string _tag;
};

// Captures log messages for its lifetime, at the given threshold.
class LogCapture {
public:
    explicit LogCapture(int level = osg::LOG_NOTICE);
    ~LogCapture();

    std::vector<osg::LogMessage> messages;
    // The texts only, in order.
    std::vector<std::string> texts() const;
    // Texts at one level.
    std::vector<std::string> texts(int level) const;

private:
    int _oldLevel;
    osg::Log::Sink _oldSink;
};

}  // namespace KeloTest
