#include "Kelo/OALBackend.h"

#include <AL/alext.h>
#include <AL/alut.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "Kelo/Emitter.h"
#include "Kelo/Log.h"
#include "Kelo/Source.h"
#include "Kelo/World.h"

namespace Kelo {

namespace {

// Hull mapping.
constexpr float kPlainReference = 1.0f;
constexpr float kPlainMaximum = 2.0f;
constexpr float kPlainRolloff = 0.0f;
constexpr float kSpatialRolloff = 1.0f;
constexpr float kAverage = 0.5f;
constexpr float kFloor = 0.001f;
constexpr float kReferenceShrink = 0.999f;
constexpr float kConeAngle = 360.0f;

// OpenAL format of PCM data, or 0 when OpenAL has none for it.
ALenum pcmFormat(unsigned bits, unsigned channels) {
    if (bits == 8 && channels == 1)
        return AL_FORMAT_MONO8;
    if (bits == 16 && channels == 1)
        return AL_FORMAT_MONO16;
    if (bits == 8 && channels == 2)
        return AL_FORMAT_STEREO8;
    if (bits == 16 && channels == 2)
        return AL_FORMAT_STEREO16;
    return 0;
}

// Bytes per sample frame of the four PCM formats, or 0 for any other format.
int frameBytes(ALenum format) {
    static const int bytes[] = {1, 2, 2, 4};  // MONO8, MONO16, STEREO8, STEREO16
    const unsigned index = static_cast<unsigned>(format - AL_FORMAT_MONO8);
    return index < 4u ? bytes[index] : 0;
}

// Mixing rates a device may be asked for.
constexpr long kMinFrequency = 8000;
constexpr long kMaxFrequency = 192000;

// A list of names as ALC returns them: each ends with a null, the list with a second one.
std::vector<std::string> nameList(const ALCchar* names) {
    std::vector<std::string> out;
    for (const ALCchar* name = names; name && *name; name += out.back().size() + 1)
        out.emplace_back(name);
    return out;
}

// The full device names where the library offers them, else the short ones.
ALCenum deviceSpecifier() {
    return alcIsExtensionPresent(nullptr, "ALC_ENUMERATE_ALL_EXT") ? ALC_ALL_DEVICES_SPECIFIER
                                                                   : ALC_DEVICE_SPECIFIER;
}

std::string hrtfStatusText(ALCint status) {
    switch (status) {
        case ALC_HRTF_DISABLED_SOFT:
            return "disabled";
        case ALC_HRTF_ENABLED_SOFT:
            return "enabled";
        case ALC_HRTF_DENIED_SOFT:
            return "denied (the configuration forbids it)";
        case ALC_HRTF_REQUIRED_SOFT:
            return "required (the configuration forces it)";
        case ALC_HRTF_HEADPHONES_DETECTED_SOFT:
            return "enabled (headphones detected)";
        case ALC_HRTF_UNSUPPORTED_FORMAT_SOFT:
            return "unsupported format (the device is not stereo)";
        default:
            return "unknown status " + std::to_string(status);
    }
}

}  // namespace

BackendType OALBackend::_type("openal", &OALBackend::createMethod);

Backend* OALBackend::createMethod(World& world, const char* params) {
    return new OALBackend(world, params);
}

std::vector<std::string> OALBackend::playbackDevices() {
    return nameList(alcGetString(nullptr, deviceSpecifier()));
}

std::vector<std::string> OALBackend::hrtfNames(ALCdevice* device) {
    std::vector<std::string> out;
    if (!device || !alcIsExtensionPresent(device, "ALC_SOFT_HRTF"))
        return out;
    const auto getStringi =
        reinterpret_cast<LPALCGETSTRINGISOFT>(alcGetProcAddress(device, "alcGetStringiSOFT"));
    ALCint count = 0;
    alcGetIntegerv(device, ALC_NUM_HRTF_SPECIFIERS_SOFT, 1, &count);
    for (ALCint i = 0; getStringi && i < count; ++i) {
        const ALCchar* name = getStringi(device, ALC_HRTF_SPECIFIER_SOFT, i);
        out.emplace_back(name ? name : "");
    }
    return out;
}

std::vector<std::string> OALBackend::hrtfNamesOf(const std::string& deviceName) {
    ALCdevice* device = alcOpenDevice(deviceName.empty() ? nullptr : deviceName.c_str());
    std::vector<std::string> out = hrtfNames(device);
    if (device)
        alcCloseDevice(device);
    return out;
}

void OALBackend::readParams() {
    if (const char* device = params().getParam("device", nullptr)) {
        _requestedDevice = device;
        if (_requestedDevice.empty())
            KELO_LOG(osg::LOG_WARNING, "OALBackend: device= is empty; using the default device\n");
    }
    const std::string hrtf = params().getParam("hrtf", "auto");
    if (hrtf == "on")
        _requestedHrtf = Hrtf::On;
    else if (hrtf == "off")
        _requestedHrtf = Hrtf::Off;
    else if (hrtf.rfind("name:", 0) == 0 && hrtf.size() > 5) {
        _requestedHrtf = Hrtf::On;
        _requestedHrtfName = hrtf.substr(5);
    } else if (hrtf != "auto")
        KELO_LOG(osg::LOG_WARNING,
                 "OALBackend: hrtf=%s is not auto, on, off or name:SPECIFIER; using auto\n",
                 hrtf.c_str());
    if (const char* text = params().getParam("frequency", nullptr)) {
        char* end = nullptr;
        errno = 0;
        const long hz = std::strtol(text, &end, 10);
        if (end != text && !*end && errno == 0 && hz >= kMinFrequency && hz <= kMaxFrequency)
            _requestedFrequency = static_cast<int>(hz);
        else
            KELO_LOG(osg::LOG_WARNING,
                     "OALBackend: frequency=%s is not a whole number of Hz in %ld..%ld; using "
                     "the device's rate\n",
                     text, kMinFrequency, kMaxFrequency);
    }
}

std::vector<ALCint> OALBackend::attributes() const {
    std::vector<ALCint> attrs;
    if (_requestedFrequency > 0)
        attrs.insert(attrs.end(), {ALC_FREQUENCY, _requestedFrequency});
    if (_requestedHrtf != Hrtf::Auto && alcIsExtensionPresent(_device, "ALC_SOFT_HRTF")) {
        attrs.insert(attrs.end(),
                     {ALC_HRTF_SOFT, _requestedHrtf == Hrtf::On ? ALC_TRUE : ALC_FALSE});
        if (!_requestedHrtfName.empty()) {
            const std::vector<std::string> names = hrtfNames(_device);
            ALCint index = -1;
            for (size_t i = 0; i < names.size(); ++i)
                if (names[i] == _requestedHrtfName)
                    index = static_cast<ALCint>(i);
            if (index >= 0) {
                attrs.insert(attrs.end(), {ALC_HRTF_ID_SOFT, index});
            } else {
                std::string known;
                for (const std::string& name : names)
                    known += "  " + name + "\n";
                KELO_LOG(osg::LOG_WARNING,
                         "OALBackend: no HRTF data set named \"%s\"; using the library's choice. "
                         "The data sets are:\n%s",
                         _requestedHrtfName.c_str(), known.empty() ? "  (none)\n" : known.c_str());
            }
        }
    } else if (_requestedHrtf != Hrtf::Auto) {
        KELO_LOG(osg::LOG_WARNING, "OALBackend: this OpenAL has no ALC_SOFT_HRTF; hrtf ignored\n");
    }
    attrs.push_back(0);
    return attrs;
}

void OALBackend::readBack() {
    const ALCchar* name = alcGetString(_device, deviceSpecifier());
    _deviceName = name ? name : "";
    ALCint value = 0;
    alcGetIntegerv(_device, ALC_FREQUENCY, 1, &value);
    _frequency = value;
    if (alcIsExtensionPresent(_device, "ALC_SOFT_HRTF")) {
        value = 0;
        alcGetIntegerv(_device, ALC_HRTF_SOFT, 1, &value);
        _hrtfEnabled = value == ALC_TRUE;
        value = ALC_HRTF_DISABLED_SOFT;
        alcGetIntegerv(_device, ALC_HRTF_STATUS_SOFT, 1, &value);
        _hrtfStatus = hrtfStatusText(value);
        const ALCchar* set =
            _hrtfEnabled ? alcGetString(_device, ALC_HRTF_SPECIFIER_SOFT) : nullptr;
        _hrtfName = set ? set : "";
    } else {
        _hrtfStatus = "not offered by this OpenAL";
    }
    alcGetError(_device);  // a query the device does not know must not linger
}

void OALBackend::matchHrtfRate() {
    if (!_hrtfEnabled || !_requestedFrequency || _frequency == _requestedFrequency)
        return;
    const auto reset =
        reinterpret_cast<LPALCRESETDEVICESOFT>(alcGetProcAddress(_device, "alcResetDeviceSOFT"));
    const size_t sets = _requestedHrtfName.empty() ? hrtfNames(_device).size() : 0;
    for (size_t i = 0; reset && i < sets; ++i) {
        const ALCint attrs[] = {ALC_FREQUENCY,
                                _requestedFrequency,
                                ALC_HRTF_SOFT,
                                ALC_TRUE,
                                ALC_HRTF_ID_SOFT,
                                static_cast<ALCint>(i),
                                0};
        if (reset(_device, attrs) == ALC_TRUE) {
            readBack();
            if (_hrtfEnabled && _frequency == _requestedFrequency)
                return;
        }
    }
    if (reset) {  // none fits: back to what was asked for
        const std::vector<ALCint> attrs = attributes();
        reset(_device, attrs.data());
        readBack();
    }
    KELO_LOG(osg::LOG_WARNING,
             "OALBackend: HRTF mixes at its data set's rate: %d Hz instead of %d Hz\n", _frequency,
             _requestedFrequency);
}

std::string OALBackend::describe() const {
    if (!_context)
        return "no device (inert)";
    std::string out = "device \"" + _deviceName + "\", " + std::to_string(_frequency) +
                      " Hz, HRTF " + (_hrtfEnabled ? "on" : "off") + ": " + _hrtfStatus;
    if (!_hrtfName.empty())
        out += ", data set \"" + _hrtfName + "\"";
    return out;
}

OALBackend::OALBackend(World& world, const char* params) : Backend(world, params) {
    readParams();
    if (_requestedDevice.empty()) {
        _device = alcOpenDevice(nullptr);
    } else {
        _device = alcOpenDevice(_requestedDevice.c_str());
        if (!_device) {
            std::string known;
            for (const std::string& name : playbackDevices())
                known += "  " + name + "\n";
            KELO_LOG(osg::LOG_FATAL,
                     "OALBackend: no playback device named \"%s\"; the devices are:\n%s",
                     _requestedDevice.c_str(), known.empty() ? "  (none)\n" : known.c_str());
        }
    }
    if (!_device) {
        KELO_LOG(osg::LOG_FATAL, "Open OpenAL device failed\n");
        return;
    }
    // Nothing asked for: no attributes, exactly as before there were parameters.
    const std::vector<ALCint> attrs = attributes();
    _context = alcCreateContext(_device, attrs.size() > 1 ? attrs.data() : nullptr);
    if (!_context) {
        KELO_LOG(osg::LOG_FATAL, "Cannot create OpenAL context\n");
        alcCloseDevice(_device);
        _device = nullptr;
        return;
    }
    alcMakeContextCurrent(_context);
    KELO_LOG(osg::LOG_NOTICE, "OpenAL device & context open: ok\n");
    readBack();
    matchHrtfRate();
    KELO_LOG(osg::LOG_NOTICE, "OpenAL %s\n", describe().c_str());
    // A refusal is worth a warning: the listener will not get the binaural sound asked for.
    if (_requestedHrtf == Hrtf::On && !_hrtfEnabled)
        KELO_LOG(osg::LOG_WARNING, "OALBackend: HRTF was asked for and refused: %s\n",
                 _hrtfStatus.c_str());
}

OALBackend::~OALBackend() {
    resetBackend();
    if (_context)
        alcDestroyContext(_context);
    if (_device)
        alcCloseDevice(_device);
}

bool OALBackend::makeCurrent() const {
    if (!_context)
        return false;
    if (alcGetCurrentContext() != _context)
        alcMakeContextCurrent(_context);
    return true;
}

std::string OALBackend::errorText(ALenum code) {
    switch (code) {
        case AL_INVALID_NAME:
            return "Invalid Name parameter passed to AL call";
        case AL_INVALID_ENUM:
            return "Invalid parameter passed to AL call";
        case AL_INVALID_VALUE:
            return "Invalid enum parameter value";
        case AL_INVALID_OPERATION:
            return "Illegal call";
        case AL_OUT_OF_MEMORY:
            return "Out of memory";
        default: {
            char text[16];
            std::snprintf(text, sizeof text, "0x%x", static_cast<unsigned>(code));
            return text;
        }
    }
}

bool OALBackend::checkALError(const char* message) const {
    if (!makeCurrent())
        return true;
    const ALenum code = alGetError();
    if (code == AL_NO_ERROR)
        return false;
    if (message)
        KELO_LOG(osg::LOG_FATAL, "%s", message);
    KELO_LOG(osg::LOG_FATAL, "OpenAL state machine error: %s\n", errorText(code).c_str());
    return true;
}

void OALBackend::resetBackend() {
    if (!makeCurrent())
        return;
    // Sources first: a buffer still attached to a source cannot be deleted.
    for (auto& [id, name] : _sources) {
        alSourceStop(name);
        alDeleteSources(1, &name);
    }
    _sources.clear();
    for (auto& [id, name] : _buffers)
        alDeleteBuffers(1, &name);
    _buffers.clear();
    checkALError("Cannot reset backend\n");
}

void OALBackend::setEnabled() {
    if (!makeCurrent())
        return;
    alListenerf(AL_GAIN, world().enabled() ? 1.0f : 0.0f);
    checkALError("Cannot set listener gain\n");
}

void OALBackend::setListenerTransform() {
    if (!makeCurrent())
        return;
    // Every move restores full gain, also in a disabled world: the established behaviour.
    alListenerf(AL_GAIN, 1.0f);
    alListenerfv(AL_POSITION, world().listenerPosition().ptr());

    // The quaternion applied to (0, 0, -1) and to (0, 1, 0), not normalised first.
    const osg::Quaternion& q = world().listenerRotation();
    const float x = q.x(), y = q.y(), z = q.z(), w = q.w();
    const ALfloat orientation[6] = {
        -2 * (x * z + w * y), -2 * (y * z - w * x),          -(w * w - x * x - y * y + z * z),
        2 * (x * y - w * z),  w * w - x * x + y * y - z * z, 2 * (y * z + w * x)};
    alListenerfv(AL_ORIENTATION, orientation);
    const ALfloat still[3] = {0, 0, 0};
    alListenerfv(AL_VELOCITY, still);
    checkALError("Cannot set listener transformation\n");
}

void OALBackend::createSource(Source& source) {
    if (!makeCurrent() || _buffers.count(source.id()))
        return;
    ALuint name = 0;
    alGenBuffers(1, &name);
    if (checkALError("Cannot create source\n"))
        return;
    _buffers[source.id()] = name;
}

void OALBackend::destroySource(Source& source) {
    if (!makeCurrent())
        return;
    auto it = _buffers.find(source.id());
    if (it == _buffers.end())
        return;
    alDeleteBuffers(1, &it->second);
    _buffers.erase(it);
    checkALError("Cannot destroy source\n");
}

void OALBackend::setSourceData(Source& source) {
    if (!makeCurrent())
        return;
    auto it = _buffers.find(source.id());
    if (it == _buffers.end())
        return;
    if (source.dataType() == Source::PCM_SD)
        loadPcm(source, it->second);
    else if (source.dataType() == Source::URL_SD)
        loadUrl(source, it->second);
}

void OALBackend::loadPcm(Source& source, ALuint buffer) {
    const unsigned frequency = source.frequency(), bits = source.bits(),
                   channels = source.channels();
    KELO_LOG(osg::LOG_NOTICE, "Set alBufferData from PCM data: %d, %d, %d\n", frequency, bits,
             channels);
    const std::vector<unsigned char>& samples = source.data();
    if (frequency == 0 || bits == 0 || channels == 0 || samples.empty())
        return;
    const ALenum format = pcmFormat(bits, channels);
    if (!format) {
        KELO_LOG(osg::LOG_FATAL, "Invalid source bits/channels: %d/%d\n", bits, channels);
        return;
    }
    const auto size = static_cast<ALsizei>(samples.size());
    alBufferData(buffer, format, samples.data(), size, static_cast<ALsizei>(frequency));
    if (checkALError("alBufferData() call failed\n"))
        return;
    const unsigned bytesPerFrame = (channels * bits) >> 3;
    const double duration = static_cast<double>(samples.size()) / frequency / bytesPerFrame;
    setSourceDuration(source, static_cast<float>(duration));
}

void OALBackend::loadUrl(Source& source, ALuint buffer) {
    const Lirra::URL* url = source.url();
    if (!url) {
        KELO_LOG(osg::LOG_FATAL, "source.url() not set in Source::URL_SD set\n");
        return;
    }
    // The log never shows a URL's credentials; the fetch uses them.
    const std::string& text = url->displayString();
    KELO_LOG(osg::LOG_LOG, "loading: >%s<\n", text.c_str());
    Lirra::LocalFile file;
    try {
        file = url->fetch();
    } catch (...) {
        KELO_LOG(osg::LOG_FATAL, "OALBackend: Cannot download file \"%s\"\n", text.c_str());
        return;
    }

    std::string path = file.path();
    ALenum format = 0;
    ALvoid* data = nullptr;
    ALsizei size = 0, frequency = 0;
    ALboolean loop = AL_FALSE;  // ALUT's loop flag; sources carry their own
    // The WAV loader is deprecated in ALUT, but it is the one that hands back the raw
    // samples without an ALUT context.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    alutLoadWAVFile(reinterpret_cast<ALbyte*>(path.data()), &format, &data, &size, &frequency,
                    &loop);
#pragma GCC diagnostic pop
    if (checkALError("wav file load error\n"))
        return;
    // ALUT reports its own failures (not a WAV, a WAV it cannot read) only through alutGetError.
    if (!data) {
        KELO_LOG(osg::LOG_FATAL, "wav file load error\n");
        KELO_LOG(osg::LOG_FATAL, "ALUT error: %s\n", alutGetErrorString(alutGetError()));
        return;
    }

