#pragma once

#include <stdexcept>

namespace Lirra {

// A socket or file operation of the networking library failed; what() says which and why.
class IOException : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

}  // namespace Lirra
