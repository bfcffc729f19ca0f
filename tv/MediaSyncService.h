// SPDX-License-Identifier: Apache-2.0
// The media-sync service: audio/video clocks by instance id.
//
// An instance relates media time to the monotonic clock by an anchor (media time m0 is due at real
// time r0): real(m) = r0 + (m - m0). Who may move the anchor depends on the mode:
//
//   mode 0  nobody leads yet: video's anchors are taken; audio takes the clock when it starts
//   mode 1  audio leads: audio anchors; video's anchors are ignored
//   mode 2  pass-through: the instance decides for each frame; whoever anchors first leads
//
//   state                      real time for media m          track media time
//   no anchor                  -1                             -1
//   running                    r0 + (m - m0)                  the last step that audio reported,
//   or,
//                                                             without audio, the anchor's media
//                                                             time
//   paused at media p          now + (m - p): the soonest     stands still
//                              that it could be
//
// `setPause(true)` freezes the clock where it is; `setPause(false)` goes on from there, from now.
// A renderer that finds the clock paused at its first frame waits until audio releases it.
//
// Audio leads for as long as it plays: a renderer's flush sets mode 0 and an anchor of its own, and
// its first frame pauses the clock. Audio notices at its next step and takes the clock back, as one
// step. In pass-through (mode 2) video that anchored first keeps the clock and audio follows it.
//
// Pass-through decisions (`VideoProcess`, overridable): exit once the instance was told to end;
// hold while the clock is not running or the frame is due more than 100 ms ahead; drop when it is
// more than 40 ms late; else render at its real time. Without any anchor the first frame asked for
// in free-running pass-through anchors the clock.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "include/ThreadAnnotations.h"
#include "platform/MediaSync.h"

namespace korvane::tv {

/// What happened on an instance, for reports and tests.
struct SyncCounters {
    int64_t anchorsTaken = 0;
    int64_t anchorsIgnored = 0;
    int64_t holds = 0;
    int64_t drops = 0;
    int64_t renders = 0;
    int64_t exits = 0;
    int64_t queuedVideoFrames = 0;
};

/// A pass-through decision from values.
using VideoPolicyFunction = std::function<mediasync_video_policy(
    int64_t mediaTimeUs, int64_t lastMediaTimeUs, int64_t nowUs)>;

/// One clock. All operations may be called from any thread; times are microseconds, monotonic.
class SyncInstance {
public:
    explicit SyncInstance(int id);

    int id() const;
    sync_mode mode() const;
    void setMode(sync_mode mode);
    bool paused() const;
    void setPause(bool paused, int64_t nowUs);
    /// Video's anchor; realUs 0 means now.
    void updateAnchorFromVideo(int64_t mediaUs, int64_t realUs, int64_t nowUs);
    /// Audio takes or moves the clock: mode 1 (unless pass-through), anchored here. Ignored in
    /// pass-through that video leads.
    /// @return whether the anchor was taken
    bool anchorFromAudio(int64_t mediaUs, int64_t realUs);
    /// Audio starts or goes on: track time, starting time, anchor, mode 1 and resume as one step,
    /// so that no other client ever sees them half done.
    /// @return false in pass-through that video leads; only track and starting time are then set
    bool takeFromAudio(int64_t mediaUs, int64_t nowUs);
    /// Audio stops for a while (underflow, pause): track time and pause as one step. A pass-through
    /// clock that video leads runs on.
    void pauseFromAudio(int64_t mediaUs, int64_t nowUs);
    /// Audio's next step: its track time, while the clock is still its own.
    /// @return false when the clock was taken away, as a renderer does that pauses at its first
    /// frame
    ///         or sets mode 0 in a flush; nothing is then set
    bool stepFromAudio(int64_t mediaUs);
    /// Audio's reported position.
    void setTrackMediaTime(int64_t mediaUs);
    void setStartingTimeMedia(int64_t mediaUs);

    /// Real time for a media time by the table above; -1 without an anchor.
    int64_t realTimeFor(int64_t mediaUs, int64_t nowUs) const;
    /// Media time at a real time; -1 without an anchor.
    int64_t mediaTimeAt(int64_t realUs) const;
    int64_t trackMediaTime() const;
    int64_t startingTimeMedia() const;
    int64_t updateThresholdUs() const;
    void setUpdateThresholdUs(int64_t thresholdUs);
    void reset();

    mediasync_video_policy videoPolicy(int64_t mediaUs, int64_t lastMediaUs, int64_t nowUs);
    void setVideoPolicy(VideoPolicyFunction policy);
    /// What the instance itself would decide, for policies that differ from it now and then.
    mediasync_video_policy automaticPolicy(int64_t mediaUs, int64_t nowUs);
    /// Pass-through: every later decision is exit.
    void endPassthrough();
    void countQueuedVideoFrame();

    /// Fault: every call of a client returns this status; 0 is none.
    void setStatus(int status);
    int status() const;

    SyncCounters counters() const;
    std::string dump() const;

private:
    struct State;
    std::shared_ptr<State> mState;
};

/// The instances of a TV. Any thread.
class MediaSyncService {
public:
    /// A new instance with an id of its own, 1 or above.
    std::shared_ptr<SyncInstance> create();
    /// @return null for an id that was never created
    std::shared_ptr<SyncInstance> find(int id) const;
    std::vector<std::shared_ptr<SyncInstance>> instances() const;

    /// Fault: creating instances fails.
    void setCreateFails(bool fails);

private:
    mutable std::mutex mLock;
    std::vector<std::shared_ptr<SyncInstance>> mInstances KORVANE_GUARDED_BY(mLock);
    bool mCreateFails KORVANE_GUARDED_BY(mLock) = false;
};

}  // namespace korvane::tv
