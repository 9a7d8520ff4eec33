#pragma once

#include <map>
#include <string>

namespace Parmel {

// A set of named text parameters.
class ParamBag {
public:
    virtual ~ParamBag() = default;

    // The value stored under key, or def when there is none. The pointer stays valid until
    // the bag is changed.
    const char* getParam(const std::string& key, const char* def) const;
    bool hasParam(const std::string& key) const { return _params.count(key) != 0; }
    void setParam(const std::string& key, const std::string& value) { _params[key] = value; }
    const std::map<std::string, std::string>& params() const { return _params; }

private:
    std::map<std::string, std::string> _params;
};

}  // namespace Parmel