    const int bytesPerFrame = frameBytes(format);
    if (!bytesPerFrame) {
        KELO_LOG(osg::LOG_FATAL, "Unkown sound format: %d\n", format);
    } else {
        KELO_LOG(osg::LOG_NOTICE, "Set alBufferData from URL data: %d, %d, %d\n", format, frequency,
                 size);
        alBufferData(buffer, format, data, size, frequency);
        const double duration = static_cast<double>(size) / frequency / bytesPerFrame;
        setSourceDuration(source, static_cast<float>(duration));
    }
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    alutUnloadWAV(format, data, size, frequency);
#pragma GCC diagnostic pop
}

void OALBackend::setSourceParam(Source& source) {
    if (!makeCurrent())
        return;
    for (const auto& [id, emitter] : source.emitters()) {
        if (!emitter)
            continue;
        auto it = _sources.find(id);
        if (it == _sources.end())
            continue;
        alSourcef(it->second, AL_PITCH, source.pitch());
        alSourcei(it->second, AL_LOOPING, source.loop() ? AL_TRUE : AL_FALSE);
        checkALError("Cannot set source parameters\n");
    }
}

// Play state is rendered per emitter.
void OALBackend::setSourceState(Source&) {}

ALuint OALBackend::sourceOf(const Emitter& emitter) const {
    auto it = _sources.find(emitter.id());
    return it == _sources.end() ? 0 : it->second;
}

