// SPDX-License-Identifier: Apache-2.0
// The media-sync service: audio/video clocks by instance id.
//
// An instance relates media time to the monotonic clock by an anchor (media time m0 is due at real
// time r0): real(m) = r0 + (m - m0). Who may move the anchor depends on the mode:
//
//   mode 0  nobody leads yet: video's anchors are taken; audio takes the clock when it starts
//   mode 1  audio leads: audio's anchors are taken; video's are ignored
//   mode 2  pass-through: the instance decides for each frame; whoever anchors first leads
//
//   state              real time for media m                 track media time
//   no anchor          -1                                    -1
//   running            r0 + (m - m0)                         audio's last step; without audio m0
//   paused at media p  now + (m - p), the earliest possible  stands still
//
// `setPause(true)` freezes the clock; `setPause(false)` lets it run from there. A renderer that
// finds the clock paused at its first frame waits until audio resumes it.
//
// Audio leads while it plays. A renderer's flush sets mode 0 and an anchor of its own, and its
// first frame pauses the clock; audio notices at its next step and takes the clock back. In
// pass-through that video leads, video keeps the clock and audio follows it.
//
// Pass-through decisions (`VideoProcess`, overridable): exit after `endPassthrough`; hold while the
// clock is not running or the frame is due more than 100 ms ahead; drop when it is more than 40 ms
// late; else render at its real time. If nobody has anchored yet, the first frame anchors the
// running clock.
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

/// A replacement for the pass-through decision.
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
    /// Audio's anchor. Mode 0 becomes 1. Ignored in pass-through that video leads.
    /// @return whether the anchor was taken
    bool anchorFromAudio(int64_t mediaUs, int64_t realUs);
    /// Audio starts or continues: sets track time, starting time, anchor and mode 1 and resumes, in
    /// one step for all other clients.
    /// @return false in pass-through that video leads; then only track and starting time are set
    bool takeFromAudio(int64_t mediaUs, int64_t nowUs);
    /// Audio stops (underflow, pause): sets track time and pauses in one step. A pass-through clock
    /// that video leads runs on.
    void pauseFromAudio(int64_t mediaUs, int64_t nowUs);
    /// Audio's next step: sets its track time if audio still has the clock.
    /// @return false, and nothing is set, if the clock was taken away: a renderer paused it at its
    ///         first frame or set mode 0 in a flush
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
    /// The instance's own decision, for policies that only sometimes differ from it.
    mediasync_video_policy automaticPolicy(int64_t mediaUs, int64_t nowUs);
    /// Makes every later pass-through decision exit.
    void endPassthrough();
    void countQueuedVideoFrame();

    /// Fault: every client call returns this status; 0 switches the fault off.
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
    /// @return null for an unknown id
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
