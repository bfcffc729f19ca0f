// SPDX-License-Identifier: Apache-2.0
#include "player/media/SoundStore.h"

#include <algorithm>
#include <utility>

namespace korvane::player {

void SoundStore::add(int64_t fromSample, std::vector<float> interleaved) {
    const std::lock_guard<std::mutex> guard(mLock);
    mChunks.push_back({fromSample, std::move(interleaved)});
    mSamples += mChunks.back().count();
    while (mSamples > kKeptSamples) {
        mSamples -= mChunks.front().count();
        mChunks.pop_front();
    }
}

void SoundStore::read(int64_t fromSample, int64_t count, float* out) const {
    std::fill_n(out, count * kSoundChannels, 0.0F);
    const std::lock_guard<std::mutex> guard(mLock);
    for (const Chunk& chunk : mChunks) {
        const int64_t from = std::max(fromSample, chunk.fromSample);
        const int64_t to = std::min(fromSample + count, chunk.fromSample + chunk.count());
        if (from < to) {
            const float* samples =
                chunk.interleaved.data() + (from - chunk.fromSample) * kSoundChannels;
            std::copy_n(samples, (to - from) * kSoundChannels,
                        out + (from - fromSample) * kSoundChannels);
        }
    }
}

bool SoundStore::any() const {
    const std::lock_guard<std::mutex> guard(mLock);
    return !mChunks.empty();
}

}  // namespace korvane::player
