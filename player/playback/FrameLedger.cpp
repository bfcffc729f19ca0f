// SPDX-License-Identifier: Apache-2.0
#include "player/playback/FrameLedger.h"

#include <algorithm>

#include "tv/Tv.h"

namespace korvane::player {
namespace {

/// Of several tunnel entries of a frame, the one nearest to the screen decides its outcome.
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

/// The outcome by record and callbacks; Pending when neither has one.
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

/// Whether the library has nothing more to do with the frame.
bool hasLeft(const FrameEntry& frame) {
    return frame.returns > 0 || frame.renderTimeUs >= 0 || frame.stoppedBefore;
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

int64_t FrameLedger::sent(int64_t mediaTimeUs, int section, int buffer, int64_t nowNs, bool late,
                          int64_t waitedNs, bool followsSplice) {
    const std::lock_guard<std::mutex> guard(mLock);
    FrameEntry entry;
    entry.frameNo = mFirst + static_cast<int64_t>(mEntries.size());
    entry.mediaTimeUs = mediaTimeUs;
    entry.section = section;
    entry.buffer = buffer;
    entry.sentNs = nowNs;
    entry.sentLate = late;
    entry.waitedNs = waitedNs;
    entry.followsSplice = followsSplice;
    mFrameByMediaTime[mediaTimeUs] = entry.frameNo;
    mEntries.push_back(entry);
    return entry.frameNo;
}

FrameEntry* FrameLedger::find(int64_t frameNo) {
    const int64_t index = frameNo - mFirst;
    return index >= 0 && index < static_cast<int64_t>(mEntries.size())
               ? &mEntries[static_cast<size_t>(index)]
               : nullptr;
}

void FrameLedger::markLeft(FrameEntry& entry) {
    mLeft += hasLeft(entry) ? 0 : 1;
    mLastEventNs = tv::nowNs();
}

void FrameLedger::returned(const ReturnedBuffer& buffer) {
    const std::lock_guard<std::mutex> guard(mLock);
    FrameEntry* found = find(buffer.frameNo);
    if (found == nullptr) {
        return;  // final long ago; the pool counts a buffer that comes back again
    }
    FrameEntry& entry = *found;
    markLeft(entry);
    // Only the first return tells what happened to the frame.
    if (entry.returns++ == 0) {
        entry.returnedNs = buffer.nowNs;
        entry.returnedAsRendered = buffer.rendered;
        entry.flushedByPlayer = buffer.insideFlush;
        entry.dropReason = buffer.dropReason;
        entry.dropEvidence = buffer.dropEvidence;
        entry.dropLateUs = buffer.dropLateUs;
        mDropped += outcomeOf(entry) == Outcome::Dropped ? 1 : 0;
    }
}

void FrameLedger::beginSection(int section) {
    const std::lock_guard<std::mutex> guard(mLock);
    mSection = section;
    mSectionShows = false;
}

void FrameLedger::renderTime(int64_t mediaTimeUs, int64_t renderTimeUs,
                             std::optional<int64_t> clockRealUs) {
    const std::lock_guard<std::mutex> guard(mLock);
    const auto found = mFrameByMediaTime.find(mediaTimeUs);
    if (found == mFrameByMediaTime.end()) {
        return;
    }
    FrameEntry& entry = *find(found->second);
    markLeft(entry);
    entry.renderTimeUs = renderTimeUs;
    if (entry.section == mSection) {
        entry.clockRealUs = clockRealUs;
        mSectionShows = true;
    }
    mPositionUs = mediaTimeUs;
}

int64_t FrameLedger::frames() const {
    const std::lock_guard<std::mutex> guard(mLock);
    return mFirst + static_cast<int64_t>(mEntries.size());
}

int64_t FrameLedger::inLibrary() const {
    const std::lock_guard<std::mutex> guard(mLock);
    return mFirst + static_cast<int64_t>(mEntries.size()) - mLeft;
}

int64_t FrameLedger::dropped() const {
    const std::lock_guard<std::mutex> guard(mLock);
    return mDropped;
}

std::optional<int64_t> FrameLedger::nextUs() const {
    const std::lock_guard<std::mutex> guard(mLock);
    std::optional<int64_t> nextUs;
    int64_t inLibrary = mFirst + static_cast<int64_t>(mEntries.size()) - mLeft;
    for (auto frame = mEntries.rbegin(); inLibrary > 0 && frame != mEntries.rend(); ++frame) {
        if (!hasLeft(*frame)) {
            nextUs = frame->mediaTimeUs;
            --inLibrary;
        }
    }
    return nextUs;
}

std::optional<int64_t> FrameLedger::clockRealUs(int64_t frameNo) const {
    const std::lock_guard<std::mutex> guard(mLock);
    const auto index = static_cast<size_t>(frameNo - mFirst);
    return frameNo >= mFirst && index < mEntries.size() ? mEntries[index].clockRealUs
                                                        : std::nullopt;
}

int64_t FrameLedger::positionUs() const {
    const std::lock_guard<std::mutex> guard(mLock);
    return mPositionUs;
}

bool FrameLedger::sectionShows() const {
    const std::lock_guard<std::mutex> guard(mLock);
    return mSectionShows;
}

int64_t FrameLedger::mediaTimeUs(int64_t frameNo) {
    const std::lock_guard<std::mutex> guard(mLock);
    const FrameEntry* frame = find(frameNo);
    return frame != nullptr ? frame->mediaTimeUs : -1;
}

int64_t FrameLedger::lastEventNs() const {
    const std::lock_guard<std::mutex> guard(mLock);
    return mLastEventNs;
}

void FrameLedger::addRecords(const std::vector<tv::BufferRecord>& records) {
    const std::lock_guard<std::mutex> guard(mLock);
    for (const auto& record : records) {
        FrameEntry* frame = find(record.frameNo);
        if (frame == nullptr) {
            continue;
        }
        ++frame->tunnelEntries;
        if (!frame->record || nearness(record.fate) > nearness(frame->record->fate)) {
            frame->record = record;
        }
    }
}

/// Whether a later frame has left the library. A flush does not count: it returns what is queued
/// while the library may still hold an earlier frame.
bool FrameLedger::laterHasOutcome(size_t index) const {
    return std::any_of(mEntries.begin() + static_cast<std::ptrdiff_t>(index) + 1, mEntries.end(),
                       [](const FrameEntry& later) {
                           const Outcome outcome = outcomeOf(later);
                           return outcome != Outcome::Pending && outcome != Outcome::Flushed;
                       });
}

void FrameLedger::stopped() {
    const std::lock_guard<std::mutex> guard(mLock);
    bool later = false;
    for (auto frame = mEntries.rbegin(); frame != mEntries.rend(); ++frame) {
        const Outcome outcome = outcomeOf(*frame);
        later = later || (outcome != Outcome::Pending && outcome != Outcome::Flushed);
        if (frame->outcome != Outcome::Pending || outcome != Outcome::Pending) {
            continue;
        }
        // A render time without an entry in the tunnel: the tunnel refused the buffer.
        const bool lost = later || frame->renderTimeUs >= 0;
        frame->outcome = lost ? Outcome::Lost : Outcome::DiscardedByStop;
    }
    for (auto& frame : mEntries) {
        markLeft(frame);
        frame.stoppedBefore = true;
    }
}

bool FrameLedger::isFinal(size_t index, int64_t firstInTunnel) const {
    const FrameEntry& frame = mEntries[index];
    if (frame.frameNo >= firstInTunnel || mEntries.size() <= kWindow) {
        return false;
    }
    return frame.stoppedBefore || outcomeOf(frame) != Outcome::Pending || laterHasOutcome(index);
}

FrameEntry FrameLedger::takeFront() {
    FrameEntry frame = mEntries.front();
    const Outcome known = outcomeOf(frame);
    if (known != Outcome::Pending) {
        frame.outcome = known;
    } else if (frame.outcome == Outcome::Pending) {
        frame.outcome = Outcome::Lost;
        mLeft += frame.renderTimeUs < 0 ? 1 : 0;
    }
    if (frame.outcome != Outcome::Dropped) {
        frame.dropReason = DropReason::None;
        frame.dropEvidence = DropEvidence::None;
        frame.dropLateUs.reset();
    }
    frame.bufferKept = frame.returns == 0 && frame.record && frame.record->takenBackNs != 0;
    const auto byTime = mFrameByMediaTime.find(frame.mediaTimeUs);
    if (byTime != mFrameByMediaTime.end() && byTime->second == frame.frameNo) {
        mFrameByMediaTime.erase(byTime);
    }
    mEntries.pop_front();
    ++mFirst;
    return frame;
}

std::vector<FrameEntry> FrameLedger::takeFinal(int64_t firstInTunnel) {
    const std::lock_guard<std::mutex> guard(mLock);
    std::vector<FrameEntry> frames;
    while (!mEntries.empty() && isFinal(0, firstInTunnel)) {
        frames.push_back(takeFront());
    }
    return frames;
}

std::vector<FrameEntry> FrameLedger::takeRest() {
    const std::lock_guard<std::mutex> guard(mLock);
    std::vector<FrameEntry> frames;
    while (!mEntries.empty()) {
        frames.push_back(takeFront());
    }
    return frames;
}

int64_t FrameLedger::oldestSentNs() const {
    const std::lock_guard<std::mutex> guard(mLock);
    return mEntries.empty() ? INT64_MAX : mEntries.front().sentNs;
}

}  // namespace korvane::player
