// SPDX-License-Identifier: Apache-2.0
#include "player/scenario/ScenarioFile.h"

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <sstream>
#include <system_error>

#include "player/scenario/PolicyScript.h"
#include "tv/Display.h"

namespace korvane::player {
namespace {

template <typename T>
void sortByTime(std::vector<T>* values) {
    std::stable_sort(values->begin(), values->end(),
                     [](const T& left, const T& right) { return left.atUs < right.atUs; });
}

void readRounding(TomlTable& table, Rounding* rounding) {
    std::string name = "exact";
    table.text("timestamps", &name);
    if (name == "exact") {
        *rounding = Rounding::Exact;
    } else if (name == "matroska") {
        *rounding = Rounding::Matroska;
    } else if (name == "mpegts") {
        *rounding = Rounding::MpegTs;
    } else {
        table.fail("timestamps", "'" + name + "' is none of exact, matroska, mpegts");
    }
}

void readBunches(TomlTable& table, ContentPlan* content) {
    table.tables("bunch", [&](TomlTable& entry) {
        ContentPlan::Bunch bunch;
        entry.require("at");
        entry.require("frames");
        entry.integer("at", &bunch.atFrame, {0, kMostFrames});
        entry.integer("frames", &bunch.frames, {2, kMostFrames});
        content->bunches.push_back(bunch);
    });
    table.tables("jump", [&](TomlTable& entry) {
        ContentPlan::Jump jump;
        entry.require("at");
        entry.require("by");
        entry.integer("at", &jump.atFrame, {1, kMostFrames});
        entry.time("by", &jump.byUs, {-kLongestUs, kLongestUs});
        content->jumps.push_back(jump);
    });
}

/// A real file, a list of times, or a rate: each leaves out what the others need.
void refuseTogether(TomlTable& table, const std::string& key,
                    std::initializer_list<const char*> others) {
    for (const char* other : others) {
        if (table.has(key) && table.has(other)) {
            table.fail(other, "does not go together with " + key);
        }
    }
}

void readContent(TomlTable& table, ContentPlan* content) {
    refuseTogether(table, "file", {"fps", "list", "duration", "timestamps", "start"});
    refuseTogether(table, "list", {"fps", "duration", "start"});
    table.text("file", &content->file);
    table.times("list", &content->times);
    table.rate("fps", &content->rate, kLowestContentHz, kHighestContentHz);
    table.time("duration", &content->durationUs, kContentDurationUs);
    table.time("start", &content->startUs);
    readRounding(table, &content->rounding);
    table.integers("missing", &content->missing, {0, kMostFrames});
    table.integers("duplicate", &content->duplicate, {0, kMostFrames});
    readBunches(table, content);
    const bool shaped = !content->missing.empty() || !content->duplicate.empty() ||
                        !content->bunches.empty() || !content->jumps.empty();
    if (!content->file.empty() && shaped) {
        table.fail("file",
                   "a real file is played as it is; leave out missing, duplicate, bunch, "
                   "jump");
    }
    if (table.has("list") && content->times.size() < 2) {
        table.fail("list", "wants at least two times");
    }
}

void readDisplay(TomlTable& table, DisplayPlan* display) {
    table.rate("rate", &display->rate, kLowestDisplayHz, kHighestDisplayHz);
    table.ppm("drift", &display->driftPpm);
    table.time("jitter", &display->jitterUs, {0, kMostVsyncJitterUs});
    table.tables("mode_change", [&](TomlTable& entry) {
        DisplayPlan::ModeChange change;
        entry.require("at");
        entry.require("rate");
        entry.time("at", &change.atUs);
        entry.rate("rate", &change.rate, kLowestDisplayHz, kHighestDisplayHz);
        display->modeChanges.push_back(change);
    });
    sortByTime(&display->modeChanges);
    table.spans("query_fails", &display->queryFails);
    table.spans("report_fails", &display->reportFails);
    table.tables("report_period", [&](TomlTable& entry) {
        DisplayPlan::FalsePeriod period;
        for (const char* key : {"at", "for", "period"}) {
            entry.require(key);
        }
        entry.time("at", &period.span.atUs);
        entry.time("for", &period.span.forUs, {1, kLongestUs});
        entry.nanoseconds("period", &period.periodNs);
        display->falsePeriods.push_back(period);
    });
}

void readAudio(TomlTable& table, AudioPlan* audio) {
    audio->enabled = true;
    table.flag("enabled", &audio->enabled);
    table.time("start_delay", &audio->startDelayUs);
    table.time("step", &audio->stepUs, {100, 1'000'000});
    table.ppm("drift", &audio->driftPpm);
    table.flag("never_starts", &audio->neverStarts);
    table.spans("underflow", &audio->underflows);
    table.spans("pause", &audio->pauses);
    table.tables("step_back", [&](TomlTable& entry) {
        AudioPlan::StepBack step;
        entry.require("at");
        entry.require("by");
        entry.time("at", &step.atUs);
        entry.time("by", &step.byUs, {1, kLongestUs});
        audio->stepBacks.push_back(step);
    });
    sortByTime(&audio->stepBacks);
    table.time("latency_jump", &audio->latencyJumpUs, {-5'000'000, 5'000'000});
    table.time("latency_jump_for", &audio->latencyJumpForUs);
    table.time("drain", &audio->drainUs, {0, 5'000'000});
    if (table.has("latency_jump") != table.has("latency_jump_for")) {
        table.fail(table.has("latency_jump") ? "latency_jump" : "latency_jump_for",
                   "latency_jump and latency_jump_for go together");
    }
}

void readSeeks(TomlTable& table, PlayerPlan* player) {
    std::vector<int64_t> flushes;
    table.times("flush", &flushes);
    for (const int64_t atUs : flushes) {
        player->seeks.push_back({atUs, 0, true});
    }
    table.tables("seek", [&](TomlTable& entry) {
        SeekPlan seek;
        entry.require("at");
        entry.require("to");
        entry.time("at", &seek.atUs);
        entry.time("to", &seek.toUs);
        player->seeks.push_back(seek);
    });
    sortByTime(&player->seeks);
}

void readPlayer(TomlTable& table, PlayerPlan* player) {
    int64_t buffers = player->buffers;
    int64_t prebuffer = player->prebufferFrames;
    int64_t answers = 0;
    table.integer("buffers", &buffers, {kFewestBuffers, kMostBuffers});
    table.integer("prebuffer", &prebuffer, {0, buffers});
    table.integer("callback_answers", &answers, {INT32_MIN, INT32_MAX});
    player->buffers = static_cast<int>(buffers);
    player->prebufferFrames = static_cast<int>(std::min(prebuffer, buffers));
    player->callbackAnswers = static_cast<int>(answers);
    table.spans("late", &player->late);
    table.time("slow", &player->slowUs, {0, 10'000'000});
    readSeeks(table, player);
    table.flag("peek", &player->peek);
    table.flag("peek_call", &player->peekCall);
    table.flag("set_frame_rate", &player->setFrameRate);
    if (table.has("told_fps")) {
        double fps = 0.0;
        table.number("told_fps", &fps, 0.0, 1000.0);
        player->toldFps = fps;
    }
    table.time("restart_at", &player->restartAtUs);
    table.flag("reuse", &player->reuse);
    if (player->reuse && !player->restartAtUs) {
        table.fail("reuse", "says how to restart; restart_at is missing");
    }
    table.time("callback_takes", &player->callbackTakesUs, {0, 10'000'000});
    table.time("stop_at", &player->stopAtUs);
}

void readTunnel(TomlTable& table, TunnelPlan* tunnel) {
    int64_t capacity = tunnel->capacity;
    table.integer("capacity", &capacity, {1, 1024});
    tunnel->capacity = static_cast<int>(capacity);
    table.spans("refuse", &tunnel->refuse);
    table.spans("fence_never", &tunnel->fenceNever);
    table.time("fence_delay", &tunnel->fenceDelayUs);
    table.flag("no_fences", &tunnel->noFences);
}

void readPassthrough(TomlTable& table, PassthroughPlan* passthrough) {
    passthrough->enabled = true;
    table.texts("policy", [&](const toml::node& node, const std::string& text) {
        const auto step = parsePolicyStep(text);
        if (!step) {
            table.failAt(node, "policy",
                         "'" + text +
                             "' is not \"auto\", \"render\", \"render at +30ms\", "
                             "\"hold\", \"drop\" or \"exit\", with a count as in \"hold 20\"");
        }
        passthrough->policy.push_back(*step);
    });
    table.flag("free_run", &passthrough->freeRun);
}

void readRun(TomlTable& table, Scenario* scenario) {
    int64_t seed = 1;
    table.integer("seed", &seed, {0, INT64_MAX});
    scenario->seed = static_cast<uint64_t>(seed);
    if (table.has("log_mask")) {
        int64_t mask = 0;
        table.integer("log_mask", &mask, {0, INT32_MAX});
        scenario->logMask = static_cast<int32_t>(mask);
    }
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

toml::table parseToml(const std::string& text, const std::string& path) {
    try {
        return toml::parse(text, path);
    } catch (const toml::parse_error& error) {
        std::string what(error.description());
        std::replace(what.begin(), what.end(), '\n', ' ');
        throw ScenarioError(path + ":" + std::to_string(error.source().begin.line) +
                            ": no TOML: " + what);
    }
}

void checkTogether(TomlTable& root, const Scenario& scenario) {
    if (scenario.passthrough.enabled && scenario.player.peek) {
        root.fail("passthrough", "does not go together with player.peek");
    }
    if (scenario.audio.enabled && !scenario.content.times.empty() &&
        !std::is_sorted(scenario.content.times.begin(), scenario.content.times.end())) {
        root.fail("audio", "needs content times that do not go back");
    }
}

}  // namespace

Scenario parseScenario(const std::string& text, const std::string& path) {
    const toml::table parsed = parseToml(text, path);
    Scenario scenario;
    scenario.path = path;
    scenario.name = nameOf(path);
    TomlTable root(scenario.path, "", parsed);
    root.require("title");
    root.require("holds");
    root.require("expect");
    root.text("title", &scenario.title);
    root.text("holds", &scenario.holds);
    root.table("content", [&](TomlTable& table) { readContent(table, &scenario.content); });
    root.table("display", [&](TomlTable& table) { readDisplay(table, &scenario.display); });
    root.table("audio", [&](TomlTable& table) { readAudio(table, &scenario.audio); });
    root.table("player", [&](TomlTable& table) { readPlayer(table, &scenario.player); });
    root.table("tunnel", [&](TomlTable& table) { readTunnel(table, &scenario.tunnel); });
    root.table("passthrough",
               [&](TomlTable& table) { readPassthrough(table, &scenario.passthrough); });
    root.table("run", [&](TomlTable& table) { readRun(table, &scenario); });
    root.table("expect", [&](TomlTable& table) { readExpectations(table, &scenario.expect); });
    root.done();
    checkTogether(root, scenario);
    if (!scenario.content.file.empty() && scenario.content.file[0] != '/') {
        scenario.content.file = folderOf(path) + scenario.content.file;
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
