// SPDX-License-Identifier: Apache-2.0
// A session's player's account of its buffers and frames: which buffer is free, what was sent, what
// came back how. Any thread may book; afterwards its RunRecord is judged.
//
//   a buffer is free       before it is sent and after its callback
//   a frame is "flushed"   if a flush began while the library had it, or had begun before
#pragma once

#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include "include/ThreadAnnotations.h"
#include "player/explore/RunRecord.h"
#include "tv/UniqueFd.h"

namespace korvane::tv {
struct PictureHeader;
}

namespace korvane::player {

/// Memory files with a picture's header; made once in a process, outside virtual time.
class FeederBuffers {
public:
    explicit FeederBuffers(int count);
    ~FeederBuffers();
    FeederBuffers(const FeederBuffers&) = delete;
    FeederBuffers& operator=(const FeederBuffers&) = delete;

    int fd(int buffer) const { return mFds[static_cast<size_t>(buffer)].get(); }
    void fill(int buffer, int64_t frameNo, int64_t mediaUs);

private:
    std::vector<tv::UniqueFd> mFds;
    std::vector<tv::PictureHeader*> mHeaders;
};

class FrameAccount {
public:
    /// @param record  what is known of the session before it plays
    /// @param reuses  buffers that are free again
    FrameAccount(RunRecord record, FeederBuffers& buffers, int firstBuffer, int count, bool reuses);

    /// A free buffer with a frame of this media time in it; waits for one so long.
    /// @return its descriptor; -1: no buffer is free
    int beginSend(int64_t mediaUs, bool peek, int64_t waitUs) KORVANE_EXCLUDES(mLock);
    void endSend(int fd) KORVANE_EXCLUDES(mLock);
    int64_t lastMediaUs() KORVANE_EXCLUDES(mLock);

    /// Who brought a buffer back, and what it told. Type 0 beside type 2 is only counted.
    enum class By : uint8_t { Beside, Type0, Dropped, Rendered, Player };
    void back(int fd, By by) KORVANE_EXCLUDES(mLock);
    void reported(int64_t mediaUs, int64_t renderUs) KORVANE_EXCLUDES(mLock);

    void beginFlush() KORVANE_EXCLUDES(mLock);
    void endFlush() KORVANE_EXCLUDES(mLock);
    /// This media time is due at that time.
    void anchored(int64_t mediaUs, int64_t realUs) KORVANE_EXCLUDES(mLock);

    void started() KORVANE_EXCLUDES(mLock);
    void beginStop() KORVANE_EXCLUDES(mLock);
    void stopped(bool deleted) KORVANE_EXCLUDES(mLock);
    bool runs() KORVANE_EXCLUDES(mLock);
    /// A callback began.
    void calledBack(bool insideOwnCall) KORVANE_EXCLUDES(mLock);

    /// All frames are back but for the two that the tunnel keeps.
    bool settled(int held) KORVANE_EXCLUDES(mLock);
    /// Frames, in words, that are neither back nor where the TV may keep them. After a `stop`
    /// nothing is missing.
    std::string missing(const std::vector<tv::BufferRecord>& tunnel) KORVANE_EXCLUDES(mLock);

    void note(Fault fault) KORVANE_EXCLUDES(mLock);
    /// Once all threads have ended.
    RunRecord take() KORVANE_EXCLUDES(mLock);

private:
    SentFrame* frameIn(int fd) KORVANE_REQUIRES(mLock);

    FeederBuffers& mBuffers;
    const bool mReuses;
    std::mutex mLock;
    std::condition_variable mFreed;
    RunRecord mRecord KORVANE_GUARDED_BY(mLock);
    std::deque<int> mFree KORVANE_GUARDED_BY(mLock);
    bool mRuns KORVANE_GUARDED_BY(mLock) = false;
    bool mStopped KORVANE_GUARDED_BY(mLock) = false;
    bool mDeleted KORVANE_GUARDED_BY(mLock) = false;
    int mFlushing KORVANE_GUARDED_BY(mLock) = 0;  ///< flushes under way
    int64_t mStopBeganNs KORVANE_GUARDED_BY(mLock) = 0;
    int64_t mAnchorRealUs KORVANE_GUARDED_BY(mLock) = -1;
    int64_t mAnchorMediaUs KORVANE_GUARDED_BY(mLock) = 0;
};

}  // namespace korvane::player
