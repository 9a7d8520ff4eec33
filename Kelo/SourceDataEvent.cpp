#include "Kelo/SourceDataEvent.h"

#include <cstring>
#include <fstream>

#include "Kelo/Log.h"

namespace Kelo {

Lirra::EventType SourceDataEvent::_type("SourceDataEvent", 207, &SourceDataEvent::create);

Lirra::Event* SourceDataEvent::create() {
    return new SourceDataEvent();
}

SourceDataEvent::SourceDataEvent(const SourceDataEvent& other)
    : CommandEvent(other), _name(other._name) {}

SourceDataEvent& SourceDataEvent::operator=(const SourceDataEvent& other) {
    CommandEvent::operator=(other);
    if (this != &other) {
        _name = other._name;
        setData(other._data.get(), other._size);
    }
    return *this;
}

void SourceDataEvent::setData(const unsigned char* bytes, uint64_t size) {
    _data.reset();
    _size = bytes ? size : 0;
    if (_size) {
        _data = std::make_unique<unsigned char[]>(_size);
        std::memcpy(_data.get(), bytes, _size);
    }
}

void SourceDataEvent::addFields() {
    CommandEvent::addFields();
    addField(_name);
    addField(_size);
    if (_size)
        addData(_data.get(), _size);
}

void SourceDataEvent::getFields() {
    CommandEvent::getFields();
    getField(_name);
    getField(_size);
    _data.reset();
    // The size comes from the peer: it must fit in the frame before anything is allocated.
    if (_size > remaining()) {
        fail("data block larger than the frame");
        _size = 0;
    }
    if (_size) {
        _data = std::make_unique<unsigned char[]>(_size);
        getData(_data.get(), _size);
    }
}

bool SourceDataEvent::loadData() {
    _size = 0;
    _data.reset();
    if (_name.empty())
        return false;
    std::ifstream in(_name, std::ios::binary | std::ios::ate);
    if (!in)
        return false;
    const std::streamoff end = in.tellg();
    if (end <= 0) {
        KELO_LOG(osg::LOG_FATAL, "Could not seek Kelo::Source data: >%s<\n", _name.c_str());
        return false;
    }
    _size = static_cast<uint64_t>(end);
    _data = std::make_unique<unsigned char[]>(_size);
    in.seekg(0);
    in.read(reinterpret_cast<char*>(_data.get()), static_cast<std::streamsize>(_size));
    const auto got = static_cast<unsigned long>(in.gcount());
    if (got < _size) {
        KELO_LOG(osg::LOG_FATAL, "Could not read Kelo::Source data: >%s< (%lu/%lu)\n",
                 _name.c_str(), static_cast<unsigned long>(_size), got);
        _size = 0;
        _data.reset();
        return false;
    }
    KELO_LOG(osg::LOG_LOG, "Read local Kelo::Source data: >%s< (%lu byte)\n", _name.c_str(),
             static_cast<unsigned long>(_size));
    return true;
}

bool SourceDataEvent::storeData(const std::string& fileName) const {
    if (fileName.empty() || _size == 0 || !_data)
        return false;
    std::ofstream out(fileName, std::ios::binary | std::ios::trunc);
    if (out)
        out.write(reinterpret_cast<const char*>(_data.get()), static_cast<std::streamsize>(_size));
    if (!out) {
        KELO_LOG(osg::LOG_FATAL, "Could not write local Kelo::Source data: >%s< (%lu bytes)\n",
                 fileName.c_str(), static_cast<unsigned long>(_size));
        return false;
    }
    KELO_LOG(osg::LOG_LOG, "Wrote local Kelo::Source data: >%s< (%lu bytes)\n", fileName.c_str(),
             static_cast<unsigned long>(_size));
    return true;
}

}  // namespace Kelo
