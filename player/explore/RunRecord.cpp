// SPDX-License-Identifier: Apache-2.0
#include "player/explore/RunRecord.h"

#include <fmt/format.h>

#include <algorithm>

#include "renderer/FrameDecision.h"

namespace korvane::player {
namespace {

/// The tunnel client dequeues a buffer only while it has so many inside.
constexpr int kFewestInTunnel = 3;
/// The cadence tracker may move a frame by this much.
constexpr int64_t kMovedUs = 17'000;
constexpr const char* kBackTwiceAfterFlush =
    "a buffer comes back twice: a flush met its frame in the wait for audio's start";
constexpr const char* kEarlyAfterFlush =
    "a frame is queued before its time: a new frame ended the flush first";

struct Deliberate {
    const char* what;
    const char* reason;
};

/// Behaviour that is meant. What is found of it is counted and printed as a sum.
constexpr Deliberate kDeliberate[] = {
    {kBackTwiceAfterFlush,
     "a frame that the wait for audio drops because of a flush goes on nevertheless"},
    {kEarlyAfterFlush,
     "the next sendVideoFrame ends a flush, whether the drain thread has noticed it or not"},
};

class Judge {
public:
    explicit Judge(const RunRecord& record) : mRecord(record), mFaults(record.noted) {}

    std::vector<Fault> all() {
        for (const auto& queued : mRecord.tunnel) {
            judgeQueued(queued);
        }
        for (size_t i = 0; i < mRecord.frames.size(); ++i) {
            judgeFrame(i);
        }
        judgeTaken();
        judgeOrder();
        judgeStop();
        return std::move(mFaults);
    }

private:
    void add(const char* what, std::string detail = "") {
        mFaults.push_back({what, std::move(detail)});
    }
    std::string frame(size_t i) const {
        return fmt::format("frame {} of {} us", i, mRecord.frames[i].mediaUs);
    }
    bool isOurs(const tv::BufferRecord& queued) const {
        const int64_t index = queued.frameNo - mRecord.firstFrame;
        return index >= 0 && index < static_cast<int64_t>(mRecord.frames.size());
    }
    const SentFrame& sent(const tv::BufferRecord& queued) const {
        return mRecord.frames[static_cast<size_t>(queued.frameNo - mRecord.firstFrame)];
    }
    bool meetsFlush(const SentFrame& frame) const { return mRecord.withAudio && frame.flushed; }

    /// A buffer that the player has back may hold a later frame by now: then the tunnel's record
    /// names that one.
    void judgeQueued(const tv::BufferRecord& queued) {
        if (!isOurs(queued)) {
            add("the tunnel gets a buffer that holds no frame of the player");
            return;
        }
        const SentFrame& frame = sent(queued);
        if (frame.backNs >= 0 && queued.queuedNs > frame.backNs && !meetsFlush(frame)) {
            add("the tunnel gets a frame that has been returned already");
        }
        if (queued.atOnce && !frame.peek && !mRecord.marksPeek && mRecord.decides) {
            add("a frame that is no peek frame is shown at once");
        }
        if (queued.takenBackNs > 0 && frame.returns == 1 && !frame.rendered) {
            add("a frame comes back as dropped that went to the tunnel");
        }
        if (queued.atOnce || frame.peek || mRecord.loseBuffers || !mRecord.decides) {
            return;
        }
        const auto decision =
            decideFrame(queued.presentationTimeUs, queued.queuedNs / 1000, mRecord.periodNs);
        const auto detail = [&] {
            return fmt::format("frame {}, {} us before it is due; threads were away for {} us",
                               queued.frameNo, decision.earlyUs, mRecord.awayNs / 1000);
        };
        if (decision.verdict == FrameVerdict::WaitThenShow) {
            add(frame.flushed ? kEarlyAfterFlush : "a frame is queued before its time", detail());
        }
        if (decision.earlyUs < -kLateLimitUs - mRecord.awayNs / 1000) {
            add("a frame is queued that should be dropped as late", detail());
        }
    }

