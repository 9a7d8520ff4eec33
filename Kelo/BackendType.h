#pragma once

#include <string>

namespace Kelo {

class Backend;
class World;

// A registry entry: a type name and the function that creates a backend of that type. A static
// BackendType registers itself when constructed and leaves the registry when destroyed.
class BackendType {
public:
    using CreateMethod = Backend* (*)(World& world, const char* params);

    BackendType(const std::string& name, CreateMethod createMethod);
    // Copies are not registered: the copy has no name and no create method, and complains.
    BackendType(const BackendType& other);
    BackendType& operator=(const BackendType&) = delete;
    virtual ~BackendType();

    const std::string& name() const { return _name; }
    // Virtual for types whose creation needs more than a function pointer (a class of another
    // language, say); those pass a null create method.
    virtual Backend* createBackend(World& world, const char* params) const;

private:
    std::string _name;
    CreateMethod _createMethod;
};

}  // namespace Kelo