bool OALBackend::spatial(const Emitter& emitter) const {
    return world().spatialize() && emitter.spatialize();
}

void OALBackend::createEmitter(Emitter& emitter) {
    if (!makeCurrent() || !hasSameLabel(emitter) || _sources.count(emitter.id()))
        return;
    ALuint name = 0;
    alGenSources(1, &name);
    if (checkALError("Cannot create emitter\n"))
        return;
    _sources[emitter.id()] = name;
}

void OALBackend::destroyEmitter(Emitter& emitter) {
    if (!makeCurrent())
        return;
    auto it = _sources.find(emitter.id());
    if (it == _sources.end())
        return;
    alSourceStop(it->second);
    alDeleteSources(1, &it->second);
    _sources.erase(it);
    checkALError("Cannot destroy emitter\n");
}

void OALBackend::setEmitterTransform(Emitter& emitter) {
    if (!makeCurrent())
        return;
    const ALuint name = sourceOf(emitter);
    if (!name)
        return;
    // A non-spatial emitter sits on the listener.
    static const ALfloat origin[3] = {0, 0, 0};
    const bool positioned = spatial(emitter);
    alSourcefv(name, AL_POSITION, positioned ? emitter.position().ptr() : origin);
    alSourcei(name, AL_SOURCE_RELATIVE, positioned ? AL_FALSE : AL_TRUE);
    checkALError("Cannot set emitter transformation\n");
}

