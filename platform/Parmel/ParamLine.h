#pragma once

#include <stdexcept>
#include <string>

#include "Parmel/ParamBag.h"

namespace Parmel {

// Thrown for a parameter text that is not a sequence of key=value pairs.
class ParseError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// A parameter bag filled from one line of text: whitespace-separated key=value pairs. A value
// may be double-quoted to hold blanks, with \" and \\ inside the quotes. The last of a repeated
// key wins.
class ParamLine : public ParamBag {
public:
    ParamLine() = default;

    // Adds the pairs of text (null is empty). Throws ParseError on a bare word, an empty key,
    // an unterminated quote or text glued to a closing quote; the pairs before the fault are
    // kept.
    void setParamLine(const char* text);
};

}  // namespace Parmel
