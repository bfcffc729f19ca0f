// SPDX-License-Identifier: Apache-2.0
// The ledger: every frame sent to the library, counted once into a closed set of outcomes.
//
//   shown             on screen, by the TV's record
//   superseded        in the tunnel, but a newer one was due at the same vsync
//   dropped           returned by the library without being shown, with a reason
//   flushed           returned by the player's own call of flush
//   refused           returned at show time because of a flush or stop, without being shown
//   discarded_by_stop still in the library's input queue at stop: no callback, as designed
//   in_tunnel_at_stop still waiting in the tunnel at stop
//   lost              none of the above: the library took the frame and nothing more is known
//
// What was shown comes only from the TV's record, which reads the frame numbers out of the
// pictures; the library's callbacks say only which buffers came back. Frames leave the library in
// the order in which they were sent. So a frame of which nothing is known is lost, and not
// discarded by stop, as soon as a later one has an outcome.
//
// The player's thread and the library's callbacks fill the ledger. While playback runs, the tunnel
// passes on its finished records, and `takeFinal` takes frames out, in the order of their numbers,
// once so many later ones follow that nothing can change their outcome. So the ledger holds a few
// hundred frames however long playback lasts.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "include/ThreadAnnotations.h"
#include "player/playback/DropReason.h"
#include "tv/Tunnel.h"

namespace korvane::player {

enum class Outcome {
    Pending,
    Shown,
    Superseded,
    Dropped,
    Flushed,
    Refused,
    DiscardedByStop,
    InTunnelAtStop,
    Lost
};
constexpr int kOutcomes = static_cast<int>(Outcome::Lost) + 1;
const char* toString(Outcome outcome);

/// One frame sent. Times are monotonic; unset ones are 0, or -1 where the member says so.
struct FrameEntry {
    int64_t frameNo = 0;
    int64_t mediaTimeUs = 0;
    int section = 0;  ///< 0 until the first flush, then counting flushes
    int buffer = -1;
    int64_t sentNs = 0;
    bool sentLate = false;  ///< sent too late for its vsync (see isTooLate)
    int64_t waitedNs = 0;   ///< how long the player had waited for a free buffer
    bool followsSplice = false;

    int returns = 0;  ///< times that its buffer came back by callback
    int64_t returnedNs = 0;
    bool returnedAsRendered = false;
    bool flushedByPlayer = false;
    DropReason dropReason = DropReason::None;
    DropEvidence dropEvidence = DropEvidence::None;
    /// How far it was behind the clock when the library returned it without showing it; negative:
    /// early; empty: the library did not do that, or the clock was not running.
    std::optional<int64_t> dropLateUs;

    int64_t renderTimeUs = -1;  ///< from the render-time callback
    /// The clock's real time for this frame when its render time came; empty: clock not running.
    std::optional<int64_t> clockRealUs;

    /// When the sound of its media time was heard, or would have been; empty: it came on screen
    /// while nothing was heard, or not at all. Set with the outcome, as `heardForUs`.
    std::optional<int64_t> heardRealUs;
    int64_t heardForUs = 0;  ///< of its time on screen, how long something was heard

    Outcome outcome = Outcome::Pending;
    int tunnelEntries = 0;  ///< how often it was queued into the tunnel
    std::optional<tv::BufferRecord> record;
    /// The library stopped before anything was known of the frame.
    bool stoppedBefore = false;
    /// The library took its buffer out of the tunnel and did not return it.
    bool bufferKept = false;

