#include "player/FrameLedger.h"

#include "tv/Tv.h"

namespace korvane::player {
namespace {

/// Of several tunnel entries of one frame, the one nearest to the screen tells its outcome.
int nearness(tv::BufferFate fate) {
    switch (fate) {
        case tv::BufferFate::Shown:
        case tv::BufferFate::OnScreen:
            return 3;
        case tv::BufferFate::Superseded:
            return 2;
        case tv::BufferFate::Waiting:
        case tv::BufferFate::DiscardedByDisconnect:
            break;
    }
    return 1;
}

void addRecords(std::vector<FrameEntry>& frames, const std::vector<tv::BufferRecord>& record) {
    for (const auto& entry : record) {
        if (entry.frameNo < 0 || entry.frameNo >= static_cast<int64_t>(frames.size())) {
            continue;
        }
        FrameEntry& frame = frames[static_cast<size_t>(entry.frameNo)];
        ++frame.tunnelEntries;
        if (!frame.record || nearness(entry.fate) > nearness(frame.record->fate)) {
            frame.record = entry;
        }
    }
}

Outcome outcomeInTunnel(tv::BufferFate fate) {
    switch (nearness(fate)) {
        case 3:
            return Outcome::Shown;
        case 2:
            return Outcome::Superseded;
        default:
            return Outcome::InTunnelAtStop;
    }
}

/// The outcome as far as record and callbacks tell it; Pending when neither does.
Outcome outcomeOf(const FrameEntry& frame) {
    if (frame.record) {
        return outcomeInTunnel(frame.record->fate);
    }
    if (frame.returns == 0) {
        return Outcome::Pending;
    }
    if (frame.flushedByPlayer) {
        return Outcome::Flushed;
    }
    return frame.returnedAsRendered ? Outcome::Refused : Outcome::Dropped;
}

}  // namespace

const char* toString(Outcome outcome) {
    switch (outcome) {
        case Outcome::Pending:
            return "pending";
        case Outcome::Shown:
            return "shown";
        case Outcome::Superseded:
            return "superseded";
        case Outcome::Dropped:
            return "dropped";
        case Outcome::Flushed:
            return "flushed";
        case Outcome::Refused:
            return "refused";
        case Outcome::DiscardedByStop:
            return "discarded_by_stop";
        case Outcome::InTunnelAtStop:
            return "in_tunnel_at_stop";
        case Outcome::Lost:
            break;
    }
    return "lost";
}

int64_t FrameLedger::sent(int64_t mediaTimeUs, int section, int buffer, int64_t nowNs, bool late) {
    const std::lock_guard<std::mutex> guard(mLock);
    FrameEntry entry;
    entry.frameNo = static_cast<int64_t>(mEntries.size());
    entry.mediaTimeUs = mediaTimeUs;
    entry.section = section;
    entry.buffer = buffer;
    entry.sentNs = nowNs;
    entry.sentLate = late;
    mFrameByMediaTime[mediaTimeUs] = entry.frameNo;
    mEntries.push_back(entry);
    return entry.frameNo;
}

void FrameLedger::markSettled(FrameEntry& entry) {
    if (entry.returns == 0 && entry.renderTimeUs < 0) {
        ++mSettled;
    }
    mLastEventNs = tv::nowNs();
}

void FrameLedger::returned(const ReturnedBuffer& buffer) {
    const std::lock_guard<std::mutex> guard(mLock);
    FrameEntry& entry = mEntries.at(static_cast<size_t>(buffer.frameNo));
    markSettled(entry);
    // The first return tells what happened to the frame; a second one only that it came again.
    if (entry.returns++ == 0) {
        entry.returnedNs = buffer.nowNs;
        entry.returnedAsRendered = buffer.rendered;
        entry.flushedByPlayer = buffer.insideFlush;
        entry.dropReason = buffer.dropReason;
        entry.dropEvidence = buffer.dropEvidence;
    }
}

void FrameLedger::renderTime(int64_t mediaTimeUs, int64_t renderTimeUs,
                             std::optional<int64_t> clockRealUs) {
    const std::lock_guard<std::mutex> guard(mLock);
    const auto found = mFrameByMediaTime.find(mediaTimeUs);
    if (found == mFrameByMediaTime.end()) {
        return;
    }
    FrameEntry& entry = mEntries[static_cast<size_t>(found->second)];
    markSettled(entry);
    entry.renderTimeUs = renderTimeUs;
    entry.clockRealUs = clockRealUs;
    mPositionUs = mediaTimeUs;
}

int64_t FrameLedger::frames() const {
    const std::lock_guard<std::mutex> guard(mLock);
    return static_cast<int64_t>(mEntries.size());
}

int64_t FrameLedger::unsettled() const {
    const std::lock_guard<std::mutex> guard(mLock);
    return static_cast<int64_t>(mEntries.size()) - mSettled;
}

int64_t FrameLedger::positionUs() const {
    const std::lock_guard<std::mutex> guard(mLock);
    return mPositionUs;
}

int64_t FrameLedger::mediaTimeUs(int64_t frameNo) const {
    const std::lock_guard<std::mutex> guard(mLock);
    return mEntries.at(static_cast<size_t>(frameNo)).mediaTimeUs;
}

int64_t FrameLedger::lastEventNs() const {
    const std::lock_guard<std::mutex> guard(mLock);
    return mLastEventNs;
}

std::vector<FrameEntry> FrameLedger::settle(const std::vector<tv::BufferRecord>& record) const {
    std::vector<FrameEntry> frames;
    {
        const std::lock_guard<std::mutex> guard(mLock);
        frames = mEntries;
    }
    addRecords(frames, record);
    bool laterHasAccount = false;
    for (auto frame = frames.rbegin(); frame != frames.rend(); ++frame) {
        frame->outcome = outcomeOf(*frame);
        if (frame->outcome == Outcome::Pending) {
            // A render time without an entry in the tunnel: the tunnel refused the buffer.
            const bool lost = laterHasAccount || frame->renderTimeUs >= 0;
            frame->outcome = lost ? Outcome::Lost : Outcome::DiscardedByStop;
            continue;
        }
        // A flush hands back what is queued while an earlier frame may still be held by the
        // library, so a frame that was flushed says nothing about the ones before it.
        laterHasAccount = laterHasAccount || frame->outcome != Outcome::Flushed;
        if (frame->outcome != Outcome::Dropped && frame->dropReason != DropReason::None) {
            frame->dropReason = DropReason::None;
            frame->dropEvidence = DropEvidence::None;
        }
        frame->bufferKept = frame->returns == 0 && frame->record && frame->record->takenBackNs != 0;
    }
    return frames;
}

std::vector<int64_t> countOutcomes(const std::vector<FrameEntry>& frames) {
    std::vector<int64_t> counts(kOutcomes, 0);
    for (const auto& frame : frames) {
        ++counts[static_cast<size_t>(frame.outcome)];
    }
    return counts;
}

}  // namespace korvane::player
