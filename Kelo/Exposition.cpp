#include "Kelo/Exposition.h"

#include <charconv>
#include <cmath>

namespace Kelo {

std::string Exposition::escapeLabel(const std::string& value) {
    std::string out;
    out.reserve(value.size());
    for (char c : value) {
        if (c == '\\')
            out += "\\\\";
        else if (c == '"')
            out += "\\\"";
        else if (c == '\n')
            out += "\\n";
        else
            out += c;
    }
    return out;
}

std::string Exposition::escapeHelp(const std::string& text) {
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        if (c == '\\')
            out += "\\\\";
        else if (c == '\n')
            out += "\\n";
        else
            out += c;
    }
    return out;
}

std::string Exposition::number(double value) {
    if (std::isnan(value))
        return "NaN";
    if (std::isinf(value))
        return value > 0 ? "+Inf" : "-Inf";
    char text[32];
    const auto result = std::to_chars(text, text + sizeof text, value);
    return std::string(text, result.ptr);
}

void Exposition::family(const std::string& name, const char* type, const std::string& help) {
    _text += "# HELP " + name + ' ' + escapeHelp(help) + "\n# TYPE " + name + ' ' + type + '\n';
}

void Exposition::begin(const std::string& name, const Labels& labels) {
    _text += name;
    if (labels.empty())
        return;
    char separator = '{';
    for (const auto& [label, value] : labels) {
        _text += separator;
        _text += label + "=\"" + escapeLabel(value) + '"';
        separator = ',';
    }
    _text += '}';
}

void Exposition::sample(const std::string& name, const Labels& labels, uint64_t value) {
    begin(name, labels);
    _text += ' ' + std::to_string(value) + '\n';
}

void Exposition::sample(const std::string& name, const Labels& labels, double value) {
    begin(name, labels);
    _text += ' ' + number(value) + '\n';
}

void Exposition::histogram(const std::string& name, const Labels& labels,
                           const Histogram::Snapshot& snapshot) {
    Labels bucket = labels;
    bucket.emplace_back("le", "");
    uint64_t below = 0;
    for (size_t i = 0; i < Histogram::kBuckets; ++i) {
        below += snapshot.buckets[i];
        bucket.back().second =
            i < Histogram::kBounds.size() ? number(Histogram::kBounds[i]) : "+Inf";
        sample(name + "_bucket", bucket, below);
    }
    sample(name + "_sum", labels, snapshot.sum);
    sample(name + "_count", labels, snapshot.count);
}

}  // namespace Kelo
