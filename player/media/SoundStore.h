// SPDX-License-Identifier: Apache-2.0
// Decoded sound by media time: an AudioReader fills it, recordings read it.
//
// Stereo at 48 kHz. Sample n of the store sounds at media time n / 48000 s. Where the same media
// time was decoded twice, as after a seek, the later one counts. Kept are the last 20 s that were
// decoded: audio is read 3 s ahead of what sounds, and an input that cannot seek goes back 10 s.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <vector>

#include "include/ThreadAnnotations.h"

namespace korvane::player {

constexpr int kSoundHz = 48'000;
constexpr int kSoundChannels = 2;

/// Any thread.
class SoundStore {
public:
    /// @param interleaved  left and right in turn
    void add(int64_t fromSample, std::vector<float> interleaved);
    /// Copies samples, silence where there are none.
    /// @param out  receives `count` times left and right
    void read(int64_t fromSample, int64_t count, float* out) const;
    /// Whether any sound came.
    bool any() const;

private:
    static constexpr int64_t kKeptSamples = int64_t{20} * kSoundHz;
    struct Chunk {
        int64_t fromSample;
        std::vector<float> interleaved;

        int64_t count() const { return static_cast<int64_t>(interleaved.size()) / kSoundChannels; }
    };

    mutable std::mutex mLock;
    std::deque<Chunk> mChunks KORVANE_GUARDED_BY(mLock);  ///< as they came
    int64_t mSamples KORVANE_GUARDED_BY(mLock) = 0;
};

}  // namespace korvane::player