void OALBackend::setEmitterHull(Emitter& emitter) {
    if (!makeCurrent())
        return;
    const ALuint name = sourceOf(emitter);
    if (!name)
        return;
    float reference = kPlainReference, maximum = kPlainMaximum, rolloff = kPlainRolloff;
    if (spatial(emitter)) {
        // Front and back are averaged: the hull is rendered as a sphere.
        float inner = (emitter.minBack() + emitter.minFront()) * kAverage;
        float outer = (emitter.maxBack() + emitter.maxFront()) * kAverage;
        if (inner <= 0)
            inner = kFloor;
        if (outer <= 0)
            outer = kFloor;
        rolloff = kSpatialRolloff;
        maximum = outer;
        reference = inner < outer ? inner : outer * kReferenceShrink;
    }
    static const ALfloat direction[3] = {1, 0, 0};
    alSourcefv(name, AL_DIRECTION, direction);
    alSourcef(name, AL_CONE_INNER_ANGLE, kConeAngle);
    alSourcef(name, AL_CONE_OUTER_ANGLE, kConeAngle);
    alSourcef(name, AL_REFERENCE_DISTANCE, reference);
    alSourcef(name, AL_MAX_DISTANCE, maximum);
    alSourcef(name, AL_ROLLOFF_FACTOR, rolloff);
    checkALError("Cannot set emitter hull\n");
}

