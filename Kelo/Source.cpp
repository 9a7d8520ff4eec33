#include "Kelo/Source.h"

#include <cstdio>
#include <fstream>

#include "Kelo/Emitter.h"
#include "Kelo/Log.h"
#include "Kelo/World.h"

namespace Kelo {

Source::Source(World& world, int id) : WorldPart(world, id) {
    world._sourceIndex.makeRoom(id);
    enter(world._sources, id, this);
    world._sourceIndex.put(id, this);
}

Source::~Source() {
    world().destroySource(*this);
    while (!_emitters.empty())
        _emitters.begin()->second->setSource(nullptr);
    world()._sources.erase(id());
    world()._sourceIndex.remove(id());
}

void Source::setState(State state) {
    if (!changeState(state))
        return;
    world().setSourceState(*this);
    // Step by key rather than by iterator, so that an emitter leaving the map during the
    // walk (through a backend or a subclass) cannot invalidate it.
    for (auto it = _emitters.begin(); it != _emitters.end();) {
        const int emitterId = it->first;
        if (it->second)
            it->second->setState(state);
        it = _emitters.upper_bound(emitterId);
    }
}

void Source::setData(unsigned frequency, unsigned bits, unsigned channels,
                     const unsigned char* data, unsigned size) {
    std::fputs("Source::setData call\n", stderr);
    _dataType = PCM_SD;
    if (data && size != 0) {
        _frequency = frequency;
        _bits = bits;
        _channels = channels;
        _data.assign(data, data + size);
    } else {
        _frequency = _bits = _channels = 0;
        _data.clear();
        KELO_LOG(osg::LOG_LOG, "Invalid data in Kelo::Source::setData()\n");
    }
    world().setSourceData(*this);
}

void Source::setDataFromURL(const std::string& url) {
    _dataType = URL_SD;
    _url.reset();
    _url = std::make_unique<Lirra::URL>(Lirra::URLImpl::create(url, &Lirra::URLFile::_cwd));
    world().setSourceData(*this);
}

void Source::setParam(bool loop, float pitch) {
    _loop = loop;
    _pitch = pitch;
    world().setSourceParam(*this);
}

namespace {

void putU16(std::ostream& out, uint32_t v) {
    const char b[2] = {static_cast<char>(v & 0xff), static_cast<char>((v >> 8) & 0xff)};
    out.write(b, 2);
}

void putU32(std::ostream& out, uint32_t v) {
    const char b[4] = {static_cast<char>(v & 0xff), static_cast<char>((v >> 8) & 0xff),
                       static_cast<char>((v >> 16) & 0xff), static_cast<char>((v >> 24) & 0xff)};
    out.write(b, 4);
}

}  // namespace

void Source::dumpWavFile(const std::string& fileName) const {
    std::ofstream out(fileName, std::ios::binary | std::ios::trunc);
    KELO_LOG(osg::LOG_LOG, "Dump PCM data to %s\n", fileName.c_str());
    if (!out)
        return;

    const uint32_t size = static_cast<uint32_t>(_data.size());
    const uint32_t blockAlign = ((_bits + 7) / 8 * _channels) & 0xffff;
    out.write("RIFF", 4);
    putU32(out, size + 36);
    out.write("WAVEfmt ", 8);
    putU32(out, 16);
    putU16(out, 1);
    putU16(out, _channels);
    putU32(out, _frequency);
    putU32(out, _frequency * blockAlign);
    putU16(out, blockAlign);
    putU16(out, _bits);
    out.write("data", 4);
    putU32(out, size);
    out.write(reinterpret_cast<const char*>(_data.data()), static_cast<std::streamsize>(size));
}

}  // namespace Kelo
