#include "player/Cadence.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <utility>

namespace korvane::player {
namespace {

/// Longest cycle looked for: 24 fps on 50 Hz needs 12 frames (eleven 2s and a 3).
constexpr size_t kMaxCycleFrames = 12;
/// A fraction is near enough when it slips at most once in ten seconds: broadcast rates beside
/// their whole-number relatives do so every 16.7 s.
constexpr double kMaxSlipsPerSecond = 0.1;
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

/// Where in the pattern each dwell lies, with the fewest breaks: the cheapest way through a table
/// of dwells by phases, where a dwell that does not fit costs one and so does a change of phase.
std::vector<size_t> cheapestPhases(const std::vector<int>& dwells,
                                   const std::vector<int>& pattern) {
    const size_t phases = pattern.size();
    std::vector<int> cost(phases, 0);
    std::vector<uint8_t> cameFrom(dwells.size() * phases);
    for (size_t i = 0; i < dwells.size(); ++i) {
        const auto cheapest = std::min_element(cost.begin(), cost.end());
        std::vector<int> next(phases);
        for (size_t phase = 0; phase < phases; ++phase) {
            const size_t before = (phase + phases - 1) % phases;
            const bool jump = i > 0 && *cheapest + 1 < cost[before];
            const size_t from = jump ? static_cast<size_t>(cheapest - cost.begin()) : before;
            cameFrom[i * phases + phase] = static_cast<uint8_t>(from);
            next[phase] =
                (i == 0 ? 0 : cost[from] + (jump ? 1 : 0)) + (dwells[i] == pattern[phase] ? 0 : 1);
        }
        cost = next;
    }
    std::vector<size_t> way(dwells.size());
    size_t phase = static_cast<size_t>(std::min_element(cost.begin(), cost.end()) - cost.begin());
    for (size_t i = dwells.size(); i-- > 0;) {
        way[i] = phase;
        phase = cameFrom[i * phases + phase];
    }
    return way;
}

/// Every break along a way, from the second dwell on; the first has nothing before it.
std::vector<DwellBreak> breaksAlong(const std::vector<int>& dwells, const std::vector<int>& pattern,
                                    const std::vector<size_t>& way) {
    std::vector<DwellBreak> breaks;
    for (size_t i = 0; i < dwells.size(); ++i) {
        const size_t inStep = i == 0 ? way[0] : (way[i - 1] + 1) % pattern.size();
        if (way[i] != inStep || dwells[i] != pattern[way[i]]) {
            breaks.push_back({i, dwells[i], pattern[inStep], false});
        }
    }
    return breaks;
}

/// Start of the first run of frames without a break that is long enough.
bool findSteadyRun(size_t dwellCount, const std::vector<DwellBreak>& breaks, size_t* start) {
    size_t runStart = 0;
    for (size_t k = 0; k <= breaks.size(); ++k) {
        const size_t runEnd = k < breaks.size() ? breaks[k].index : dwellCount;
        if (runEnd >= runStart + kSteadyRunFrames) {
            *start = runStart;
            return true;
        }
        runStart = runEnd + 1;
    }
    return false;
}

/// Nine of ten dwells are what the one a cycle before them was.
bool repeatsEvery(size_t frames, const std::vector<int>& dwells) {
    size_t repeats = 0;
    for (size_t i = 0; i + frames < dwells.size(); ++i) {
        repeats += dwells[i] == dwells[i + frames] ? 1 : 0;
    }
    return repeats * 10 >= (dwells.size() - frames) * 9;
}

/// The cycle of so many frames, of those that dwells begin with, that fits the most dwells: not one
/// that happens to hold a break.
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
    return patternName(pattern);
}

double ExpectedCadence::secondsPerSlip() const {
    const double perSecond = std::abs(slipPerFrame) * contentHz;
    return perSecond * kNoSlipSeconds > 1.0 ? 1.0 / perSecond : 0.0;
}

ExpectedCadence expectedCadence(double contentHz, double displayHz) {
    ExpectedCadence best{contentHz, displayHz, {}, 0.0};
    if (!(contentHz > 0.0) || !(displayHz > 0.0)) {
        return best;
    }
    const double vsyncsPerFrame = displayHz / contentHz;
    for (size_t frames = 1; frames <= kMaxCycleFrames; ++frames) {
        const double cycle = vsyncsPerFrame * static_cast<double>(frames);
        const int vsyncs = static_cast<int>(std::lround(cycle));
        const double slip = (cycle - vsyncs) / static_cast<double>(frames);
        if (best.pattern.empty() || std::abs(slip) < std::abs(best.slipPerFrame)) {
            best.pattern = evenPattern(vsyncs, frames);
            best.slipPerFrame = slip;
        }
        if (std::abs(best.slipPerFrame) * contentHz <= kMaxSlipsPerSecond) {
            break;
        }
    }
    return best;
}

CadenceResult analyseCadence(const std::vector<int>& dwells, const ExpectedCadence& expected) {
    CadenceResult result;
    if (expected.pattern.empty() || dwells.empty()) {
        return result;
    }
    const auto way = cheapestPhases(dwells, expected.pattern);
    const auto all = breaksAlong(dwells, expected.pattern, way);
    result.held = findSteadyRun(dwells.size(), all, &result.heldFrom);
    if (!result.held) {
        return result;
    }
    const bool slips = expected.secondsPerSlip() > 0.0;
    for (DwellBreak found : all) {
        if (found.index <= result.heldFrom) {
            continue;
        }
        const int offBy = found.dwell - found.expected;
        // Where in the slip's own cycle the run began is not known, so the first may come at once.
        const double due = 1.0 + std::floor(static_cast<double>(found.index - result.heldFrom) *
                                            std::abs(expected.slipPerFrame));
        found.byArithmetic = slips && offBy == (expected.slipPerFrame > 0.0 ? 1 : -1) &&
                             static_cast<double>(result.byArithmetic) < due;
        (found.byArithmetic ? result.byArithmetic : result.unexpected) += 1;
        result.breaks.push_back(found);
    }
    return result;
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

bool samePattern(const std::vector<int>& left, const std::vector<int>& right) {
    if (left.size() != right.size() || left.empty()) {
        return false;
    }
    std::vector<int> turned = left;
    for (size_t i = 0; i < left.size(); ++i) {
        if (turned == right) {
            return true;
        }
        std::rotate(turned.begin(), turned.begin() + 1, turned.end());
    }
    return false;
}

}  // namespace korvane::player
