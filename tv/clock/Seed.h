// SPDX-License-Identifier: Apache-2.0
// Choices that follow from a seed: SplitMix64, the same numbers on every processor and library.
#pragma once

#include <cstddef>
#include <cstdint>

namespace korvane::tv {

class Seed {
public:
    explicit Seed(uint64_t seed) : mState(seed) {}

    uint64_t next() {
        mState += 0x9e3779b97f4a7c15;
        uint64_t mixed = mState;
        mixed = (mixed ^ (mixed >> 30)) * 0xbf58476d1ce4e5b9;
        mixed = (mixed ^ (mixed >> 27)) * 0x94d049bb133111eb;
        return mixed ^ (mixed >> 31);
    }

    /// A number from 0 to count - 1; count is from 1 to 2^32.
    size_t below(size_t count) { return static_cast<size_t>(((next() >> 32) * count) >> 32); }

    /// True this often out of 65536 times. Draws no number if that is never.
    bool happens(uint32_t of65536) { return of65536 != 0 && below(65536) < of65536; }

private:
    uint64_t mState;
};

}  // namespace korvane::tv
