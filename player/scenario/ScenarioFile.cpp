// SPDX-License-Identifier: Apache-2.0
#include "player/scenario/ScenarioFile.h"

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <functional>
#include <sstream>
#include <system_error>

#include "player/base/Units.h"
#include "player/media/SyntheticContent.h"
#include "player/scenario/FaultSchedule.h"
#include "player/scenario/PolicyScript.h"
#include "player/scenario/RunLimits.h"
#include "tv/Properties.h"

namespace korvane::player {
namespace {

constexpr char kFreeRunProperty[] = "vendor.tunerpassthrough.renderfreeRun";

template <typename T>
void sortByTime(std::vector<T>* values) {
    std::stable_sort(values->begin(), values->end(),
                     [](const T& left, const T& right) { return left.atUs < right.atUs; });
}

/// A media file, a list of times and a rate exclude each other, as do the keys that belong to them.
void refuseTogether(TomlTable& table, const std::string& key,
                    std::initializer_list<const char*> others) {
    for (const char* other : others) {
        if (table.has(key) && table.has(other)) {
            table.fail(other, "does not go together with " + key);
        }
    }
}

/// Faults of the stream; frames are counted from 0.
void readStreamFaults(TomlTable& table, ContentPlan* content) {
    const int64_t frames = ContentTimes(*content).frames();
    const std::string has = "; the content has " + counted(frames, "frame");
    table.integers("missing", &content->missing, {0, frames - 1}, has);
    if (ContentTimes(*content).deliveredAt(INT64_MIN) == frames) {
        table.fail("missing", "leaves no frame");
    }
    table.integers("duplicate", &content->duplicate, {0, frames - 1}, has);
    table.tables("bunch", [&](TomlTable& entry) {
        ContentPlan::Bunch bunch;
        entry.integer("at", &bunch.atFrame, {0, frames - 2}, has);
        entry.integer("frames", &bunch.frames, {2, frames - bunch.atFrame}, has);
        entry.finish({"at", "frames"});
        content->bunches.push_back(bunch);
    });
    const auto readJumps = [&](const char* key, std::vector<ContentPlan::Jump>* jumps) {
        table.tables(key, [&](TomlTable& entry) {
            ContentPlan::Jump jump;
            entry.integer("at", &jump.atFrame, {1, frames - 1}, has);
            entry.time("by", &jump.byUs, {-kLongestUs, kLongestUs});
            entry.finish({"at", "by"});
            jumps->push_back(jump);
        });
    };
    readJumps("jump", &content->jumps);
    readJumps("splice", &content->splices);
}

void readContent(TomlTable& table, ContentPlan* content) {
    refuseTogether(table, "file",
                   {"fps", "list", "duration", "timestamps", "start", "missing", "duplicate",
                    "bunch", "jump", "splice"});
    refuseTogether(table, "list", {"fps", "duration", "start"});
    table.text("file", &content->file);
    table.times("list", &content->times);
    // Some frames may share a time, as in a bunch. If all do, no frame ever replaces another.
    const auto& times = content->times;
    if (table.has("list") &&
        std::adjacent_find(times.begin(), times.end(), std::not_equal_to<>()) == times.end()) {
        table.fail("list", "wants at least two different times");
    }
    table.rate("fps", &content->rate, kLowestContentHz, kHighestContentHz);
    table.time("duration", &content->durationUs, kContentDurationUs);
    table.time("start", &content->startUs);
    table.choice("timestamps", &content->rounding,
                 {{"exact", Rounding::Exact},
                  {"matroska", Rounding::Matroska},
                  {"mpegts", Rounding::MpegTs}});
    readStreamFaults(table, content);
    table.finish();
}

void readDisplay(TomlTable& table, PlaybackPlan* plan, FaultSpans* faults) {
    tv::DisplayConfig& display = plan->tv.display;
    int64_t jitterUs = 0;
    table.rate("rate", &display.rateHz, kLowestDisplayHz, kHighestDisplayHz);
    table.ppm("drift", &display.driftPpm);
    table.time("jitter", &jitterUs, {0, kMostVsyncJitterUs});
    display.reportJitterNs = jitterUs * 1000;
    table.tables("mode_change", [&](TomlTable& entry) {
        ModeChange change;
        entry.time("at", &change.atUs);
        entry.rate("rate", &change.rateHz, kLowestDisplayHz, kHighestDisplayHz);
        entry.finish({"at", "rate"});
        plan->modeChanges.push_back(change);
    });
    sortByTime(&plan->modeChanges);
    faults->queryFails = table.spans("query_fails");
    faults->reportFails = table.spans("report_fails");
    table.tables("report_period", [&](TomlTable& entry) {
        FaultSpans::FalsePeriod period;
        entry.time("at", &period.span.atUs);
        entry.time("for", &period.span.forUs, {1, kLongestUs});
        entry.nanoseconds("period", &period.periodNs);
        entry.finish({"at", "for", "period"});
        faults->falsePeriods.push_back(period);
    });
    table.finish();
}

/// Audio never reaches such a media time, so the fault would never happen. A file's length is known
/// once it is open (ScenarioRun.cpp).
void refuseOutside(TomlTable& entry, const ContentPlan& content, int64_t atUs) {
    if (!content.file.empty()) {
        return;
    }
    const ContentTimes times(content);
    if (atUs >= times.latestUs()) {
        entry.fail("at", "is past the end of the content, " + seconds(times.latestUs()));
    }
    if (content.jumps.empty() && atUs < times.deliveredUs(0)) {
        entry.fail("at", "is before the start of the content, " + seconds(times.deliveredUs(0)));
    }
}

void readAudioFaults(TomlTable& table, const ContentPlan& content, tv::AudioConfig* audio) {
    table.tables("underflow", [&](TomlTable& entry) {
        Span span;
        entry.time("at", &span.atUs);
        entry.time("for", &span.forUs, {1, kLongestUs});
        entry.finish({"at", "for"});
        refuseOutside(entry, content, span.atUs);
        audio->underflows.push_back({span.atUs, span.forUs});
    });
    table.tables("step_back", [&](TomlTable& entry) {
        Span step;
        entry.time("at", &step.atUs);
        entry.time("by", &step.forUs, {1, kLongestUs});
        entry.finish({"at", "by"});
        refuseOutside(entry, content, step.atUs);
        audio->stepBacks.push_back({step.atUs, step.forUs});
    });
}

void readAudio(TomlTable& table, const ContentPlan& content, PlaybackPlan* plan,
               FaultSpans* faults) {
    tv::AudioConfig& audio = plan->audio;
    plan->withAudio = true;
    table.flag("enabled", &plan->withAudio);
    table.time("start_delay", &audio.startDelayUs);
    table.time("step", &audio.stepUs, {100, 1'000'000});
    table.ppm("drift", &audio.driftPpm);
    table.flag("never_starts", &audio.neverStarts);
    faults->pauses = table.spans("pause");
    readAudioFaults(table, content, &audio);
    table.time("latency_jump", &audio.latencyJumpUs, {-5'000'000, 5'000'000});
    table.time("latency_jump_for", &audio.latencyJumpForUs);
    table.time("drain", &audio.drainUs, {0, 5'000'000});
    table.finish();
    if (table.has("latency_jump") != table.has("latency_jump_for")) {
        table.fail(table.has("latency_jump") ? "latency_jump" : "latency_jump_for",
                   "latency_jump and latency_jump_for go together");
    }
    const auto& times = content.times;
    if (plan->withAudio && !std::is_sorted(times.begin(), times.end())) {
        table.fail("", "needs content times that do not go back");
    }
}

void readSeeks(TomlTable& table, const ContentPlan& content, PlaybackPlan* plan) {
    std::vector<int64_t> flushes;
    table.times("flush", &flushes);
    for (const int64_t atUs : flushes) {
        plan->seeks.push_back({atUs, 0, true, false});
    }
    table.tables("seek", [&](TomlTable& entry) {
        SeekAction seek;
        entry.time("at", &seek.atUs);
        entry.time("to", &seek.toUs);
        entry.finish({"at", "to"});
        const ContentTimes times(content);
        if (content.file.empty() && times.deliveredAt(seek.toUs) == times.frames()) {
            entry.fail("to",
                       "no frame is left there; the content ends at " + seconds(times.endUs()));
        }
        plan->seeks.push_back(seek);
    });
    sortByTime(&plan->seeks);
}

void readToldRate(TomlTable& table, PlaybackPlan* plan) {
    constexpr int kNotCalled = 0;
    bool called = true;
    double fps = 0.0;
    table.flag("set_frame_rate", &called);
    table.number("told_fps", &fps, 0.0, 1000.0);
    if (!called) {
        plan->toldFrameRate = kNotCalled;
    } else if (table.has("told_fps")) {
        plan->toldFrameRate = rateInHundredths(fps);
    }
}

void readPlayer(TomlTable& table, const ContentPlan& content, PlaybackPlan* plan) {
    bool marked = false;
    bool called = false;
    table.integer("buffers", &plan->buffers, {kFewestBuffers, kMostBuffers});
    table.integer("prebuffer", &plan->prebufferFrames, {0, plan->buffers});
    plan->prebufferFrames = std::min(plan->prebufferFrames, plan->buffers);
    for (const auto& span : table.spans("late")) {
        plan->gaps.push_back({span.atUs, span.atUs + span.forUs});
    }
    table.time("slow", &plan->decodeUs, {0, 10'000'000});
    readSeeks(table, content, plan);
    table.flag("peek", &marked);
    table.flag("peek_call", &called);
    plan->peek = called ? Peek::Called : marked ? Peek::Marked : Peek::None;
    readToldRate(table, plan);
    table.time("restart_at", &plan->restartAtUs);
    table.flag("reuse", &plan->reuseRenderer);
    table.time("callback_takes", &plan->callbackTakesUs, {0, 10'000'000});
    table.integer("callback_answers", &plan->callbackAnswers, {INT32_MIN, INT32_MAX});
    table.time("stop_at", &plan->stopAtUs);
    table.finish();
    if (plan->reuseRenderer && !plan->restartAtUs) {
        table.fail("reuse", "says how to restart; restart_at is missing");
    }
}

void readTunnel(TomlTable& table, PlaybackPlan* plan, FaultSpans* faults) {
    table.integer("capacity", &plan->tv.tunnel.capacity, {1, 1024});
    faults->refuse = table.spans("refuse");
    faults->fenceNever = table.spans("fence_never");
    table.time("fence_delay", &faults->fenceDelayUs);
    table.flag("no_fences", &faults->noFences);
    table.finish();
}

void readPassthrough(TomlTable& table, Scenario* scenario) {
    std::vector<PolicyStep> steps;
    bool freeRun = false;
    table.texts("policy", [&](const toml::node& node, const std::string& text) {
        std::string wrong;
        const auto step = parsePolicyStep(text, &wrong);
        if (!step) {
            table.failAt(node, "policy", "'" + text + "' " + wrong);
        }
        steps.push_back(*step);
    });
    table.flag("free_run", &freeRun);
    table.finish();
    if (freeRun) {
        scenario->properties[kFreeRunProperty] = "1";
    }
    PlaybackPlan& plan = scenario->plan;
    plan.passthrough = true;
    plan.longestWaitUs = policyWaitUs(steps);
    plan.prepareClock = [steps](const auto& clock) { installPolicy(steps, clock); };
}

void readRun(TomlTable& table, Scenario* scenario) {
    int32_t mask = 0;
    table.integer("seed", &scenario->seed, {0, INT64_MAX});
    table.flag("preempt", &scenario->preempt);
    table.integer("log_mask", &mask, {0, INT32_MAX});
    if (table.has("log_mask")) {
        scenario->properties[tv::kLogMaskProperty] = std::to_string(mask);
    }
    table.finish();
}

/// Reads a text of one line.
void readLine(TomlTable& table, const std::string& key, std::string* line) {
    table.text(key, line);
    if (line->find_first_not_of(' ') == std::string::npos) {
        table.fail(key, "is empty");
    }
    const auto isControl = [](unsigned char c) { return c < 0x20 || c == 0x7f; };
    if (std::any_of(line->begin(), line->end(), isControl)) {
        table.fail(key, "wants one line without control characters");
    }
}

std::vector<TimedAction> timedActions(const PlaybackPlan& plan, const FaultSpans& faults) {
    std::vector<TimedAction> actions;
    const auto note = [&actions](const char* key, const std::vector<Span>& spans) {
        for (const auto& span : spans) {
            actions.push_back({key, span.atUs});
        }
    };
    for (const auto& change : plan.modeChanges) {
        actions.push_back({"display.mode_change", change.atUs});
    }
    note("display.query_fails", faults.queryFails);
    note("display.report_fails", faults.reportFails);
    for (const auto& period : faults.falsePeriods) {
        actions.push_back({"display.report_period", period.span.atUs});
    }
    note("audio.pause", faults.pauses);
    for (const auto& gap : plan.gaps) {
        actions.push_back({"player.late", gap.atUs});
    }
    for (const auto& seek : plan.seeks) {
        actions.push_back({seek.inPlace ? "player.flush" : "player.seek", seek.atUs});
    }
    if (plan.restartAtUs) {
        actions.push_back({"player.restart_at", *plan.restartAtUs});
    }
    if (plan.stopAtUs) {
        actions.push_back({"player.stop_at", *plan.stopAtUs});
    }
    note("tunnel.refuse", faults.refuse);
    note("tunnel.fence_never", faults.fenceNever);
    return actions;
}

std::string nameOf(const std::string& path) {
    const size_t slash = path.find_last_of('/');
    const std::string file = slash == std::string::npos ? path : path.substr(slash + 1);
    const size_t dot = file.find_last_of('.');
    return dot == std::string::npos || dot == 0 ? file : file.substr(0, dot);
}

std::string folderOf(const std::string& path) {
    const size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? "" : path.substr(0, slash + 1);
}

}  // namespace

Scenario parseScenario(const std::string& text, const std::string& path) {
    const auto parsed = parseToml(text, path);
    Scenario scenario;
    scenario.path = path;
    scenario.name = nameOf(path);
    ContentPlan& content = scenario.content;
    PlaybackPlan& plan = scenario.plan;
    FaultSpans faults;
    TomlTable root(scenario.path, "", *parsed);
    // First: after a misspelt table, checks of the others would run on its defaults and complain of
    // those.
    root.finish({"title", "holds", "expect"},
                {"content", "display", "audio", "player", "tunnel", "passthrough", "run"});
    readLine(root, "title", &scenario.title);
    readLine(root, "holds", &scenario.holds);
    root.table("content", [&](TomlTable& table) { readContent(table, &content); });
    root.table("display", [&](TomlTable& table) { readDisplay(table, &plan, &faults); });
    root.table("audio", [&](TomlTable& table) { readAudio(table, content, &plan, &faults); });
    root.table("player", [&](TomlTable& table) { readPlayer(table, content, &plan); });
    root.table("tunnel", [&](TomlTable& table) { readTunnel(table, &plan, &faults); });
    root.table("passthrough", [&](TomlTable& table) { readPassthrough(table, &scenario); });
    root.table("run", [&](TomlTable& table) { readRun(table, &scenario); });
    root.table("expect", [&](TomlTable& table) { readExpectations(table, &scenario.expect); });
    if (plan.passthrough && plan.peek == Peek::Marked) {
        root.fail("passthrough", "does not go together with player.peek");
    }
    plan.faults = faultSchedule(faults);
    scenario.actions = timedActions(plan, faults);
    plan.longestWaitUs += longestWaitUs(content, plan);
    if (!content.file.empty() && content.file[0] != '/') {
        content.file = folderOf(path) + content.file;
    }
    return scenario;
}

Scenario readScenario(const std::string& path) {
    errno = 0;
    std::ifstream file(path);
    std::ostringstream text;
    if (!file || !(text << file.rdbuf())) {
        const std::string reason =
            errno != 0 ? std::generic_category().message(errno) : "it is empty";
        throw ScenarioError("cannot read '" + path + "': " + reason + "; give a scenario file");
    }
    return parseScenario(text.str(), path);
}

}  // namespace korvane::player
