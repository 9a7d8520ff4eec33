#pragma once

#include <cstdint>
#include <memory>
#include <new>
#include <utility>
#include <vector>

namespace Lirra {
namespace detail {

// Leaves the bytes a resize adds as they are: a receive buffer is grown by a read's worth and
// recv() writes there, so zeroing them first would cost about as much as the read itself.
template <class T>
struct UninitAllocator : std::allocator<T> {
    using std::allocator<T>::allocator;
    template <class U>
    struct rebind {
        using other = UninitAllocator<U>;
    };
    template <class U>
    void construct(U* at) noexcept {
        ::new (static_cast<void*>(at)) U;
    }
    template <class U, class... Args>
    void construct(U* at, Args&&... args) {
        ::new (static_cast<void*>(at)) U(std::forward<Args>(args)...);
    }
};
// Received bytes, handed from a connection to its reader by swapping buffers.
using Bytes = std::vector<uint8_t, UninitAllocator<uint8_t>>;

}  // namespace detail
}  // namespace Lirra
