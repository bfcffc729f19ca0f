// SPDX-License-Identifier: Apache-2.0
#include "player/report/EventLogReader.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <istream>

#include "player/base/Errors.h"
#include "player/base/FrameRate.h"
#include "player/base/Text.h"
#include "player/report/EventLine.h"
#include "player/report/EventLog.h"

namespace korvane::player {
namespace {

/// Frames come roughly in the order of their numbers: a number further ahead is damage.
constexpr size_t kFurthestAhead = 4096;
/// Longer than any line that a log has.
constexpr size_t kLongestLine = 65'536;
constexpr size_t kShownOfLine = 60;

DropReason dropReasonOf(const std::string& text) {
    for (int i = 0; i <= static_cast<int>(DropReason::Unknown); ++i) {
        const auto reason = static_cast<DropReason>(i);
        if (text == std::string("reason=") + toString(reason)) {
            return reason;
        }
    }
    return DropReason::Unknown;
}

std::optional<int64_t> lipSyncOf(const std::string& text) {
    constexpr std::string_view kName = "lip_sync_us=";
    return text.compare(0, kName.size(), kName) == 0
               ? std::optional(std::strtoll(text.c_str() + kName.size(), nullptr, 10))
               : std::nullopt;
}

/// Numbers that a playback can have: a century of microseconds, and what an int holds.
bool plausible(const Event& event) {
    constexpr int64_t kMostUs = 3'200'000'000'000'000;
    const auto within = [](int64_t number, int64_t most) {
        return number >= -most && number <= most;
    };
    const int64_t most = event.kind == EventKind::Replaced ? INT32_MAX : kMostUs;
    return within(event.timeNs / 1000, kMostUs) && within(event.first, most) &&
           within(event.second, event.kind == EventKind::Sent ? INT32_MAX : kMostUs) &&
           within(lipSyncOf(event.text).value_or(0), kMostUs);
}

Outcome outcomeOf(const Event& event) {
    switch (event.kind) {
        case EventKind::Shown:
            return Outcome::Shown;
        case EventKind::Superseded:
            return Outcome::Superseded;
        case EventKind::Dropped:
            return Outcome::Dropped;
        case EventKind::Flushed:
            return Outcome::Flushed;
        case EventKind::Refused:
            return Outcome::Refused;
        case EventKind::Discarded:
            return event.text == "in_tunnel" ? Outcome::InTunnelAtStop : Outcome::DiscardedByStop;
        default:
            return Outcome::Lost;
    }
}

void addTo(LoggedFrame* frame, const Event& event, int section) {
    switch (event.kind) {
        case EventKind::Sent:
            frame->sentNs = event.timeNs;
            frame->mediaTimeUs = event.first;
            frame->buffer = static_cast<int>(event.second);
            frame->sentLate = event.text == "late";
            frame->section = section;
            return;
        case EventKind::Queued:
            frame->queued = true;
            frame->queuedNs = event.timeNs;
            frame->presentUs = event.first;
            frame->atOnce = event.text == "at_once";
            return;
        case EventKind::Replaced:
            frame->releasedNs = event.timeNs;
            frame->dwellVsyncs = event.first;
            return;
        case EventKind::Returned:
            frame->returned = true;
            frame->returnedNs = event.timeNs;
            frame->rendered = event.first == 1;
            return;
        case EventKind::Shown:
            frame->shownNs = event.timeNs;
            frame->vsync = event.first;
            frame->offsetUs = event.second;
            frame->lipSyncUs = lipSyncOf(event.text);
            break;
        case EventKind::Dropped:
            frame->dropReason = dropReasonOf(event.text);
            break;
        default:
            break;
    }
    frame->outcome = outcomeOf(event);
    if (frame->outcome == Outcome::Superseded || frame->outcome == Outcome::InTunnelAtStop) {
        frame->releasedNs = event.timeNs;
    }
}

class Reader {
public:
    explicit Reader(std::string name) : mName(std::move(name)) {}

    void take(const std::string& line) {
        ++mLine;
        const auto event = parseLine(line);
        if (!event || !plausible(*event)) {
            refuse(line);
        }
        mLastNs = std::max(mLastNs, event->timeNs);
        if (event->frameNo < 0) {
            takeAction(*event);
            return;
        }
        const auto number = static_cast<size_t>(event->frameNo);
        auto& frames = mPlayback.frames;
        if (number >= frames.size() + kFurthestAhead) {
            refuse(line);
        }
        frames.resize(std::max(frames.size(), number + 1));
        LoggedFrame& frame = frames[number];
        addTo(&frame, *event, mSection);
        const bool wasInTunnel = frame.outcome == Outcome::Shown ||
                                 frame.outcome == Outcome::Superseded ||
                                 frame.outcome == Outcome::InTunnelAtStop;
        if (wasInTunnel && !frame.queued) {
            refuse(line);
        }
    }

    /// A last line without its line feed may lack more.
    void takeUnfinished(const std::string& line) {
        if (mLine == 0) {
            take(line);
        }
        mStopped = false;
    }

