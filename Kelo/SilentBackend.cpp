#include "Kelo/SilentBackend.h"

namespace Kelo {

BackendType SilentBackend::_type("silent", &SilentBackend::createMethod);

Backend* SilentBackend::createMethod(World& world, const char* params) {
    return new SilentBackend(world, params);
}

}  // namespace Kelo
