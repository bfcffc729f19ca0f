// SPDX-License-Identifier: Apache-2.0
#include "player/explore/Listing.h"

#include <fmt/format.h>

#include <algorithm>
#include <set>

#include "player/explore/Message.h"
#include "tv/clock/VirtualTime.h"
#include "tv/explore/Exploration.h"

namespace korvane::player {
namespace {

constexpr size_t kStepsAtEnd = 24;
constexpr size_t kStepsBefore = 3;
constexpr size_t kStepsAfter = 2;

const char* wordFor(tv::Step step) {
    switch (step) {
        case tv::Step::Read:
            return "reads";
        case tv::Step::Write:
            return "writes";
        case tv::Step::AtomicLoad:
            return "loads";
        case tv::Step::AtomicStore:
            return "stores";
        case tv::Step::AtomicChange:
            return "changes";
        case tv::Step::Lock:
            return "locks";
        case tv::Step::Unlock:
            return "unlocks";
        case tv::Step::Wait:
            return "waits";
        case tv::Step::Notify:
            return "notifies";
        case tv::Step::Thread:
            return "thread";
    }
    return "";
}

}  // namespace

bool ListedReplay::begin() {
    const bool begun = tv::Replay::begin();
    mAskFrom = 0;
    return begun;
}

void ListedReplay::name(int32_t thread) {
    std::string& name = mNames[thread];
    if (name.empty()) {
        // "VideoTunnelRenderer::drainVideoFrameThread (library+0x1234)"
        name = tv::VirtualTime::threadName(thread);
        name = name.substr(0, name.find_first_of("( "));
        name = name.substr(name.rfind(':') + 1);
    }
}

tv::Preemption ListedReplay::decidePoint(const tv::SchedulePoint& point,
                                         const tv::ThreadList& runnable) {
    const tv::Preemption preemption = tv::Replay::decidePoint(point, runnable);
    mAskFrom = 0;
    const bool preempts = preemption.awayNs != tv::Preemption::kStay;
    if (mListing && (preempts || ofTheLibrary(point.code))) {
        name(point.thread);
        mNoted.push_back({point, preemption});
    }
    return preemption;
}

size_t ListedReplay::decideChoice(const tv::ScheduleChoice& choice) {
    const size_t chosen = tv::Replay::decideChoice(choice);
    mAskFrom = 0;
    return chosen;
}

std::string ListedReplay::text() const {
    std::set<size_t> shown;
    for (size_t i = 0; i < mNoted.size(); ++i) {
        if (mNoted[i].preemption.awayNs != tv::Preemption::kStay) {
            for (size_t j = i - std::min(i, kStepsBefore);
                 j <= i + kStepsAfter && j < mNoted.size(); ++j) {
                shown.insert(j);
            }
        }
        if (i + kStepsAtEnd >= mNoted.size()) {
            shown.insert(i);
        }
    }
    std::map<const void*, std::string> places;
    for (const size_t i : shown) {
        places[mNoted[i].point.code];
    }
    std::vector<const void*> codes;
    codes.reserve(places.size());
    for (const auto& place : places) {
        codes.push_back(place.first);
    }
    const auto found = tv::Exploration::places(codes);
    for (size_t i = 0; i < codes.size(); ++i) {
        places[codes[i]] = found[i];
    }
    std::string text;
    size_t expected = 0;
    for (const size_t i : shown) {
        const Noted& noted = mNoted[i];
        if (i != expected) {
            text += fmt::format("      ... {} steps\n", i - expected);
        }
        expected = i + 1;
        text += fmt::format("  {:>2} {:<22} {:<9} {}\n", noted.point.thread,
                            mNames.at(noted.point.thread), wordFor(noted.point.step),
                            places[noted.point.code]);
        if (noted.preemption.awayNs != tv::Preemption::kStay) {
            const std::string away =
                noted.preemption.awayNs > 0
                    ? fmt::format(" and is away for {:.3f} ms",
                                  static_cast<double>(noted.preemption.awayNs) / 1e6)
                    : "";
            const std::string next = noted.preemption.next > 0
                                         ? fmt::format("; thread {} goes on", noted.preemption.next)
                                         : "";
            text += fmt::format(">>>> thread {} loses the processor{}{}\n", noted.point.thread,
                                away, next);
        }
    }
    return text;
}

}  // namespace korvane::player
