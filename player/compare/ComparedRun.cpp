// SPDX-License-Identifier: Apache-2.0
#include "player/compare/ComparedRun.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <system_error>
#include <utility>

#include "player/base/Errors.h"
#include "player/base/Text.h"
#include "player/report/ReportBuilder.h"

namespace korvane::player {
namespace {

/// The name that a report's folder gives its event log.
constexpr const char* kLogInFolder = "/events.txt";
constexpr const char* kSummaryInFolder = "/summary.json";

/// Empty: the folder has none, as those of earlier versions.
std::optional<ToldSummary> summaryIn(const std::string& folder, const std::string& hash) {
    const std::string file = folder + kSummaryInFolder;
    std::ifstream in(file);
    if (!in) {
        return std::nullopt;
    }
    ToldSummary told = readSummary(in, file);
    if (told.eventHash != hash) {
        throw InputError("'" + printable(folder) +
                         "' has a summary and an event log of two playbacks; play it again");
    }
    return told;
}

/// What the record holds beside the frames, from the player's actions. Times count from `start`.
PlaybackRecord recordOf(const LoggedPlayback& log, double displayHz) {
    PlaybackRecord record;
    record.displayHz = displayHz;
    record.sections.push_back({});
    for (const auto& action : log.actions) {
        const bool open = !record.clockStops.empty() && record.clockStops.back().toUs == 0;
        const int64_t atUs = action.timeNs / 1000;
        if (action.kind == EventKind::Seek || action.kind == EventKind::Flush ||
            action.kind == EventKind::Restart) {
            record.sections.push_back({action.timeNs});
            if (action.kind == EventKind::Seek) {
                record.sections.back().soughtUs = action.first;
            }
        } else if (action.kind == EventKind::Stop) {
            record.stopNs = action.timeNs;
        } else if (action.kind == EventKind::Audio) {
            record.withAudio = true;
            const bool paused = action.text == "paused";
            const bool stands = paused || action.text == "underflow";
            if (stands && !open) {
                record.clockStops.push_back({atUs, 0, paused});
            } else if (!stands && open) {
                record.clockStops.back().toUs = atUs;
            }
            Section& section = record.sections.back();
            if (action.text == "playing" && section.audioStartedRealUs < 0) {
                section.audioStartedRealUs = atUs;
            }
        }
    }
    return record;
}

}  // namespace

ComparedRun runOf(std::string name, LoggedPlayback log) {
    constexpr double kUsualHz = 60.0;
    const double measuredHz = log.displayHz();
    PlaybackPlan plan;
    plan.tv.display.rateHz = measuredHz > 0.0 ? measuredHz : kUsualHz;
    const PlaybackRecord record = recordOf(log, plan.tv.display.rateHz);
    plan.withAudio = record.withAudio;
    ReportBuilder builder(0.0, plan);
    for (size_t i = 0; i < log.frames.size(); ++i) {
        builder.onFrame(entryOf(log, i), record);
    }
    ComparedRun run{std::move(name), std::move(log), builder.finish(record), std::nullopt, -1};
    for (const auto& stretch : run.summary.stretches) {
        run.worstFirstFrameUs = std::max(run.worstFirstFrameUs, stretch.firstFrameUs);
    }
    return run;
}

ComparedRun readRun(const std::string& path) {
    struct stat status {};
    const bool folder = stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
    const std::string file = folder ? path + kLogInFolder : path;
    errno = 0;
    std::ifstream in(file);
    if (!in) {
        throw InputError("'" + printable(file) +
                         "': " + std::error_code(errno, std::generic_category()).message() +
                         "; give a file of --events or a folder of --report");
    }
    ComparedRun run = runOf(path, readEventLog(in, file));
    if (folder) {
        run.told = summaryIn(path, run.log.hash);
    }
    return run;
}

std::pair<ComparedRun, ComparedRun> readRuns(const std::string& a, const std::string& b) {
    std::pair<ComparedRun, ComparedRun> runs{readRun(a), readRun(b)};
    if (!runs.first.told || !runs.second.told) {
        runs.first.told.reset();
        runs.second.told.reset();
    }
    return runs;
}

std::string ComparedRun::pattern() const {
    const auto& stretches = summary.stretches;
    const std::string seen = told                ? told->pattern
                             : stretches.empty() ? std::string()
                                                 : stretches[0].seen;
    return seen.empty() ? "-" : seen;
}

}  // namespace korvane::player
