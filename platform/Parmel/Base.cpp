#include "Parmel/Base.h"

#include <strings.h>
#include <cerrno>
#include <climits>
#include <cstdlib>

namespace Parmel {

namespace {

// Parses the whole text with strto*; false if anything is left over or the value overflows.
template <typename T, typename F>
bool parseAll(const std::string& text, F convert, T& out) {
    if (text.empty())
        return false;
    const char* begin = text.c_str();
    char* end = nullptr;
    errno = 0;
    auto value = convert(begin, &end);
    if (end == begin || *end != '\0' || errno == ERANGE)
        return false;
    out = value;
    return true;
}

}  // namespace

bool Base::string2Value(const std::string& text, bool def) {
    const char* t = text.c_str();
    for (const char* yes : {"true", "1", "yes", "on"})
        if (strcasecmp(t, yes) == 0)
            return true;
    for (const char* no : {"false", "0", "no", "off"})
        if (strcasecmp(t, no) == 0)
            return false;
    return def;
}

int Base::string2Value(const std::string& text, int def) {
    long value = 0;
    if (!parseAll(
            text, [](const char* s, char** e) { return std::strtol(s, e, 10); }, value) ||
        value < INT_MIN || value > INT_MAX)
        return def;
    return static_cast<int>(value);
}

unsigned Base::string2Value(const std::string& text, unsigned def) {
    long long value = 0;
    if (!parseAll(
            text, [](const char* s, char** e) { return std::strtoll(s, e, 10); }, value) ||
        value < 0 || value > static_cast<long long>(UINT_MAX))
        return def;
    return static_cast<unsigned>(value);
}

float Base::string2Value(const std::string& text, float def) {
    float value = 0;
    return parseAll(
               text, [](const char* s, char** e) { return std::strtof(s, e); }, value)
               ? value
               : def;
}

double Base::string2Value(const std::string& text, double def) {
    double value = 0;
    return parseAll(
               text, [](const char* s, char** e) { return std::strtod(s, e); }, value)
               ? value
               : def;
}

}  // namespace Parmel
