#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace Kelo {

// Counts durations into fixed buckets, from 10 µs to 1 s and beyond, and keeps their sum: what
// a monitor needs to plot how long something takes. observe() costs two relaxed atomic adds, so
// it can sit in a frame loop; any thread may read a snapshot while another observes.
class Histogram {
public:
    // Upper bounds of the buckets, in seconds; a last bucket takes everything above.
    static constexpr std::array<double, 16> kBounds = {1e-5, 2.5e-5, 5e-5, 1e-4, 2.5e-4, 5e-4,
                                                       1e-3, 2.5e-3, 5e-3, 1e-2, 2.5e-2, 5e-2,
                                                       0.1,  0.25,   0.5,  1};
    static constexpr size_t kBuckets = kBounds.size() + 1;

    // The counts as one reader saw them: each bucket on its own (not cumulative), the sum in
    // seconds and the number of observations, which is the total of the buckets.
    struct Snapshot {
        std::array<uint64_t, kBuckets> buckets{};
        double sum = 0;
        uint64_t count = 0;
    };

    Histogram() = default;
    Histogram(const Histogram&) = delete;
    Histogram& operator=(const Histogram&) = delete;

    // A negative or NaN duration counts as 0.
    void observe(double seconds);
    Snapshot snapshot() const;

private:
    std::array<std::atomic<uint64_t>, kBuckets> _buckets{};
    std::atomic<uint64_t> _sumNanoseconds{0};
};

}  // namespace Kelo
