#include "Kelo/Histogram.h"

#include <algorithm>
#include <cmath>

namespace Kelo {

void Histogram::observe(double seconds) {
    if (!(seconds > 0))
        seconds = 0;
    const size_t bucket = static_cast<size_t>(
        std::lower_bound(kBounds.begin(), kBounds.end(), seconds) - kBounds.begin());
    _buckets[bucket].fetch_add(1, std::memory_order_relaxed);
    // Whole nanoseconds: an integer sum adds without a compare-and-swap loop, and 2^64 ns is
    // centuries of updates.
    const double nanoseconds = std::min(seconds * 1e9, 1e18);
    _sumNanoseconds.fetch_add(static_cast<uint64_t>(std::llround(nanoseconds)),
                              std::memory_order_relaxed);
}

Histogram::Snapshot Histogram::snapshot() const {
    Snapshot out;
    for (size_t i = 0; i < kBuckets; ++i) {
        out.buckets[i] = _buckets[i].load(std::memory_order_relaxed);
        out.count += out.buckets[i];
    }
    out.sum = static_cast<double>(_sumNanoseconds.load(std::memory_order_relaxed)) * 1e-9;
    return out;
}

}  // namespace Kelo
