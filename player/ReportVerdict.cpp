// SPDX-License-Identifier: Apache-2.0
#include "player/ReportVerdict.h"

#include <algorithm>

#include "player/Units.h"

namespace korvane::player {
namespace {

/// What went wrong with the accounts, or empty.
std::string faults(const PlaybackRecord& record, const Summary& summary) {
    std::string text;
    if (summary.count(Outcome::Lost) > 0) {
        text += counted(summary.count(Outcome::Lost), "frame") + " without an account; ";
    }
    if (record.buffersKept > 0) {
        text += counted(record.buffersKept, "buffer") + " never came back; ";
    }
    if (record.pool.unknownReturned > 0) {
        text += counted(record.pool.unknownReturned, "buffer") + " came back that was not ours; ";
    }
    if (record.overwrittenOnScreen > 0) {
        text += counted(record.overwrittenOnScreen, "picture") + " overwritten on screen; ";
    }
    return text.empty() ? text : text.substr(0, text.size() - 2);
}

std::string patternVerdict(const Summary& summary) {
    if (summary.variableRate || summary.expected.pattern.empty()) {
        return "Played; the content's rate varies, so there is no pattern to keep";
    }
    const SectionReport& longest = *std::max_element(
        summary.sections.begin(), summary.sections.end(),
        [](const auto& left, const auto& right) { return left.dwells < right.dwells; });
    const std::string name = longest.expected.name();
    if (longest.dwells < kSteadyRunFrames) {
        return "Played; too short to tell a pattern";
    }
    if (!longest.cadence.held) {
        return longest.seen.empty()
                   ? "Uneven: " + name + " never held"
                   : "Uneven: " + longest.seen + " seen where " + name + " was due";
    }
    const std::string held = name + " held " + seconds(longest.heldAfterUs, 2) +
                             (longest.afterAudio ? " after audio start" : " after the first frame");
    if (summary.unexpected == 0) {
        return "Even: " + held + " and stayed";
    }
    const bool explained = summary.explained == summary.unexpected;
    return "Uneven: " + held + ", then " + counted(summary.unexpected, "unexpected dwell") +
           (explained ? ", with a cause" : "") + " (listed below)";
}

std::string verdictOf(const PlaybackRecord& record, const Summary& summary) {
    const std::string wrong = faults(record, summary);
    std::string text;
    if (summary.sections.empty()) {
        text = "Nothing was shown";
    } else {
        text = patternVerdict(summary);
    }
    if (record.end == EndCause::Stalled) {
        text = "Stalled: nothing moved any more, so playback was stopped. " + text;
    }
    const int64_t unshown = summary.count(Outcome::Dropped) + summary.count(Outcome::Superseded);
    if (unshown > 0) {
        text += ", " + counted(unshown, "frame") + " not shown";
    }
    return wrong.empty() ? text + "; every frame accounted for, every buffer back."
                         : "FAULT: " + wrong + ". " + text + ".";
}

}  // namespace

void Runs::add(int64_t frameNo) {
    mCurrent = frameNo == mLast + 1 ? mCurrent + 1 : 1;
    runs += mCurrent == 1 ? 1 : 0;
    longest = std::max(longest, mCurrent);
    mLast = frameNo;
    ++frames;
}

void giveVerdict(const PlaybackRecord& record, Summary* summary) {
    int64_t sum = 0;
    for (const int64_t count : summary->outcomes) {
        sum += count;
    }
    summary->sumHolds = sum == summary->framesIn && summary->count(Outcome::Pending) == 0;
    summary->framesAccounted = summary->sumHolds && summary->count(Outcome::Lost) == 0;
    summary->buffersBack = record.buffersKept == 0 && record.pool.unknownReturned == 0;
    summary->verdict = verdictOf(record, *summary);
}

}  // namespace korvane::player
