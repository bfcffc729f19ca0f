// SPDX-License-Identifier: Apache-2.0
// The content's frame rate, span by span: what the file says, checked against the frames' media
// times.
//
//   a span's opening   its first 512 frames at most; the mean step between their media times, gaps
//                      and repetitions left out. The file's rate is kept if it agrees within 1 %,
//                      else 1 / mean step is taken, or the broadcast rate that it must mean
//   a change           the mean of the next 24 steps, and of each half of them, differs from the
//                      span's in the same direction by more than 2 % and more than the jitter
//                      of the steps explains: a new span begins
//
// So a single gap, jitter, rounded timestamps and soft telecine leave the rate as it is; 24, 30 and
// 60 frames a second in one file are three spans. Steps are taken inside a section: a flush may
// jump anywhere.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <vector>

namespace korvane::player {

/// Frames of one rate.
struct ContentSpan {
    double hz = 0.0;
    /// Where the lengths of frames follow a cycle (soft telecine: 3 and 2 fields), the length of
    /// each frame of one cycle, in units of the mean; else empty.
    std::vector<double> cycle;
};

/// A frame's place in the content.
struct FramePace {
    int span = 0;  ///< counts changes of the rate
    double hz = 0.0;
};

class ContentRate {
public:
    static constexpr size_t kOpeningFrames = 512;
    static constexpr size_t kLookAheadSteps = 24;

    /// @param nominalHz  the content's rate as its file says; 0: it does not
    explicit ContentRate(double nominalHz) : mNominalHz(nominalHz), mContent{nominalHz, {}} {}

    /// Takes the next frame in order.
    void add(int section, int64_t mediaTimeUs) { mFrames.push_back({section, mediaTimeUs}); }
    /// No frame follows.
    void end() { mEnded = true; }
    /// The next frame in order whose rate is known; nothing while more frames are needed.
    std::optional<FramePace> take();
    /// Of the frame taken last.
    const ContentSpan& span() const { return mContent; }

private:
    struct Frame {
        int section;
        int64_t mediaTimeUs;
    };
    bool beginSpan();
    bool changesAt(size_t frame) const;
    void learnStep(size_t frames);
    void learnCycle(size_t frames);
    bool canLookAhead() const;
    std::vector<int64_t> steps(size_t from, size_t count) const;

    const double mNominalHz;
    ContentSpan mContent;
    double mStepUs = 0.0;  ///< the span's mean; 0: not known
    size_t mMeanOf = 1;    ///< steps that it is the mean of
    int mSpan = -1;
    bool mEnded = false;
    std::deque<Frame> mFrames;  ///< not yet taken
    size_t mInOpening = 0;      ///< of these, how many belong to the span's opening
};

}  // namespace korvane::player