void OALBackend::setEmitterParam(Emitter& emitter) {
    if (!makeCurrent())
        return;
    const ALuint name = sourceOf(emitter);
    if (!name)
        return;
    alSourcef(name, AL_GAIN, emitter.gain());
    checkALError("Cannot set emitter parameters\n");
}

void OALBackend::setEmitterConnection(Emitter& emitter) {
    if (!makeCurrent())
        return;
    const ALuint name = sourceOf(emitter);
    if (!name)
        return;
    alSourceStop(name);
    const Source* source = emitter.source();
    if (!source) {
        alSourcei(name, AL_BUFFER, 0);
        checkALError("Cannot disconnect emitter and source\n");
        return;
    }
    auto buffer = _buffers.find(source->id());
    if (buffer != _buffers.end()) {
        alSourcei(name, AL_BUFFER, static_cast<ALint>(buffer->second));
        alSourcef(name, AL_PITCH, source->pitch());
        alSourcei(name, AL_LOOPING, source->loop() ? AL_TRUE : AL_FALSE);
    } else {
        alSourcei(name, AL_BUFFER, 0);
    }
    checkALError("Cannot connect emitter and source\n");
}

void OALBackend::setEmitterState(Emitter& emitter) {
    if (!makeCurrent())
        return;
    const ALuint name = sourceOf(emitter);
    if (!name)
        return;
    switch (emitter.state()) {
        case WorldPart::NONE:
            break;
        case WorldPart::PLAY:
            alSourcePlay(name);
            checkALError("Cannot play sound\n");
            break;
        case WorldPart::PAUSE:
            alSourcePause(name);
            checkALError("Cannot pause sound\n");
            break;
        case WorldPart::STOP:
            alSourceStop(name);
            checkALError("Cannot stop sound\n");
            break;
        default:
            KELO_LOG(osg::LOG_FATAL,
                     "OALBackend::setEmitterState(): Bad Kelo::Emitter::state %d \n",
                     static_cast<int>(emitter.state()));
    }
}

}  // namespace Kelo
