// Feeds arbitrary text to the parameter-line parser and to the text-to-value conversions that
// backends apply to its values. Besides not crashing: the pairs read from a line, written out
// again (quoted, and bare where a value allows it), read back to the same pairs; only the
// switch words convert to a bool; and a number that converts converts back to itself from its
// printed form.
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>

#include <Parmel/Base.h>
#include <Parmel/ParamLine.h>

namespace {

using Params = std::map<std::string, std::string>;

std::string quoted(const std::string& value) {
    std::string out = "\"";
    for (const char c : value) {
        if (c == '"' || c == '\\')
            out += '\\';
        out += c;
    }
    return out + '"';
}

bool bare(const std::string& value) {
    if (value.empty() || value[0] == '"')
        return false;
    for (const char c : value)
        if (c == ' ' || c == '\t' || c == '\r' || c == '\n')
            return false;
    return true;
}

Params parse(const std::string& text, bool& malformed) {
    Parmel::ParamLine line;
    malformed = false;
    try {
        line.setParamLine(text.c_str());
    } catch (const Parmel::ParseError&) {
        malformed = true;  // the pairs before the fault stay
    }
    return line.params();
}

void checkRewrite(const Params& params, bool quoteAll) {
    std::string text;
    for (const auto& [key, value] : params)
        text += key + "=" + (quoteAll || !bare(value) ? quoted(value) : value) + " ";
    bool malformed = false;
    if (parse(text, malformed) != params || malformed)
        __builtin_trap();
}

// A conversion that succeeds gives the same value whatever the default; that value printed
// converts back to itself.
template <typename T>
void checkInteger(const std::string& text) {
    const T a = Parmel::Base::string2Value(text, T(0));
    const T b = Parmel::Base::string2Value(text, T(1));
    if (a != b)
        return;  // not a number of this type: each default came back
    if (Parmel::Base::string2Value(std::to_string(a), a == 0 ? T(1) : T(0)) != a)
        __builtin_trap();
}

template <typename T>
void checkReal(const std::string& text) {
    const T a = Parmel::Base::string2Value(text, T(0));
    const T b = Parmel::Base::string2Value(text, T(1));
    if (std::memcmp(&a, &b, sizeof a) != 0 && !(std::isnan(a) && std::isnan(b)))
        return;
    if (std::isnan(a))
        return;  // NaN payloads need not survive printing
    char printed[64];
    std::snprintf(printed, sizeof printed, "%a", static_cast<double>(a));
    const T back = Parmel::Base::string2Value(printed, a == 0 ? T(1) : -a);
    if (std::memcmp(&a, &back, sizeof a) != 0)
        __builtin_trap();
}

// The switch words, in any case, and nothing else.
void checkSwitch(const std::string& text) {
    const bool t = Parmel::Base::string2Value(text, true);
    const bool f = Parmel::Base::string2Value(text, false);
    std::string lower = text;
    for (char& c : lower)
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
    const bool yes = lower == "true" || lower == "1" || lower == "yes" || lower == "on";
    const bool no = lower == "false" || lower == "0" || lower == "no" || lower == "off";
    if (t != f ? yes || no : (t ? !yes : !no))
        __builtin_trap();
}

void checkValue(const std::string& text) {
    checkSwitch(text);
    checkInteger<int>(text);
    checkInteger<unsigned>(text);
    checkReal<float>(text);
    checkReal<double>(text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // The parser takes a C string: it ends at the first NUL, as it would for a caller.
    const std::string text(reinterpret_cast<const char*>(data),
                           strnlen(reinterpret_cast<const char*>(data), size));
    bool malformed = false;
    const Params params = parse(text, malformed);
    checkRewrite(params, true);
    checkRewrite(params, false);
    for (const auto& entry : params)
        checkValue(entry.second);
    checkValue(text);
    return 0;
}
