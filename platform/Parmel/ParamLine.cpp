#include "Parmel/ParamLine.h"

namespace Parmel {

namespace {

bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

}  // namespace

void ParamLine::setParamLine(const char* text) {
    if (!text)
        return;
    const std::string line = text;
    size_t i = 0;
    const size_t n = line.size();
    while (true) {
        while (i < n && isBlank(line[i]))
            ++i;
        if (i == n)
            return;

        const size_t keyStart = i;
        while (i < n && !isBlank(line[i]) && line[i] != '=')
            ++i;
        if (i == n || line[i] != '=')
            throw ParseError("parameter without value: " + line.substr(keyStart, i - keyStart));
        if (i == keyStart)
            throw ParseError("parameter without name at column " + std::to_string(keyStart + 1));
        std::string key = line.substr(keyStart, i - keyStart);
        ++i;  // '='

        std::string value;
        if (i < n && line[i] == '"') {
            ++i;
            bool closed = false;
            while (i < n) {
                char c = line[i++];
                if (c == '"') {
                    closed = true;
                    break;
                }
                if (c == '\\' && i < n && (line[i] == '"' || line[i] == '\\'))
                    c = line[i++];
                value += c;
            }
            if (!closed)
                throw ParseError("unterminated quote in parameter " + key);
            if (i < n && !isBlank(line[i]))
                throw ParseError("text after closing quote in parameter " + key);
        } else {
            const size_t valueStart = i;
            while (i < n && !isBlank(line[i]))
                ++i;
            value = line.substr(valueStart, i - valueStart);
        }
        setParam(key, value);
    }
}

}  // namespace Parmel
