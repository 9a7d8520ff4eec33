#pragma once

#include <map>
#include <string>
#include <vector>

namespace Kelo {

class Backend;
class BackendType;
class World;

// Creates backends by type name from the types registered by their BackendType objects.
// "default" names the "openal" type.
class BackendFactory {
public:
    virtual ~BackendFactory() = default;

    // Null, with a message, for an unknown name or a failed creation.
    virtual Backend* createBackend(World& world, const std::string& name, const char* params);

    // The first registration of a name wins; a second is refused with a warning.
    static void addBackendType(BackendType* type);
    static void removeBackendType(BackendType* type);
    // The entry registered under name, or null.
    static BackendType* findBackendType(const std::string& name);
    // Every registered name, ascending.
    static std::vector<std::string> typeNames();
    // "TypeList: " and every registered name, ascending, one per line, on standard output.
    static void printTypes();

    static BackendFactory _the;

private:
    // Behind a pointer that is null before the first registration, so that registering does
    // not depend on the order in which static objects of different files are constructed.
    static std::map<std::string, BackendType*>* _backendTypeMap;
};

}  // namespace Kelo
