#pragma once

#include <map>
#include <string>
#include <vector>

#include <AL/al.h>
#include <AL/alc.h>

#include "Kelo/Backend.h"
#include "Kelo/BackendType.h"

namespace Kelo {

// "openal" (also "default"): renders the world through an OpenAL device. Each source becomes one
// OpenAL buffer holding its whole sound, each emitter whose labels match one OpenAL source.
// Without a device the backend stays in place and ignores every call.
//
// Parameters (all optional; a bad value is logged and the default used):
//   device=NAME        the playback device of that exact name (default: the system's default)
//   hrtf=auto|on|off   binaural rendering through OpenAL Soft's HRTF (default: auto, the
//                      library's own choice); hrtf=name:SPECIFIER picks one HRTF data set
//   frequency=HZ       the mixing rate asked of the device, 8000..192000 (default: the device's)
class OALBackend : public Backend {
public:
    OALBackend(World& world, const char* params);
    OALBackend(const OALBackend&) = delete;
    OALBackend& operator=(const OALBackend&) = delete;
    ~OALBackend() override;

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
    const BackendType* type() const override { return &_type; }

    // True when there is no context or OpenAL reports an error; then logs message (unless
    // null) and the decoded error. Clears OpenAL's error state either way.
    bool checkALError(const char* message) const;
    // The text for an OpenAL error code.
    static std::string errorText(ALenum code);

    // What was asked for in the parameters.
    enum class Hrtf { Auto, On, Off };
    const std::string& requestedDevice() const { return _requestedDevice; }
    Hrtf requestedHrtf() const { return _requestedHrtf; }
    const std::string& requestedHrtfName() const { return _requestedHrtfName; }
    int requestedFrequency() const { return _requestedFrequency; }

    // What the device ended up with; empty, 0 and "off" while inert.
    const std::string& deviceName() const { return _deviceName; }
    int frequency() const { return _frequency; }
    bool hrtfEnabled() const { return _hrtfEnabled; }
    // OpenAL Soft's reason ("enabled", "denied", "headphones detected" ...).
    const std::string& hrtfStatus() const { return _hrtfStatus; }
    const std::string& hrtfName() const { return _hrtfName; }
    // One line for people: device, rate, HRTF status and data set.
    std::string describe() const;

    // The names of the playback devices OpenAL offers.
    static std::vector<std::string> playbackDevices();
    // The HRTF data sets an open device offers (OpenAL Soft's ALC_SOFT_HRTF).
    static std::vector<std::string> hrtfNames(ALCdevice* device);
    // The same for the device of that name ("" the default), opened for the question only.
    static std::vector<std::string> hrtfNamesOf(const std::string& deviceName);

    ALCdevice* device() const { return _device; }
    ALCcontext* context() const { return _context; }
    // Emitter id -> OpenAL source, source id -> OpenAL buffer.
    const std::map<int, ALuint>& sources() const { return _sources; }
    const std::map<int, ALuint>& buffers() const { return _buffers; }

    static Backend* createMethod(World& world, const char* params);
    static BackendType _type;

private:
    // Makes the backend's context current; false when the backend has none.
    bool makeCurrent() const;
    // The OpenAL source of a known emitter, or 0.
    ALuint sourceOf(const Emitter& emitter) const;
    bool spatial(const Emitter& emitter) const;
    void loadPcm(Source& source, ALuint buffer);
    void loadUrl(Source& source, ALuint buffer);
    void readParams();
    // The context attributes for the parameters, for an open device.
    std::vector<ALCint> attributes() const;
    void readBack();
    // OpenAL Soft mixes at the HRTF data set's rate: finds one at the requested rate.
    void matchHrtfRate();

    ALCdevice* _device = nullptr;
    ALCcontext* _context = nullptr;
    std::map<int, ALuint> _sources;
    std::map<int, ALuint> _buffers;

    std::string _requestedDevice;
    Hrtf _requestedHrtf = Hrtf::Auto;
    std::string _requestedHrtfName;
    int _requestedFrequency = 0;  // 0: the device's own

    std::string _deviceName;
    int _frequency = 0;
    bool _hrtfEnabled = false;
    std::string _hrtfStatus = "off";
    std::string _hrtfName;
};

}  // namespace Kelo
