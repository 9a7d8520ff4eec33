#pragma once

#include <string>

namespace Parmel {

// Text to value conversion. Each returns def when the text is not a value of that type.
class Base {
public:
    // true/false, 1/0, yes/no, on/off in any case.
    static bool string2Value(const std::string& text, bool def);
    static int string2Value(const std::string& text, int def);
    static unsigned string2Value(const std::string& text, unsigned def);
    static float string2Value(const std::string& text, float def);
    static double string2Value(const std::string& text, double def);
};

}  // namespace Parmel
