// SPDX-License-Identifier: Apache-2.0
// Synthetic content from a plan: frames with media times but without pictures, and audio packets.
//
//   time of frame i   is
//   exact             start + i * seconds / frames, or the i-th time of the list
//   stored            the exact time, rounded by the container to 1 us, 1 ms or 1/90000 s
//   delivered         the stored time of the frame, or of the first frame of its bunch, shifted by
//                     the jumps before it
//
// Splices shift times as jumps do; then a TimelineMapper makes them continuous, as it does with a
// transport stream's.
//
// A missing frame is not delivered, a duplicate one twice. Audio comes in packets of 1024 samples
// at 48 kHz from media time `start` to the end of the content, and jumps where video does.
#pragma once

#include <memory>
#include <set>
#include <vector>

#include "player/media/ContentPlan.h"
#include "player/media/FrameSource.h"
#include "player/media/TimelineMapper.h"

namespace korvane::player {

/// The arithmetic of a plan's frames. Pure.
class ContentTimes {
public:
    /// @param withAudio  audio jumps, too, which distinguishes splices from gaps
    explicit ContentTimes(const ContentPlan& plan, bool withAudio = false);

    int64_t frames() const { return mFrames; }
    /// Delivered media time of a frame.
    int64_t deliveredUs(int64_t frame) const;
    /// How often a frame is delivered: 0, 1 or 2.
    int deliveries(int64_t frame) const;
    /// The first frame whose stored time is at or after a media time; `frames()` if there is none.
    int64_t frameAt(int64_t mediaTimeUs) const;
    /// The same of the frames that are delivered.
    int64_t deliveredAt(int64_t mediaTimeUs) const;
    /// Stored time at which the last frame ends.
    int64_t endUs() const;
    /// The latest media time that is reached, jumps included: the end, or the frame before a jump
    /// back.
    int64_t latestUs() const;
    /// Delivered media time of an audio packet that is stored with this one.
    int64_t deliveredAudioUs(int64_t storedUs) const;
    const std::vector<Splice>& splices() const { return mSplices; }
    int64_t packetStartUs(int64_t packet) const;

private:
    /// From a frame or a stored time on.
    struct Shift {
        int64_t from = 0;
        int64_t byUs = 0;
    };
    int64_t storedUs(int64_t frame) const;
    int64_t jumpedUs(const std::vector<ContentPlan::Jump>& jumps, int64_t storedUs) const;
    static int64_t shiftAt(const std::vector<Shift>& shifts, int64_t at);
    void mapSplices(bool withAudio);

    const ContentPlan mPlan;
    const std::set<int64_t> mMissing;
    const std::set<int64_t> mDuplicate;
    int64_t mFrames = 0;
    std::vector<Splice> mSplices;
    std::vector<Shift> mVideoShifts;  ///< what the player adds to frames, and to stored times
    std::vector<Shift> mAudioShifts;
};

class SyntheticVideo final : public FrameSource {
public:
    SyntheticVideo(const ContentPlan& plan, bool withAudio);

    const MediaInfo& info() const override { return mInfo; }
    ReadStatus next() override;
    const AVFrame* picture() const override { return nullptr; }
    int64_t mediaTimeUs() const override { return mMediaTimeUs; }
    bool followsSplice() const override { return mFollowsSplice; }
    bool seek(int64_t mediaTimeUs) override;
    int64_t decodeErrors() const override { return 0; }
    int64_t readUpToUs() const override { return mMediaTimeUs; }

private:
    void lookForSplices(int64_t beforeUs);

    const ContentTimes mTimes;
    MediaInfo mInfo;
    int64_t mNext = 0;   ///< the frame to deliver next
    int mDelivered = 0;  ///< times that it has been delivered
    int64_t mMediaTimeUs = 0;
    bool mFollowsSplice = false;
    bool mGoesOn = false;  ///< from the frame before, and not from a seek
};

class SyntheticAudio final : public PacketSource {
public:
    explicit SyntheticAudio(const ContentPlan& plan);

    ReadStatus next(AudioPacket* packet) override;
    void seek(int64_t mediaTimeUs) override;

private:
    const ContentTimes mTimes;
    int64_t mPacket = 0;
};

}  // namespace korvane::player
