#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "Kelo/Histogram.h"

namespace Kelo {

// Writes metrics in the Prometheus text exposition format, version 0.0.4: each family opens
// with its HELP and TYPE lines and is followed by all of its samples, one line each. Names are
// the caller's and must match [a-zA-Z_:][a-zA-Z0-9_:]*; label values and help texts are
// escaped here, so they may hold anything.
class Exposition {
public:
    using Labels = std::vector<std::pair<std::string, std::string>>;

    // What a reply carrying the text says it is.
    static constexpr const char* kContentType = "text/plain; version=0.0.4; charset=utf-8";

    // type is "counter", "gauge" or "histogram".
    void family(const std::string& name, const char* type, const std::string& help);
    void sample(const std::string& name, const Labels& labels, uint64_t value);
    void sample(const std::string& name, const Labels& labels, double value);
    // A histogram's samples under the family opened as name: the cumulative buckets up to
    // le="+Inf", then name_sum and name_count.
    void histogram(const std::string& name, const Labels& labels,
                   const Histogram::Snapshot& snapshot);

    const std::string& text() const { return _text; }

    // A label value: backslash, double quote and line feed escaped.
    static std::string escapeLabel(const std::string& value);
    // A help text: backslash and line feed escaped.
    static std::string escapeHelp(const std::string& text);
    // A sample value: the shortest text that reads back as the same double; NaN, +Inf, -Inf.
    static std::string number(double value);

private:
    void begin(const std::string& name, const Labels& labels);

    std::string _text;
};

}  // namespace Kelo
