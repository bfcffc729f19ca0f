// SPDX-License-Identifier: Apache-2.0
// The table of expectations in a scenario file.
#include <utility>

#include "player/scenario/ScenarioFile.h"

namespace korvane::player {
namespace {

constexpr std::pair<const char*, int> kPriorities[] = {
    {"debug", 3}, {"info", 4}, {"warn", 5}, {"error", 6}};

constexpr Outcome kCounted[] = {Outcome::Shown,   Outcome::Superseded,      Outcome::Flushed,
                                Outcome::Refused, Outcome::DiscardedByStop, Outcome::InTunnelAtStop,
                                Outcome::Lost};
constexpr DropReason kReasons[] = {
    DropReason::BeforeAudio, DropReason::Late,  DropReason::UnderflowCatchUp,
    DropReason::Policy,      DropReason::Flush, DropReason::Unknown};

bool isPattern(const std::string& text) {
    if (text.size() < 3 || text.front() != '[' || text.back() != ']') {
        return false;
    }
    bool digit = false;
    for (size_t i = 1; i + 1 < text.size(); ++i) {
        const bool isDigit = text[i] >= '0' && text[i] <= '9';
        if (!isDigit && !(text[i] == ':' && digit)) {
            return false;
        }
        digit = isDigit;
    }
    return digit;
}

void readPatterns(TomlTable& table, Expectations* expect) {
    const auto take = [&](const std::string& text) {
        if (!isPattern(text) && text != "none") {
            table.fail("pattern", "'" + text +
                                      "' is not a pattern, such as \"[3:2]\", or "
                                      "\"none\"");
        }
        expect->patterns.push_back(text);
    };
    if (table.has("patterns")) {
        table.texts("patterns", [&](const toml::node&, const std::string& text) { take(text); });
    }
    if (table.has("pattern")) {
        if (!expect->patterns.empty()) {
            table.fail("pattern", "does not go together with patterns");
        }
        std::string text;
        table.text("pattern", &text);
        take(text);
    }
}

void readCounts(TomlTable& table, Expectations* expect) {
    for (const Outcome outcome : kCounted) {
        const std::string key = toString(outcome);
        std::optional<Range> range;
        std::string text;
        if (outcome == Outcome::Shown && table.has(key)) {
            try {
                table.text(key, &text);
            } catch (const ScenarioError&) {
                text.clear();  // a number; read below
            }
            expect->shownAll = text == "all";
        }
        if (text != "all") {
            table.range(key, &range);
        }
        if (range) {
            expect->outcomes[outcome] = *range;
        }
    }
    table.range("dropped", &expect->dropped);
    for (const DropReason reason : kReasons) {
        std::optional<Range> range;
        table.range(std::string("dropped_") + toString(reason), &range);
        if (range) {
            expect->drops[reason] = *range;
        }
    }
    table.range("longest_drop_run", &expect->longestDropRun);
}

void readLog(TomlTable& table, Expectations* expect) {
    table.tables("log", [&](TomlTable& entry) {
        LogExpectation log;
        entry.text("text", &log.text);
        if (entry.has("priority")) {
            std::string name;
            entry.text("priority", &name);
            for (const auto& [known, priority] : kPriorities) {
                if (name == known) {
                    log.minimum = priority;
                }
            }
            if (!log.minimum) {
                entry.fail("priority", "'" + name + "' is none of debug, info, warn, error");
            }
        }
        if (log.text.empty() && !log.minimum) {
            entry.fail("", "wants a text, a priority or both");
        }
        std::optional<Range> count;
        entry.require("count");
        entry.range("count", &count);
        log.count = *count;
        expect->log.push_back(log);
    });
}

}  // namespace

void readExpectations(TomlTable& table, Expectations* expect) {
    table.text("end", &expect->end);
    const std::string& end = expect->end;
    if (end != "complete" && end != "stopped" && end != "stalled" && end != "broken_off") {
        table.fail("end", "'" + end + "' is none of complete, stopped, stalled, broken_off");
    }
    table.flag("buffers_returned", &expect->buffersReturned);
    table.range("buffers_kept", &expect->buffersKept);
    expect->buffersReturned = expect->buffersReturned && !expect->buffersKept;
    readPatterns(table, expect);
    table.timeRange("pattern_within", &expect->patternWithinUs);
    table.range("slips", &expect->slips);
    table.range("unexpected", &expect->unexpected);
    table.range("dwell", &expect->dwell);
    table.range("frames", &expect->framesIn);
    readCounts(table, expect);
    table.timeRange("offset_median", &expect->offsetMedianUs);
    table.timeRange("offset_worst", &expect->offsetWorstUs);
    table.timeRange("first_frame_within", &expect->firstFrameUs);
    table.timeRange("second_frame_within", &expect->secondFrameUs);
    table.timeRange("seek_within", &expect->seekUs);
    table.timeRange("resume_within", &expect->resumeUs);
    table.timeRange("playback", &expect->playbackUs);
    table.timeRange("stop_within", &expect->stopUs);
    table.range("underflows", &expect->underflows);
    table.range("reanchors", &expect->reanchors);
    table.range("holds", &expect->holds);
    std::optional<Range> overwritten;
    table.range("overwritten", &overwritten);
    expect->overwritten = overwritten.value_or(expect->overwritten);
    readLog(table, expect);
}

}  // namespace korvane::player
