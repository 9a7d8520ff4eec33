#include "Kelo/Log.h"

namespace Kelo {

const char* const LogModuleName = "Kelo";

}  // namespace Kelo
