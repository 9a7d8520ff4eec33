#pragma once

#include <type_traits>

#include "Tovan/Thread.h"

namespace Tovan {

// A thread that runs a member function of an object.
template <typename T, typename R = int>
class ObjectThread : public Thread {
public:
    using Method = R (T::*)();

    ObjectThread(T* object, Method method) : _object(object), _method(method) {}
    // Joins before the object's members can go: main() may still be using them.
    ~ObjectThread() override { join(); }

protected:
    int main() override {
        if constexpr (std::is_void_v<R>) {
            (_object->*_method)();
            return 0;
        } else {
            return static_cast<int>((_object->*_method)());
        }
    }

private:
    T* _object;
    Method _method;
};

}  // namespace Tovan