    LoggedPlayback finish() {
        const auto& frames = mPlayback.frames;
        const bool whole =
            mStarted && mStopped && std::all_of(frames.begin(), frames.end(), [](const auto& f) {
                return f.sentNs != -1 && f.outcome != Outcome::Pending &&
                       (f.outcome != Outcome::Shown || f.releasedNs != 0);
            });
        if (mLine == 0 || !whole) {
            throw InputError(fmt::format(
                "'{}' breaks off {}: that playback was killed or its disk was full; play it again",
                printable(mName),
                mLine == 0 ? "before its first event"
                           : fmt::format("after {} lines, at {:.3f} s, before its end", mLine,
                                         static_cast<double>(mLastNs) * 1e-9)));
        }
        return std::move(mPlayback);
    }

private:
    void takeAction(const Event& event) {
        const bool newSection = event.kind == EventKind::Flush || event.kind == EventKind::Seek ||
                                event.kind == EventKind::Restart;
        mSection += newSection ? 1 : 0;
        mStarted = mStarted || event.kind == EventKind::Start;
        mStopped = event.kind == EventKind::Stop || (mStopped && !newSection);
        mPlayback.actions.push_back(event);
    }

    [[noreturn]] void refuse(const std::string& line) const {
        throw InputError(fmt::format(
            "'{}' line {} is no event that this version writes: '{}'; give a file of --events",
            printable(mName), mLine, printable(line.substr(0, kShownOfLine))));
    }

    const std::string mName;
    LoggedPlayback mPlayback;
    int64_t mLine = 0;
    int64_t mLastNs = 0;
    int mSection = 0;
    bool mStarted = false;
    bool mStopped = false;
};

}  // namespace

double LoggedPlayback::displayHz() const {
    std::vector<double> periods;
    const LoggedFrame* before = nullptr;
    for (const auto& frame : frames) {
        if (frame.outcome != Outcome::Shown) {
            continue;
        }
        if (before != nullptr && frame.vsync > before->vsync) {
            periods.push_back(static_cast<double>(frame.shownNs - before->shownNs) /
                              static_cast<double>(frame.vsync - before->vsync));
        }
        before = &frame;
    }
    if (periods.empty()) {
        return 0.0;
    }
    const auto middle = periods.begin() + static_cast<std::ptrdiff_t>(periods.size() / 2);
    std::nth_element(periods.begin(), middle, periods.end());
    if (*middle <= 0.0) {
        return 0.0;
    }
    // The log's times are whole nanoseconds; a display's drift is more than a rate's rounding.
    constexpr double kRounding = 1e-6;
    const double hz = 1e9 / *middle;
    const double nominal = nominalRate(hz).hz();
    return nominal == 0.0 || std::abs(hz / nominal - 1.0) < kRounding ? nominal : hz;
}

LoggedPlayback readEventLog(std::istream& in, const std::string& name) {
    Reader reader(name);
    EventHash hash;
    int64_t bytes = 0;
    std::string buffer(kLongestLine, '\0');
    while (in.getline(buffer.data(), static_cast<std::streamsize>(buffer.size())) ||
           in.gcount() > 0) {
        const bool ended = in.good();
        const auto length = static_cast<size_t>(in.gcount()) - (ended ? 1 : 0);
        const std::string line = buffer.substr(0, length);
        if (!ended) {
            reader.takeUnfinished(line);
            break;
        }
        reader.take(line);
        hash.add(line);
        hash.add("\n");
        bytes += in.gcount();
    }
    LoggedPlayback playback = reader.finish();
    playback.bytes = bytes;
    playback.hash = hash.text();
    return playback;
}

FrameEntry entryOf(const LoggedPlayback& playback, size_t frameNo) {
    const LoggedFrame& logged = playback.frames[frameNo];
    FrameEntry frame;
    frame.frameNo = static_cast<int64_t>(frameNo);
    frame.mediaTimeUs = logged.mediaTimeUs;
    frame.section = logged.section;
    frame.buffer = logged.buffer;
    frame.sentNs = logged.sentNs;
    frame.sentLate = logged.sentLate;
    frame.returns = logged.returned ? 1 : 0;
    frame.returnedNs = logged.returnedNs;
    frame.returnedAsRendered = logged.rendered;
    frame.dropReason = logged.dropReason;
    frame.outcome = logged.outcome;
    if (!logged.queued) {
        return frame;
    }
    tv::BufferRecord& record = frame.record.emplace();
    record.frameNo = frame.frameNo;
    record.mediaTimeUs = logged.mediaTimeUs;
    record.presentationTimeUs = logged.presentUs;
    record.atOnce = logged.atOnce;
    record.queuedNs = logged.queuedNs;
    record.releasedNs = logged.releasedNs;
    if (logged.outcome == Outcome::Shown) {
        record.firstVsync = {logged.vsync, logged.shownNs};
        record.dwellVsyncs = logged.dwellVsyncs;
        frame.renderTimeUs = logged.presentUs;
        frame.clockRealUs = logged.shownNs / 1000 - logged.offsetUs;
        if (logged.lipSyncUs) {
            frame.heardRealUs = logged.shownNs / 1000 - *logged.lipSyncUs;
            frame.heardForUs = (logged.releasedNs - logged.shownNs) / 1000;
        }
    }
    return frame;
}

}  // namespace korvane::player
