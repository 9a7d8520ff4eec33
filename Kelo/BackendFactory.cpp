#include "Kelo/BackendFactory.h"

#include <cstdio>

#include "Kelo/BackendType.h"
#include "Kelo/Log.h"

namespace Kelo {

// Constant-initialised: null before any dynamic initialisation runs.
std::map<std::string, BackendType*>* BackendFactory::_backendTypeMap = nullptr;
BackendFactory BackendFactory::_the;

Backend* BackendFactory::createBackend(World& world, const std::string& name, const char* params) {
    if (BackendType* type = findBackendType(name == "default" ? std::string("openal") : name))
        if (Backend* backend = type->createBackend(world, params))
            return backend;
    KELO_LOG(osg::LOG_FATAL, "Unknown Kelo backend %s; can not create\n", name.c_str());
    return nullptr;
}

void BackendFactory::addBackendType(BackendType* type) {
    if (!type)
        return;
    if (!_backendTypeMap)
        _backendTypeMap = new std::map<std::string, BackendType*>;
    if (!_backendTypeMap->emplace(type->name(), type).second)
        KELO_LOG(osg::LOG_WARNING, "There is already a backend %s, skip reg.\n",
                 type->name().c_str());
}

void BackendFactory::removeBackendType(BackendType* type) {
    if (!_backendTypeMap || !type)
        return;
    _backendTypeMap->erase(type->name());
    if (_backendTypeMap->empty()) {
        delete _backendTypeMap;
        _backendTypeMap = nullptr;
    }
}

BackendType* BackendFactory::findBackendType(const std::string& name) {
    if (!_backendTypeMap)
        return nullptr;
    auto it = _backendTypeMap->find(name);
    return it == _backendTypeMap->end() ? nullptr : it->second;
}

std::vector<std::string> BackendFactory::typeNames() {
    std::vector<std::string> names;
    if (_backendTypeMap)
        for (const auto& entry : *_backendTypeMap)
            names.push_back(entry.first);
    return names;
}

void BackendFactory::printTypes() {
    std::fputs("TypeList: \n", stdout);
    std::fflush(stdout);
    if (!_backendTypeMap)
        return;
    for (const auto& entry : *_backendTypeMap) {
        std::fprintf(stdout, "%s\n", entry.first.c_str());
        std::fflush(stdout);
    }
}

}  // namespace Kelo
