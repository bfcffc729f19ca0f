// SPDX-License-Identifier: Apache-2.0
#include "player/report/Cadence.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <numeric>
#include <utility>

namespace korvane::player {
namespace {

/// Longest cycle looked for: 24 fps on 50 Hz needs 12 frames (eleven 2s and a 3).
constexpr size_t kMaxCycleFrames = 12;
/// A fraction is near enough when it slips at most once in ten seconds: broadcast rates beside
/// their whole-number relatives do so every 16.7 s.
constexpr double kMaxSlipsPerSecond = 0.1;
/// With more slips than this, nobody would see or name the pattern. 119.88 Hz beside 120 Hz slips
/// every 8.3 s.
constexpr double kMaxSlipsOfPattern = 0.15;
/// A seen ratio is written as the shortest one within a thousandth of it.
constexpr double kRatioPrecision = 10.0;
/// Longest cycle written as a ratio of two dwells.
constexpr int kMaxRatioFrames = 60;
/// A ratio is written if it is off by at most so many frames a second.
constexpr double kRatioTolerance = 0.01;
constexpr double kClearlyBetter = 1.001;
/// A frame lasts a whole number of vsyncs if it is off by less than this.
constexpr double kWholeVsync = 0.15;
/// Slips rarer than one a day are rounding errors of the rates.
constexpr double kNoSlipSeconds = 86'400.0;

/// q dwells that add up to p vsyncs, spread evenly: frame i ends at the vsync nearest to its end.
std::vector<int> evenPattern(int vsyncs, size_t frames) {
    std::vector<int> pattern;
    int before = 0;
    for (size_t i = 1; i <= frames; ++i) {
        const double end =
            static_cast<double>(vsyncs) * static_cast<double>(i) / static_cast<double>(frames);
        const int after = static_cast<int>(std::floor(end + 0.5 + 1e-9));
        pattern.push_back(after - before);
        before = after;
    }
    // The last frame ends exactly on the cycle's last vsync, also when rounding went past it.
    pattern.back() += vsyncs - before;
    return pattern;
}

/// The dwells of frames of these lengths; empty unless each is close to a whole number.
std::vector<int> patternOfCycle(double vsyncsPerFrame, const std::vector<double>& cycle) {
    std::vector<int> pattern;
    for (const double length : cycle) {
        const double vsyncs = vsyncsPerFrame * length;
        pattern.push_back(static_cast<int>(std::lround(vsyncs)));
        if (std::abs(vsyncs - pattern.back()) > kWholeVsync) {
            return {};
        }
    }
    // Of two dwells the longer one is written first.
    if (pattern.size() == 2 && pattern[0] < pattern[1]) {
        std::swap(pattern[0], pattern[1]);
    }
    return pattern;
}

/// "1 and 2 vsyncs, 23:1"
std::string ratioName(int shorter, int64_t frames, int64_t longerFrames) {
    return std::to_string(shorter) + " and " + std::to_string(shorter + 1) + " vsyncs, " +
           std::to_string(frames) + ":" + std::to_string(longerFrames);
}

/// The name of a cadence without a short pattern, from the vsyncs per frame.
std::string ratioName(double vsyncsPerFrame, double contentHz) {
    const int shorter = static_cast<int>(std::floor(vsyncsPerFrame));
    const double longerShare = vsyncsPerFrame - shorter;
    int frames = 1;
    while (frames < kMaxRatioFrames &&
           std::abs(longerShare - std::round(longerShare * frames) / frames) * contentHz >
               kRatioTolerance) {
        ++frames;
    }
    const auto longer = std::lround(longerShare * frames);
    return ratioName(shorter, frames - longer, longer);
}

/// Nineteen of twenty dwells equal the one a cycle earlier.
bool repeatsEvery(size_t frames, const std::vector<int>& dwells) {
    size_t repeats = 0;
    for (size_t i = 0; i + frames < dwells.size(); ++i) {
        repeats += dwells[i] == dwells[i + frames] ? 1 : 0;
    }
    return repeats * 20 >= (dwells.size() - frames) * 19;
}

/// Of the cycles of so many frames among the first dwells, the one that fits the most dwells: a
/// cycle with a break in it does not win.
std::vector<int> commonestCycle(size_t frames, const std::vector<int>& dwells) {
    std::vector<int> best;
    size_t bestCount = 0;
    const size_t starts = std::min(dwells.size() - frames, 4 * kMaxCycleFrames);
    for (size_t start = 0; start <= starts; ++start) {
        std::vector<int> cycle(frames);
        for (size_t i = 0; i < frames; ++i) {
            cycle[(start + i) % frames] = dwells[start + i];
        }
        size_t count = 0;
        for (size_t i = 0; i < dwells.size(); ++i) {
            count += dwells[i] == cycle[i % frames] ? 1 : 0;
        }
        if (count > bestCount) {
            best = cycle;
            bestCount = count;
        }
    }
    // Of two dwells the longer one is written first.
    if (best.size() == 2 && best[0] < best[1]) {
        std::swap(best[0], best[1]);
    }
    return best;
}

}  // namespace

std::string patternName(const std::vector<int>& pattern) {
    if (pattern.empty()) {
        return "";
    }
    std::string text = "[" + std::to_string(pattern.front());
    for (size_t i = 1; i < pattern.size(); ++i) {
        text += ":" + std::to_string(pattern[i]);
    }
    return pattern.size() == 1 ? text + ":" + std::to_string(pattern.front()) + "]" : text + "]";
}

std::string ExpectedCadence::name() const {
    const bool shortPattern = std::abs(slipPerFrame) * contentHz <= kMaxSlipsOfPattern;
    return pattern.empty() || shortPattern ? patternName(pattern)
                                           : ratioName(displayHz / contentHz, contentHz);
}

double ExpectedCadence::secondsPerSlip() const {
    const double perSecond = std::abs(slipPerFrame) * contentHz;
    return perSecond * kNoSlipSeconds > 1.0 ? 1.0 / perSecond : 0.0;
}

ExpectedCadence expectedCadence(double contentHz, double displayHz,
                                const std::vector<double>& cycle) {
    ExpectedCadence best{contentHz, displayHz, {}, 0.0};
    if (!(contentHz > 0.0) || !(displayHz > 0.0)) {
        return best;
    }
    const double vsyncsPerFrame = displayHz / contentHz;
    if (const auto pattern = patternOfCycle(vsyncsPerFrame, cycle); !pattern.empty()) {
        const int vsyncs = std::accumulate(pattern.begin(), pattern.end(), 0);
        const double slip = vsyncsPerFrame - vsyncs / static_cast<double>(pattern.size());
        if (std::abs(slip) * contentHz <= kMaxSlipsOfPattern) {
            return {contentHz, displayHz, pattern, slip};
        }
    }
    for (size_t frames = 1; frames <= kMaxCycleFrames; ++frames) {
        const double cycleVsyncs = vsyncsPerFrame * static_cast<double>(frames);
        const int vsyncs = static_cast<int>(std::lround(cycleVsyncs));
        if (std::gcd(vsyncs, static_cast<int>(frames)) > 1) {
            continue;  // a shorter cycle, written several times over
        }
        const double slip = (cycleVsyncs - vsyncs) / static_cast<double>(frames);
        // Of two that fit equally well the shorter one counts.
        if (best.pattern.empty() || std::abs(slip) * kClearlyBetter < std::abs(best.slipPerFrame)) {
            best.pattern = evenPattern(vsyncs, frames);
            best.slipPerFrame = slip;
        }
        if (std::abs(best.slipPerFrame) * contentHz <= kMaxSlipsPerSecond) {
            break;
        }
    }
    return best;
}

std::vector<int> seenPattern(const std::vector<int>& dwells) {
    for (size_t frames = 1; frames <= kMaxCycleFrames; ++frames) {
        if (dwells.size() < frames + kSteadyRunFrames) {
            break;
        }
        if (repeatsEvery(frames, dwells)) {
            return commonestCycle(frames, dwells);
        }
    }
    return {};
}

std::string seenPatternName(const std::vector<int>& dwells) {
    const auto pattern = seenPattern(dwells);
    if (!pattern.empty() || dwells.size() < 2 * kSteadyRunFrames) {
        return patternName(pattern);
    }
    std::map<int, int64_t> frames;
    for (const int dwell : dwells) {
        ++frames[dwell];
    }
    for (const auto& [dwell, count] : frames) {
        const auto longer = frames.find(dwell + 1);
        if (longer == frames.end() ||
            (count + longer->second) * 20 < static_cast<int64_t>(dwells.size()) * 19) {
            continue;
        }
        const double share =
            static_cast<double>(longer->second) / static_cast<double>(count + longer->second);
        const bool rare =
            std::min(count, longer->second) * 2 * kMaxRatioFrames < count + longer->second;
        return rare ? patternName({share < 0.5 ? dwell : dwell + 1})
                    : ratioName(dwell + share, kRatioPrecision);
    }
    return "";
}

bool samePattern(const std::vector<int>& left, const std::vector<int>& right) {
    if (left.size() != right.size() || left.empty()) {
        return false;
    }
    std::vector<int> rotated = left;
    for (size_t i = 0; i < left.size(); ++i) {
        if (rotated == right) {
            return true;
        }
        std::rotate(rotated.begin(), rotated.begin() + 1, rotated.end());
    }
    return false;
}

}  // namespace korvane::player
