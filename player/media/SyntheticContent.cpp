// SPDX-License-Identifier: Apache-2.0
#include "player/media/SyntheticContent.h"

#include <algorithm>
#include <deque>
#include <iterator>
#include <utility>

namespace korvane::player {
namespace {

/// A packet of AAC at the usual sample rate.
constexpr int64_t kPacketSamples = 1024;
constexpr int64_t kSampleRate = 48'000;
constexpr int64_t kSecondUs = 1'000'000;
/// Ticks per second of an MPEG transport stream.
constexpr int64_t kMpegTicks = 90'000;
constexpr int64_t kMatroskaTicks = 1'000;

// An extension of GCC and clang: a day in microseconds times the terms of a rate exceeds 64 bits.
__extension__ using Wide = __int128;

int64_t divideRounding(Wide dividend, Wide divisor) {
    const Wide half = divisor / 2;
    const Wide shifted = dividend >= 0 ? dividend + half : dividend - half;
    return static_cast<int64_t>(shifted / divisor);
}

/// Stores a time in ticks and reads it back; `parts` units of the time make a microsecond.
int64_t throughTicks(Wide time, int64_t parts, int64_t ticksPerSecond) {
    const int64_t ticks = divideRounding(time * ticksPerSecond, Wide{parts} * kSecondUs);
    return divideRounding(Wide{ticks} * kSecondUs, ticksPerSecond);
}

int64_t rounded(Wide time, int64_t parts, Rounding rounding) {
    switch (rounding) {
        case Rounding::Matroska:
            return throughTicks(time, parts, kMatroskaTicks);
        case Rounding::MpegTs:
            return throughTicks(time, parts, kMpegTicks);
        case Rounding::Exact:
            break;
    }
    return divideRounding(time, parts);
}

}  // namespace

ContentTimes::ContentTimes(const ContentPlan& plan, bool withAudio)
    : mPlan(plan),
      mMissing(plan.missing.begin(), plan.missing.end()),
      mDuplicate(plan.duplicate.begin(), plan.duplicate.end()) {
    const Wide frameParts = Wide{plan.rate.seconds} * kSecondUs;
    mFrames = !plan.times.empty()
                  ? static_cast<int64_t>(plan.times.size())
                  : static_cast<int64_t>(
                        (Wide{plan.durationUs} * plan.rate.frames + frameParts - 1) / frameParts);
    if (!plan.splices.empty()) {
        mapSplices(withAudio);
    }
}

/// Passes all of the content through the mapper once, by stored time, as a demuxer does.
void ContentTimes::mapSplices(bool withAudio) {
    TimelineMapper mapper(0);
    std::deque<std::pair<int, int64_t>> held;  ///< track, and frame or stored time
    std::vector<Shift> found[2];
    const auto take = [&] {
        while (const auto shiftUs = mapper.pop()) {
            const auto& [track, from] = held.front();
            auto& shifts = found[track];
            if (shifts.empty() || shifts.back().byUs != *shiftUs) {
                shifts.push_back({from, *shiftUs});
            }
            held.pop_front();
        }
    };
    int64_t packet = 0;
    const auto push = [&](int track, int64_t from, int64_t us, int64_t durationUs) {
        held.emplace_back(track, from);
        mapper.push({track, us, durationUs, us});
        take();
    };
    for (int64_t frame = 0; frame < mFrames; ++frame) {
        const int64_t us = storedUs(frame);
        for (; withAudio && packetStartUs(packet) <= us; ++packet) {
            const int64_t soundUs = packetStartUs(packet);
            push(1, soundUs, deliveredAudioUs(soundUs), packetStartUs(packet + 1) - soundUs);
        }
        push(0, frame, deliveredUs(frame),
             (frame + 1 < mFrames ? storedUs(frame + 1) : endUs()) - us);
    }
    mapper.end();
    take();
    mSplices = mapper.splices();
    mVideoShifts = found[0];
    mAudioShifts = found[1];
}

int64_t ContentTimes::storedUs(int64_t frame) const {
    if (!mPlan.times.empty()) {
        return rounded(mPlan.times[static_cast<size_t>(frame)], 1, mPlan.rounding);
    }
    const Wide parts =
        Wide{mPlan.startUs} * mPlan.rate.frames + Wide{frame} * mPlan.rate.seconds * kSecondUs;
    return rounded(parts, mPlan.rate.frames, mPlan.rounding);
}

int64_t ContentTimes::deliveredUs(int64_t frame) const {
    int64_t source = frame;
    for (const auto& bunch : mPlan.bunches) {
        if (frame >= bunch.atFrame && frame - bunch.atFrame < bunch.frames) {
            source = bunch.atFrame;
        }
    }
    int64_t us = storedUs(source);
    for (const auto* jumps : {&mPlan.jumps, &mPlan.splices}) {
        for (const auto& jump : *jumps) {
            us += frame >= jump.atFrame ? jump.byUs : 0;
        }
    }
    return us + shiftAt(mVideoShifts, frame);
}

int64_t ContentTimes::deliveredAudioUs(int64_t stored) const {
    return stored + jumpedUs(mPlan.jumps, stored) + jumpedUs(mPlan.splices, stored) +
           shiftAt(mAudioShifts, stored);
}

int64_t ContentTimes::jumpedUs(const std::vector<ContentPlan::Jump>& jumps, int64_t stored) const {
    int64_t us = 0;
    for (const auto& jump : jumps) {
        us += jump.atFrame < mFrames && stored >= storedUs(jump.atFrame) ? jump.byUs : 0;
    }
    return us;
}

/// The shift of the last entry at or before a place.
int64_t ContentTimes::shiftAt(const std::vector<Shift>& shifts, int64_t at) {
    const auto after =
        std::upper_bound(shifts.begin(), shifts.end(), at,
                         [](int64_t place, const Shift& s) { return place < s.from; });
    return after == shifts.begin() ? 0 : std::prev(after)->byUs;
}

int64_t ContentTimes::packetStartUs(int64_t packet) const {
    return (mPlan.times.empty() ? mPlan.startUs : 0) +
           divideRounding(Wide{packet} * kPacketSamples * kSecondUs, kSampleRate);
}

int ContentTimes::deliveries(int64_t frame) const {
    if (mMissing.count(frame) != 0) {
        return 0;
    }
    return mDuplicate.count(frame) != 0 ? 2 : 1;
}

int64_t ContentTimes::frameAt(int64_t mediaTimeUs) const {
    int64_t first = 0;
    int64_t last = mFrames;
    while (first < last) {
        const int64_t middle = first + (last - first) / 2;
        if (storedUs(middle) < mediaTimeUs) {
            first = middle + 1;
        } else {
            last = middle;
        }
    }
    return first;
}

int64_t ContentTimes::deliveredAt(int64_t mediaTimeUs) const {
    int64_t frame = frameAt(mediaTimeUs);
    while (frame < mFrames && deliveries(frame) == 0) {
        ++frame;
    }
    return frame;
}

int64_t ContentTimes::endUs() const {
    if (mPlan.times.empty()) {
        return mPlan.startUs + mPlan.durationUs;
    }
    const auto& times = mPlan.times;
    const int64_t step = times.size() > 1 ? times.back() - times[times.size() - 2] : 0;
    return times.back() + std::max<int64_t>(step, 0);
}

int64_t ContentTimes::latestUs() const {
    int64_t latestUs = endUs() + jumpedUs(mPlan.jumps, endUs());
    for (const auto& jump : mPlan.jumps) {
        latestUs = std::max(latestUs, deliveredUs(jump.atFrame) - jump.byUs);
    }
    return latestUs;
}

SyntheticVideo::SyntheticVideo(const ContentPlan& plan, bool withAudio) : mTimes(plan, withAudio) {
    mInfo.path = "synthetic";
    mInfo.container = "synthetic";
    mInfo.videoCodec = "synthetic";
    mInfo.audioCodec = withAudio ? "synthetic sound" : "";
    mInfo.width = 1920;
    mInfo.height = 1080;
    mInfo.frameRateHz = plan.times.empty() ? plan.rate.hz() : 0.0;
    mInfo.durationUs = mTimes.endUs();
    mInfo.hasAudio = withAudio;
}

ReadStatus SyntheticVideo::next() {
    while (mNext < mTimes.frames() && mDelivered >= mTimes.deliveries(mNext)) {
        ++mNext;
        mDelivered = 0;
    }
    if (mNext >= mTimes.frames()) {
        return ReadStatus::End;
    }
    ++mDelivered;
    const int64_t beforeUs = std::exchange(mMediaTimeUs, mTimes.deliveredUs(mNext));
    lookForSplices(std::exchange(mGoesOn, true) ? beforeUs : INT64_MAX);
    return ReadStatus::Ready;
}

/// @param beforeUs  time of the frame before; INT64_MAX: there is none
void SyntheticVideo::lookForSplices(int64_t beforeUs) {
    mFollowsSplice = false;
    size_t passed = 0;
    for (const Splice& splice : mTimes.splices()) {
        if (splice.pictureUs > mMediaTimeUs) {
            break;
        }
        mFollowsSplice = mFollowsSplice || splice.pictureUs > beforeUs;
        if (++passed > mInfo.changes.size()) {
            mInfo.changes.push_back({splice.atUs, describe(splice), true});
        }
    }
}

bool SyntheticVideo::seek(int64_t mediaTimeUs) {
    mNext = mTimes.frameAt(mediaTimeUs);
    mDelivered = 0;
    mGoesOn = false;
    return true;
}

SyntheticAudio::SyntheticAudio(const ContentPlan& plan) : mTimes(plan, true) {}

ReadStatus SyntheticAudio::next(AudioPacket* packet) {
    const int64_t storedUs = mTimes.packetStartUs(mPacket);
    if (storedUs >= mTimes.endUs()) {
        return ReadStatus::End;
    }
    const int64_t endUs = mTimes.packetStartUs(mPacket + 1);
    *packet = {mTimes.deliveredAudioUs(storedUs), endUs - storedUs};
    ++mPacket;
    return ReadStatus::Ready;
}

void SyntheticAudio::seek(int64_t mediaTimeUs) {
    const int64_t samples = divideRounding(
        Wide{std::max<int64_t>(mediaTimeUs - mTimes.packetStartUs(0), 0)} * kSampleRate, kSecondUs);
    mPacket = samples / kPacketSamples;
}

}  // namespace korvane::player