    /// It had a render time but came to no entry: the tunnel did not take it.
    bool refusedByTunnel() const {
        return outcome == Outcome::Lost && renderTimeUs >= 0 && !record;
    }
};

/// How a buffer came back.
struct ReturnedBuffer {
    int64_t frameNo = 0;
    int64_t nowNs = 0;
    bool rendered = false;
    bool insideFlush = false;
    DropReason dropReason = DropReason::None;
    DropEvidence dropEvidence = DropEvidence::None;
    std::optional<int64_t> dropLateUs;
};

class FrameLedger {
public:
    /// @return the new frame's number, counting from 0
    int64_t sent(int64_t mediaTimeUs, int section, int buffer, int64_t nowNs, bool late,
                 int64_t waitedNs = 0, bool followsSplice = false);
    void returned(const ReturnedBuffer& buffer);
    /// A flush moves the clock: the clock's times no longer apply to frames of earlier sections.
    void beginSection(int section);
    /// Render-time callback: it is for the last frame sent with this media time.
    void renderTime(int64_t mediaTimeUs, int64_t renderTimeUs, std::optional<int64_t> clockRealUs);

    int64_t frames() const;
    /// -1 for a frame that is no longer in the ledger.
    int64_t mediaTimeUs(int64_t frameNo);
    /// The clock's real time for a frame when its render time came; empty: it has not come, or the
    /// clock was not running.
    std::optional<int64_t> clockRealUs(int64_t frameNo) const;
    /// Frames that have neither come back nor reached their render time.
    int64_t inLibrary() const;
    /// Frames that the library returned without showing them, outside the player's flushes.
    int64_t dropped() const;
    /// Media time of the oldest frame in the library; empty: there is none.
    std::optional<int64_t> nextUs() const;
    /// Media time of the frame whose render time came last; -1 before the first.
    int64_t positionUs() const;
    /// Whether a frame of the present section has reached its render time.
    bool sectionShows() const;
    /// When the library last returned a buffer or told a render time; 0: not yet.
    int64_t lastEventNs() const;

    /// Adds the tunnel's records, in any order. Ignores pictures whose frame is not in the ledger.
    void addRecords(const std::vector<tv::BufferRecord>& records);
    /// The library has stopped, and every record has been added: frames without an outcome are
    /// discarded or lost.
    void stopped();
    /// Takes out the frames, from the oldest on, whose outcome is final.
    /// @param firstInTunnel  the first frame that the tunnel has not finished with; INT64_MAX: none
    std::vector<FrameEntry> takeFinal(int64_t firstInTunnel);
    /// Takes out all that is left. Call after `stopped`.
    std::vector<FrameEntry> takeRest();
    /// When the oldest frame in the ledger was sent; INT64_MAX: there is none.
    int64_t oldestSentNs() const;

    /// Frames that stay in the ledger at least: more than twice the buffers of any player, because
    /// a flush returns all of them.
    static constexpr size_t kWindow = 256;

private:
    void markLeft(FrameEntry& entry) KORVANE_REQUIRES(mLock);
    FrameEntry* find(int64_t frameNo) KORVANE_REQUIRES(mLock);
    bool laterHasOutcome(size_t index) const KORVANE_REQUIRES(mLock);
    bool isFinal(size_t index, int64_t firstInTunnel) const KORVANE_REQUIRES(mLock);
    FrameEntry takeFront() KORVANE_REQUIRES(mLock);

    mutable std::mutex mLock;
    std::deque<FrameEntry> mEntries KORVANE_GUARDED_BY(mLock);
    int64_t mFirst KORVANE_GUARDED_BY(mLock) = 0;  ///< number of the first entry
    std::map<int64_t, int64_t> mFrameByMediaTime KORVANE_GUARDED_BY(mLock);
    int mSection KORVANE_GUARDED_BY(mLock) = 0;
    int64_t mLeft KORVANE_GUARDED_BY(mLock) = 0;  ///< of all frames ever
    int64_t mDropped KORVANE_GUARDED_BY(mLock) = 0;
    bool mSectionShows KORVANE_GUARDED_BY(mLock) = false;
    int64_t mPositionUs KORVANE_GUARDED_BY(mLock) = -1;
    int64_t mLastEventNs KORVANE_GUARDED_BY(mLock) = 0;
};

}  // namespace korvane::player
