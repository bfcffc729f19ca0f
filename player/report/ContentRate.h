// SPDX-License-Identifier: Apache-2.0
// The content's frame rate: what the file says, checked against the frames' media times.
//
//   first 512 frames   mean step between their media times, gaps and repetitions left out;
//                      the file's rate is kept if it agrees within 1 %, else 1 / mean step is taken
//   all frames         the rate varies if more than one step in twenty differs from the mean by
//                      more than rounded timestamps can
//
// Steps are taken inside a section: a flush may jump anywhere.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace korvane::player {

class ContentRate {
public:
    static constexpr size_t kOpeningFrames = 512;

    /// @param nominalHz  the content's rate as its file says; 0: it does not
    explicit ContentRate(double nominalHz) : mHz(nominalHz) {}

    /// Takes the next frame in order.
    void add(int section, int64_t mediaTimeUs);
    /// Decides with the frames there are, for content shorter than the opening.
    void decide();

    bool decided() const { return mDecided; }
    /// Frames a second: once decided, it stays the same.
    double hz() const { return mHz; }
    bool varies() const;

private:
    void compare(int64_t stepUs);

    double mHz;
    bool mDecided = false;
    double mStepUs = 0.0;  ///< the mean; 0: not known
    size_t mFrames = 0;
    int mSection = 0;
    int64_t mLastUs = 0;
    std::vector<int64_t> mOpeningSteps;
    int64_t mSteps = 0;
    int64_t mStepsOff = 0;
};

}  // namespace korvane::player
