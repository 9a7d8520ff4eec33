#include "Parmel/ParamBag.h"

namespace Parmel {

const char* ParamBag::getParam(const std::string& key, const char* def) const {
    auto it = _params.find(key);
    return it == _params.end() ? def : it->second.c_str();
}

}  // namespace Parmel
