#include "Kelo/BackendType.h"

#include "Kelo/BackendFactory.h"
#include "Kelo/Log.h"

namespace Kelo {

BackendType::BackendType(const std::string& name, CreateMethod createMethod)
    : _name(name), _createMethod(createMethod) {
    BackendFactory::addBackendType(this);
}

BackendType::BackendType(const BackendType&) : _createMethod(nullptr) {
    KELO_LOG(osg::LOG_FATAL, "In BackendType copy constructor\n");
}

BackendType::~BackendType() {
    BackendFactory::removeBackendType(this);
}

Backend* BackendType::createBackend(World& world, const char* params) const {
    return _createMethod ? _createMethod(world, params) : nullptr;
}

}  // namespace Kelo
