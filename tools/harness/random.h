// The fuzzers' generator: splitmix64, so that a seed replays its run on any
// machine (std:: distributions are not the same across libraries).
#pragma once
#include <cstdint>

namespace kvharness {

class SplitMix64 {
public:
    explicit SplitMix64(uint64_t seed) : state_(seed) {}
    uint64_t Next()
    {
        uint64_t z = (state_ += 0x9E3779B97F4A7C15ull);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        return z ^ (z >> 31);
    }
    uint32_t Below(uint32_t n) { return static_cast<uint32_t>(Next() % n); }
    bool OneIn(uint32_t n) { return Below(n) == 0; }

private:
    uint64_t state_;
};

}  // namespace kvharness
