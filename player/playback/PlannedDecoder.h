// SPDX-License-Identifier: Apache-2.0
// The source's pictures as the plan's decoder delivers them: one at a time, each ready some time
// after it was asked for, until the source ends or breaks off. A seek begins anew. Player's thread.
#pragma once

#include <cstdint>

#include "player/media/FrameSource.h"
#include "player/playback/PlaybackPlan.h"
#include "player/playback/PlaybackRecord.h"

namespace korvane::player {

class PlannedDecoder {
public:
    /// All must outlive the decoder.
    /// @param record  receives how the source ended, and seeks without effect
    PlannedDecoder(const PlaybackPlan& plan, FrameSource& source, PlaybackRecord* record)
        : mPlan(plan), mSource(source), mRecord(*record) {}

    /// Decodes the next picture.
    /// @return false at the end of the source
    bool decode();
    /// The picture has been sent.
    void sent() { mHavePicture = false; }
    /// Nothing more is wanted of the source.
    void end() { mEnded = true; }
    /// Goes to a media time and decodes the picture there.
    void seek(int64_t toUs);

    bool havePicture() const { return mHavePicture; }
    /// When the picture decoded last is ready.
    int64_t readyNs() const { return mReadyNs; }
    bool ended() const { return mEnded; }
    /// Tells of that picture, too.
    const FrameSource& source() const { return mSource; }
    /// A frame's time.
    int64_t frameUs() const;
    /// Media time at which the source, or the plan's limit, ends; -1: unknown. Splices change it.
    int64_t endUs() const;

private:
    const PlaybackPlan& mPlan;
    FrameSource& mSource;
    PlaybackRecord& mRecord;
    bool mHavePicture = false;  ///< decoded and not yet sent
    int64_t mReadyNs = 0;
    bool mEnded = false;
};

}  // namespace korvane::player
