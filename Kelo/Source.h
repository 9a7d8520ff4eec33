#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <Lirra/URL.h>

#include "Kelo/WorldPart.h"

namespace Kelo {

class Emitter;

// One sound: PCM samples in memory or a sound file named by a URL, with loop flag, pitch and
// the playing time once a backend has worked it out. Created by World::createSource; the
// application deletes it (or World::clearWorld does).
class Source : public WorldPart {
public:
    enum DataType : int { NONE_SD = 0, URL_SD = 1, PCM_SD = 2 };

    Source(World& world, int id);
    Source(const Source&) = delete;
    Source& operator=(const Source&) = delete;
    ~Source() override;

    // Shared with the connected emitters: each of them takes the new state too.
    void setState(State state) override;

    // Copies size bytes of interleaved PCM samples. Null data or size 0 clears the format and
    // the samples (and still notifies).
    void setData(unsigned frequency, unsigned bits, unsigned channels, const unsigned char* data,
                 unsigned size);
    // Resolves url against the current directory. Throws Lirra::URLImpl::Exception for text that
    // is not a URL; then the source has no URL and nobody is notified.
    void setDataFromURL(const std::string& url);
    // Always notifies, even when nothing changed.
    void setParam(bool loop, float pitch);
    // Writes the PCM samples as a RIFF WAVE file.
    void dumpWavFile(const std::string& fileName) const;

    DataType dataType() const { return _dataType; }
    uint32_t frequency() const { return _frequency; }
    uint32_t bits() const { return _bits; }
    uint32_t channels() const { return _channels; }
    const std::vector<unsigned char>& data() const { return _data; }
    bool loop() const { return _loop; }
    float pitch() const { return _pitch; }
    float duration() const { return _duration; }
    const Lirra::URL* url() const { return _url.get(); }
    const std::map<int, Emitter*>& emitters() const { return _emitters; }

private:
    friend class Backend;  // writes _duration
    friend class Emitter;  // maintains _emitters

    DataType _dataType = NONE_SD;
    uint32_t _frequency = 0;
    uint32_t _bits = 0;
    uint32_t _channels = 0;
    std::vector<unsigned char> _data;
    float _pitch = 1.0f;
    float _duration = 0.0f;
    bool _loop = false;
    std::unique_ptr<Lirra::URL> _url;
    std::map<int, Emitter*> _emitters;
};

}  // namespace Kelo
