// SPDX-License-Identifier: Apache-2.0
#include "player/media/StreamSuccession.h"

#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <utility>

namespace korvane::player {
namespace {

/// Longer than packets of one stream are apart where its tracks are interleaved.
constexpr int64_t kTrialUs = 500'000;
/// FFmpeg's demuxer and parser hold back at most this much of a stream's end.
constexpr int64_t kHeldBackUs = 200'000;

}  // namespace

void StreamSuccession::take(PacketPtr packet, int played, int64_t us,
                            std::vector<PacketPtr>* released) {
    const int stream = packet->stream_index;
    if (const int own = playedBy(stream); own >= 0) {
        Taken& taken = mTaken[own];
        taken.seen = true;
        for (auto other = taken.waiting.begin(); other != taken.waiting.end();) {
            // The last packet of an old stream comes when its next one begins, or at the end.
            const bool beside = us >= other->second.fromUs;
            if (beside) {
                mBeside.insert(other->first);
            }
            other = beside ? taken.waiting.erase(other) : std::next(other);
        }
        released->push_back(std::move(packet));
        return;
    }
    const auto found = mTaken.find(played);
    if (found == mTaken.end() || !found->second.seen || mBeside.count(stream) != 0) {
        return;
    }
    const auto before = mFormer.find(stream);
    if (before != mFormer.end() && std::abs(us - before->second) <= kHeldBackUs) {
        return;
    }
    Waiting& waiting = found->second.waiting.try_emplace(stream, Waiting{{}, us}).first->second;
    waiting.packets.push_back(std::move(packet));
    if (us - waiting.fromUs >= kTrialUs) {
        takeOver(&found->second, stream, released);
    }
}

void StreamSuccession::end(std::vector<PacketPtr>* released) {
    for (auto& [number, taken] : mTaken) {
        if (!taken.waiting.empty()) {
            takeOver(&taken, taken.waiting.begin()->first, released);
        }
    }
}

void StreamSuccession::takeOver(Taken* taken, int stream, std::vector<PacketPtr>* released) {
    Waiting& waiting = taken->waiting[stream];
    for (auto& packet : waiting.packets) {
        released->push_back(std::move(packet));
    }
    mFormer[taken->acting] = waiting.fromUs;
    taken->acting = stream;
    taken->waiting.clear();
}

void StreamSuccession::restart() {
    for (auto& [number, taken] : mTaken) {
        taken.acting = number;
        taken.waiting.clear();
    }
    mBeside.clear();
    mFormer.clear();
}

int StreamSuccession::playedBy(int stream) const {
    for (const auto& [number, taken] : mTaken) {
        if (taken.acting == stream) {
            return number;
        }
    }
    return -1;
}

}  // namespace korvane::player
