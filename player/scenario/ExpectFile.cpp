// SPDX-License-Identifier: Apache-2.0
// Reads the table [expect] of a scenario file, and the same keys from a command line, by making
// such a table of them.
#include <algorithm>

#include "player/scenario/ScenarioFile.h"

namespace korvane::player {
namespace {

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
    const auto take = [&](const std::string& key, const std::string& text) {
        if (!isPattern(text) && text != "none") {
            table.fail(key, "'" + text + "' is not a pattern, such as \"[3:2]\", or \"none\"");
        }
        expect->patterns.push_back(text);
    };
    table.texts("patterns",
                [&](const toml::node&, const std::string& text) { take("patterns", text); });
    if (table.has("pattern")) {
        if (table.has("patterns")) {
            table.fail("pattern", "does not go together with patterns");
        }
        std::string text;
        table.text("pattern", &text);
        take("pattern", text);
    }
}

void readCounts(TomlTable& table, Expectations* expect) {
    expect->shownAll = table.is(toString(Outcome::Shown), "all");
    for (const Outcome outcome : kCounted) {
        if (outcome == Outcome::Shown && expect->shownAll) {
            continue;
        }
        if (const auto range = table.range(toString(outcome))) {
            expect->outcomes[outcome] = *range;
        }
    }
    expect->dropped = table.range("dropped");
    for (const DropReason reason : kReasons) {
        if (const auto range = table.range(std::string("dropped_") + toString(reason))) {
            expect->drops[reason] = *range;
        }
    }
    expect->longestDropRun = table.range("longest_drop_run");
}

void readLog(TomlTable& table, Expectations* expect) {
    table.tables("log", [&](TomlTable& entry) {
        LogExpectation log;
        int priority = 0;
        entry.text("text", &log.text);
        entry.choice("priority", &priority, {{"debug", 3}, {"info", 4}, {"warn", 5}, {"error", 6}});
        log.count = entry.range("count").value_or(log.count);
        entry.finish({"count"});
        if (entry.has("priority")) {
            log.minimum = priority;
        } else if (log.text.empty()) {
            entry.fail("", "wants a text, a priority or both");
        }
        expect->log.push_back(log);
    });
}

/// The line of a table: "'lip_sync' = 'ebu'" for "lip-sync=ebu".
std::string tomlLine(const std::string& argument) {
    const size_t equals = argument.find('=');
    std::string key = argument.substr(0, equals);
    std::replace(key.begin(), key.end(), '-', '_');
    const std::string value = equals == argument.npos ? "true" : argument.substr(equals + 1);
    const bool asItStands =
        value == "true" || value == "false" || value.find_first_of("'\"") != value.npos;
    return "'" + key + "' = " + (asItStands ? value : "'" + value + "'") + "\n";
}

}  // namespace

void readExpectations(TomlTable& table, Expectations* expect) {
    table.choice("end", &expect->end,
                 {{"complete", EndCause::Complete},
                  {"stopped", EndCause::Stopped},
                  {"stalled", EndCause::Stalled},
                  {"broken_off", EndCause::BrokenOff}});
    table.flag("buffers_returned", &expect->buffersReturned);
    expect->buffersKept = table.range("buffers_kept");
    expect->buffersReturned = expect->buffersReturned && !expect->buffersKept;
    readPatterns(table, expect);
    expect->patternWithinUs = table.timeRange("pattern_within");
    table.flag("even", &expect->even);
    table.flag("in_sync", &expect->inSync);
    expect->slips = table.range("slips");
    expect->unexpected = table.range("unexpected");
    expect->unexplained = table.range("unexplained").value_or(expect->unexplained);
    expect->dwell = table.range("dwell");
    expect->framesIn = table.range("frames");
    readCounts(table, expect);
    expect->lipSyncMedianUs = table.timeRange("lip_sync_median");
    expect->lipSyncWorstUs = table.timeRange("lip_sync_worst");
    table.choice("lip_sync", &expect->lipSync,
                 {{"ebu", LipSyncLimit::Ebu}, {"itu", LipSyncLimit::Itu}});
    expect->offsetMedianUs = table.timeRange("offset_median");
    expect->offsetWorstUs = table.timeRange("offset_worst");
    expect->firstFrameUs = table.timeRange("first_frame_within");
    expect->secondFrameUs = table.timeRange("second_frame_within");
    expect->seekUs = table.timeRange("seek_within");
    expect->splices = table.range("splices");
    expect->spliceLostUs = table.timeRange("splice_lost");
    expect->resumeUs = table.timeRange("resume_within");
    expect->playbackUs = table.timeRange("playback");
    expect->stopUs = table.timeRange("stop_within");
    expect->underflows = table.range("underflows");
    expect->reanchors = table.range("reanchors");
    expect->holds = table.range("holds");
    expect->overwritten = table.range("overwritten").value_or(expect->overwritten);
    readLog(table, expect);
    table.finish();
}

Expectations parseExpectations(const std::vector<std::string>& arguments) {
    std::string text;
    for (const auto& argument : arguments) {
        text += tomlLine(argument);
    }
    const std::string noFile;
    const auto parsed = parseToml(text, noFile);
    TomlTable table(noFile, "", *parsed);
    Expectations expect;
    readExpectations(table, &expect);
    return expect;
}

}  // namespace korvane::player
