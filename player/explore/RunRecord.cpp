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
/// `stop` ends each wait at once. What it cannot end: a poll, and a fence of a display that works.
constexpr int64_t kStopBoundNs = 50'000'000;
/// ... and of one that does not.
constexpr int64_t kFenceBoundNs = 1'050'000'000;
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
        const bool leftBehind = meetsFlush(frame) && mRecord.keeps;
        if (queued.takenBackNs > 0 && frame.returns == 1 && frame.dropped && !leftBehind) {
            add("a frame comes back as dropped that went to the tunnel");
        }
        if (queued.atOnce || frame.peek || mRecord.losesBuffers() || !mRecord.decides) {
            return;
        }
        const auto decision =
            decideFrame(queued.presentationTimeUs, queued.queuedNs / 1000, mRecord.periodNs);
        const auto detail = [&] {
            return fmt::format("frame {}, {} us before it is due; threads were away for {} us",
                               queued.frameNo, decision.earlyUs, mRecord.awayNs / 1000);
        };
        if (decision.verdict == FrameVerdict::WaitThenShow && mRecord.knowsPeriod) {
            add(frame.flushed ? kEarlyAfterFlush : "a frame is queued before its time", detail());
        }
        if (decision.earlyUs < -kLateLimitUs - mRecord.awayNs / 1000) {
            add("a frame is queued that should be dropped as late", detail());
        }
    }

    void judgeFrame(size_t i) {
        const SentFrame& frame = mRecord.frames[i];
        if (frame.returns > 1) {
            const bool meant = frame.returns == 2 && meetsFlush(frame) && mTwice < mRecord.flushes;
            mTwice += meant ? 1 : 0;
            add(meant ? kBackTwiceAfterFlush : "a buffer comes back twice", this->frame(i));
        }
        if (mRecord.bothTypes && frame.returns0 != frame.returns - frame.taken) {
            add("a buffer comes back by one of the two callbacks only", this->frame(i));
        }
        if (frame.reports > 1) {
            add("a render time is reported twice", this->frame(i));
        }
        const bool dropped = frame.returns == 1 && frame.dropped && !frame.flushed;
        const int64_t earlyUs = frame.dueUs - frame.backNs / 1000;
        if (dropped && mRecord.knowsPeriod && frame.dueUs >= 0 &&
            earlyUs > kMovedUs - kLateLimitUs) {
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
            if (taken.takenBackNs > 0 && inside < kFewestInTunnel && !mRecord.losesBuffers() &&
                !mRecord.fetches) {
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
        bool later = false;
        for (size_t i = mRecord.oneSender && !mRecord.losesBuffers() ? gone.size() : 0; i > 0;
             --i) {
            if (later && !gone[i - 1]) {
                add("a frame is lost: later ones came further", frame(i - 1));
                return;
            }
            later = later || (gone[i - 1] && !mRecord.frames[i - 1].afterStop);
        }
    }

    void judgeStop() {
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
    int mTwice = 0;  ///< frames that came back twice, meant so
};

}  // namespace

bool waitsForAudio(const Session& session) {
    return session.withAudio || session.unknownSync;
}

RunRecord recordOf(const Program& program, const Session& session, int64_t firstFrame) {
    RunRecord record;
    record.firstFrame = firstFrame;
    record.withAudio = waitsForAudio(session) || does(program, {Act::CreateFails});
    record.decides = !session.passthrough;
    record.refuses = refusesBuffers(program);
    record.keeps = keepsBuffers(program);
    record.marksPeek = does(session, {Act::PeekFirst});
    record.bothTypes = session.return0 && session.return2;
    record.fetches = does(session, {Act::TakeReleased});
    record.knowsPeriod =
        !does(program, {Act::Mode}) && !hasFault(program, [](const TvFaults& faults) {
            return faults.reportFails || faults.reportedPeriodNs || faults.tunnel.vsyncQueryFails;
        });
    record.periodNs = static_cast<int32_t>(1e9 / program.tv.display.rateHz);
    record.oneSender =
        !does(session, {Act::SendNext}) &&
        std::count_if(session.threads.begin(), session.threads.end(), [](const Steps& steps) {
            return does(steps, {Act::Send, Act::SendPeek});
        }) == 1;
    // Callbacks that run at that time: on both workers and on each thread that calls the renderer.
    // One that flushes gets back all frames.
    const bool flushes =
        does(session.onReturn, {Act::Flush}) || does(session.onRenderTime, {Act::Flush});
    const auto callers = static_cast<int64_t>(session.threads.size()) + 2;
    const int64_t callbacks = 2 * (callers + (flushes ? program.buffers : 0));
    record.stopBoundNs = kStopBoundNs + callbacks * session.callbackTakesUs * 1000 +
                         (record.keeps ? kFenceBoundNs : 0);
    return record;
}

std::vector<Fault> faultsOf(const RunRecord& record) {
    return Judge(record).all();
}

void judgeTv(const Program& program, tv::Tv& tv, int neverRan, std::vector<Fault>* faults) {
    const tv::Tunnel& tunnel = tv.tunnel();
    const bool works = program.faults.empty() && !does(program, {Act::PowerOff});
    if (works && (tunnel.idsNotFreed() > neverRan || tv.display().openRemotes() != 0)) {
        faults->push_back(
            {"the renderer is gone, and left its tunnel id or its display adapter", ""});
    }
    if (!does(program, {Act::PowerOff}) &&
        tunnel.connectedTunnels() + tunnel.allocatedIds() + tunnel.openDevices() > 0) {
        faults->push_back(
            {"the renderer is gone, and the tunnel is still connected, or has an id or "
             "an open device",
             tunnel.dump()});
    }
}

const char* deliberateReason(const Fault& fault) {
    const auto* const found =
        std::find_if(std::begin(kDeliberate), std::end(kDeliberate),
                     [&](const Deliberate& deliberate) { return fault.what == deliberate.what; });
    return found != std::end(kDeliberate) ? found->reason : nullptr;
}

}  // namespace korvane::player
