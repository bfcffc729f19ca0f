// The ledger: every frame handed to the library, counted once into a closed set of outcomes.
//
//   shown             the TV's record has it on screen
//   superseded        in the tunnel, but a newer one was due at the same vsync
//   dropped           handed back unshown by the library, with a reason
//   flushed           handed back by the player's own call of flush
//   refused           handed back at show time, because of a flush or stop, without being shown
//   discarded_by_stop still in the library's input queue at stop: no callback, as designed
//   in_tunnel_at_stop still waiting in the tunnel at stop
//   lost              none of the above: a frame that the library took and never gave an account of
//
// What was shown comes from the TV's record alone, which reads the frame numbers out of the
// pictures; the library's callbacks say only which buffers came back. Frames leave the library in
// the order in which they came, so a frame without an account is lost, and not discarded by stop,
// as soon as one that was handed in later has an account.
//
// Filled during playback by the player's thread and the library's callbacks (any thread); `settle`
// is called once, after stop.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "player/DropReason.h"
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

/// One frame handed in. Times are nanoseconds on the monotonic clock, 0 or -1 while unset as said.
struct FrameEntry {
    int64_t frameNo = 0;
    int64_t mediaTimeUs = 0;
    int section = 0;  ///< 0 until the first flush, then counting flushes
    int buffer = -1;
    int64_t sentNs = 0;
    bool sentLate = false;  ///< handed in too late to be shown on time

    int returns = 0;  ///< times that its buffer came back by callback
    int64_t returnedNs = 0;
    bool returnedAsRendered = false;
    bool flushedByPlayer = false;
    DropReason dropReason = DropReason::None;
    DropEvidence dropEvidence = DropEvidence::None;

    int64_t renderTimeUs = -1;  ///< from the render-time callback
    /// The clock's real time for this frame when its render time came; empty: clock not running.
    std::optional<int64_t> clockRealUs;

    Outcome outcome = Outcome::Pending;
    int tunnelEntries = 0;  ///< how often it was queued into the tunnel
    std::optional<tv::BufferRecord> record;
    /// Its buffer did not come back: the library kept it after taking it out of the tunnel.
    bool bufferKept = false;
};

/// How a buffer came back.
struct ReturnedBuffer {
    int64_t frameNo = 0;
    int64_t nowNs = 0;
    bool rendered = false;
    bool insideFlush = false;
    DropReason dropReason = DropReason::None;
    DropEvidence dropEvidence = DropEvidence::None;
};

class FrameLedger {
public:
    /// @return the new frame's number, counting from 0
    int64_t sent(int64_t mediaTimeUs, int section, int buffer, int64_t nowNs, bool late);
    void returned(const ReturnedBuffer& buffer);
    /// Render-time callback, told by media time: the last frame handed in with it.
    void renderTime(int64_t mediaTimeUs, int64_t renderTimeUs, std::optional<int64_t> clockRealUs);

    int64_t frames() const;
    int64_t mediaTimeUs(int64_t frameNo) const;
    /// Frames that neither came back nor reached their render time.
    int64_t unsettled() const;
    /// Media time of the frame whose render time came last; -1 before the first.
    int64_t positionUs() const;
    /// When the library last gave a sign of life; 0 before the first.
    int64_t lastEventNs() const;

    /// Gives every frame its outcome from the TV's record. Call after stop.
    std::vector<FrameEntry> settle(const std::vector<tv::BufferRecord>& record) const;

private:
    void markSettled(FrameEntry& entry);

    mutable std::mutex mLock;
    std::vector<FrameEntry> mEntries;
    std::map<int64_t, int64_t> mFrameByMediaTime;
    int64_t mSettled = 0;
    int64_t mPositionUs = -1;
    int64_t mLastEventNs = 0;
};

/// Frames per outcome, indexed by Outcome.
std::vector<int64_t> countOutcomes(const std::vector<FrameEntry>& frames);

}  // namespace korvane::player
