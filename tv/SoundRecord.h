// SPDX-License-Identifier: Apache-2.0
// What was audible when: stretches of real time in which sound came out without a break, each with
// the media time at its beginning and its speed. Between them is silence.
//
// The audio model writes it. It is the truth: the position that audio reports, and the clock made
// from it, may be wrong. The last `kStretches` are kept, so that a record of any length takes
// little memory: at ten seeks a second, those of the last hundred seconds.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>

namespace korvane::tv {

/// Times are microseconds. Not thread-safe; a copy is a snapshot.
class SoundRecord {
public:
    static constexpr size_t kStretches = 1024;

    struct Stretch {
        int64_t fromRealUs;
        int64_t toRealUs;  ///< INT64_MAX: it goes on
        int64_t fromMediaUs;
        double speed;

        bool covers(int64_t realUs) const { return realUs >= fromRealUs && realUs < toRealUs; }
        int64_t mediaAt(int64_t realUs) const;
        int64_t realAt(int64_t mediaUs) const;
    };
    /// By time.
    const std::deque<Stretch>& stretches() const { return mStretches; }

    /// From `realUs` on a media time and what follows it is audible, in media seconds per second.
    /// No new stretch begins where the sound only goes on as it was.
    void begin(int64_t realUs, int64_t mediaUs, double speed);
    /// Nothing is audible from `realUs` on. Does nothing in silence.
    void end(int64_t realUs);

    /// The media time audible at a real time; empty: silence.
    std::optional<int64_t> mediaAt(int64_t realUs) const;
    /// For a viewer who sees the picture of a media time at `seenUs`: when its sound is audible.
    /// Best within the sound that is audible at `seenUs`; else within another stretch at most
    /// `kNearUs` away from `seenUs`, the nearest; else when it would be if the sound at `seenUs`
    /// extended without end both ways. Empty: silence at `seenUs`.
    std::optional<int64_t> realTimeOf(int64_t mediaUs, int64_t seenUs) const;
    /// For how long something was audible within a span of real time.
    int64_t audibleUs(int64_t fromRealUs, int64_t toRealUs) const;

    /// Beyond this, a viewer no longer takes sound and picture for the same moment.
    static constexpr int64_t kNearUs = 500'000;

private:
    const Stretch* at(int64_t realUs) const;

    std::deque<Stretch> mStretches;  ///< by time
};

}  // namespace korvane::tv