    void judgeFrame(size_t i) {
        const SentFrame& frame = mRecord.frames[i];
        if (frame.returns > 1) {
            add(meetsFlush(frame) ? kBackTwiceAfterFlush : "a buffer comes back twice",
                this->frame(i));
        }
        if (frame.reports > 1) {
            add("a render time is reported twice", this->frame(i));
        }
        const bool dropped = frame.returns == 1 && !frame.rendered && !frame.flushed;
        const int64_t earlyUs = frame.dueUs - frame.backNs / 1000;
        if (dropped && frame.dueUs >= 0 && earlyUs > kMovedUs - kLateLimitUs) {
            add("a frame is dropped although it is in time",
                fmt::format("{}, {} us before it is due", this->frame(i), earlyUs));
        }
    }

    /// Of what is queued and taken at the same time, what is queued counts as earlier.
    void judgeTaken() {
        for (const auto& taken : mRecord.tunnel) {
            const auto inside = std::count_if(
                mRecord.tunnel.begin(), mRecord.tunnel.end(), [&](const tv::BufferRecord& other) {
                    return other.queuedNs <= taken.takenBackNs &&
                           (other.takenBackNs == 0 || other.takenBackNs >= taken.takenBackNs);
                });
            if (taken.takenBackNs > 0 && inside < kFewestInTunnel && !mRecord.loseBuffers) {
                add("a buffer is taken out of the tunnel that should keep the last two");
            }
        }
    }

    void judgeOrder() {
        int64_t lastSerial = -1;
        std::vector<bool> gone(mRecord.frames.size());
        for (const auto& queued : mRecord.tunnel) {
            if (!isOurs(queued)) {
                continue;
            }
            gone[static_cast<size_t>(queued.frameNo - mRecord.firstFrame)] = true;
            if (mRecord.oneSender && queued.frameNo < lastSerial && !meetsFlush(sent(queued))) {
                add("the tunnel gets frames in another order than they were sent");
            }
            lastSerial = queued.frameNo;
        }
        for (size_t i = 0; i < gone.size(); ++i) {
            const SentFrame& sent = mRecord.frames[i];
            if (!gone[i] && sent.returns > 0 && sent.rendered && !sent.flushed &&
                sent.backNs < mRecord.stopBeganNs) {
                add("a frame comes back as shown that never went to the tunnel", frame(i));
            }
            gone[i] = gone[i] || sent.returns > 0;
        }
        const auto last = std::find(gone.rbegin(), gone.rend(), true);
        const auto lost = std::find(last, gone.rend(), false);
        if (mRecord.oneSender && !mRecord.loseBuffers && lost != gone.rend()) {
            add("a frame is lost: later ones came further",
                frame(static_cast<size_t>(gone.rend() - lost) - 1));
        }
    }

    void judgeStop() {
        if (mRecord.expectSettled && !mRecord.settled) {
            add("frames do not come to their end");
        }
        if (mRecord.stopTookNs > mRecord.stopBoundNs + mRecord.awayNs) {
            add("stop takes longer than its bound",
                fmt::format("{:.1f} ms, bound {:.1f} ms",
                            static_cast<double>(mRecord.stopTookNs) / 1e6,
                            static_cast<double>(mRecord.stopBoundNs + mRecord.awayNs) / 1e6));
        }
        if (mRecord.lateCallbacks > 0) {
            add("a callback comes after stop has returned");
        }
        if (mRecord.unknownBuffers > 0) {
            add("a buffer comes back that the library does not have");
        }
        if (mRecord.brokenReports > 0) {
            add("a render time is reported too early, out of order or of no frame");
        }
    }

    const RunRecord& mRecord;
    std::vector<Fault> mFaults;
};

}  // namespace

std::vector<Fault> faultsOf(const RunRecord& record) {
    return Judge(record).all();
}

const char* deliberateReason(const Fault& fault) {
    const auto* const found =
        std::find_if(std::begin(kDeliberate), std::end(kDeliberate),
                     [&](const Deliberate& deliberate) { return fault.what == deliberate.what; });
    return found != std::end(kDeliberate) ? found->reason : nullptr;
}

}  // namespace korvane::player
