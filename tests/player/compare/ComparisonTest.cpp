// SPDX-License-Identifier: Apache-2.0
// Comparisons of event logs, and logs that are refused.
#include "player/compare/Comparison.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <random>
#include <sstream>

#include "player/base/Errors.h"
#include "player/compare/ComparisonText.h"
#include "player/report/EventLog.h"

namespace korvane::player {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr int64_t kComparedVsyncNs = 16'666'667;
constexpr int64_t kComparedFrames = 240;

/// A film of 24 fps on 60 Hz, [3:2], and what to change in it.
struct Film {
    int64_t frames = kComparedFrames;
    int64_t mediaFromUs = 0;
    int64_t roundUs = 1;      ///< of media times
    int64_t presentByUs = 0;  ///< presentation times moved
    int dropFrom = -1;        ///< three frames are dropped
    int uneven = -9;          ///< this frame has four vsyncs, the one after it one
    int64_t startVsyncs = 6;  ///< until the first frame
};

std::string logOf(const Film& film) {
    std::ostringstream out;
    EventLog log({&out});
    log.begin(0);
    log.add({0, EventKind::Start, -1, 0, 0, ""});
    int64_t vsync = film.startVsyncs;
    for (int64_t i = 0; i < film.frames; ++i) {
        const int64_t mediaUs = film.mediaFromUs + i * 1'000'000 / 24 / film.roundUs * film.roundUs;
        log.add({i * 1'000'000, EventKind::Sent, i, mediaUs, i % 16, ""});
        const int64_t usual = i % 2 == 0 ? 3 : 2;
        const int64_t dwell = i == film.uneven       ? usual + 1
                              : i == film.uneven + 1 ? usual - 1
                                                     : usual;
        const int64_t timeNs = vsync * kComparedVsyncNs;
        if (film.dropFrom >= 0 && i >= film.dropFrom && i < film.dropFrom + 3) {
            log.add({timeNs, EventKind::Dropped, i, 0, 0, "reason=late"});
        } else {
            log.add({timeNs - 1'000'000, EventKind::Queued, i,
                     timeNs / 1000 - 4'000 + film.presentByUs, 0, ""});
            log.add({timeNs, EventKind::Shown, i, vsync, 4'000, "lip_sync_us=4000"});
            log.add({timeNs + dwell * kComparedVsyncNs, EventKind::Replaced, i, dwell, 0, ""});
        }
        vsync += dwell;
    }
    log.add({vsync * kComparedVsyncNs, EventKind::Stop, -1, 0, 0, ""});
    log.finish();
    return out.str();
}

LoggedPlayback readLog(const std::string& text) {
    std::istringstream in(text);
    return readEventLog(in, "log");
}

Comparison compareFilms(const Film& a, const Film& b) {
    return compareRuns(runOf("a", readLog(logOf(a))), runOf("b", readLog(logOf(b))));
}

Film changed(const std::function<void(Film*)>& change) {
    Film film;
    change(&film);
    return film;
}

TEST(Comparison, TellsWhatChangedAndWhichIsBetter) {
    const Film usual;
    const Film drops = changed([](Film* film) { film->dropFrom = 96; });
    const Film uneven = changed([](Film* film) { film->uneven = 120; });
    const struct {
        Film a;
        Film b;
        ComparisonResult result;
        const char* verdict;
        size_t differences;
    } cases[] = {
        {usual, usual, ComparisonResult::SameBytes, "Same to the byte", 0},
        {usual, changed([](Film* film) { film->presentByUs = 300; }),
         ComparisonResult::SameDecisions, "Same decisions, at times up to 0.3 ms apart", 0},
        {usual, changed([](Film* film) { film->roundUs = 1'000; }), ComparisonResult::SameDecisions,
         "Same decisions", 0},
        {usual, drops, ComparisonResult::Worse, "B is worse: 3 frames more dropped, first at 4.0 s",
         3},
        {drops, usual, ComparisonResult::Better, "B is better: 3 frames fewer dropped", 3},
        {usual, uneven, ComparisonResult::Worse,
         "B is worse: 2 unexpected dwells more, first at 5.0 s", 2},
        {uneven, drops, ComparisonResult::Worse, "B is worse: 3 frames more dropped", 5},
        {usual, changed([](Film* film) { film->startVsyncs = 9; }), ComparisonResult::Worse,
         "B is worse: first frame 50.0 ms later", 0},
        {usual, changed([](Film* film) { film->mediaFromUs = 8'000'000; }),
         ComparisonResult::Different, "Different films: 48 of 432 media times in common", 384},
        {usual, changed([](Film* film) { film->frames = 0; }), ComparisonResult::Different,
         "Different films: 0 of 240 media times in common", 240},
    };
    for (const auto& c : cases) {
        const Comparison comparison = compareFilms(c.a, c.b);
        SCOPED_TRACE(c.verdict);
        EXPECT_EQ(comparison.result, c.result);
        EXPECT_THAT(comparison.verdict, StartsWith(c.verdict));
        EXPECT_EQ(comparison.frames.size(), c.differences);
    }
}

TEST(Comparison, FigureAndFrameAreInEveryOutput) {
    const ComparedRun a = runOf("a<b", readLog(logOf({})));
    const ComparedRun b =
        runOf("b", readLog(logOf(changed([](Film* film) { film->dropFrom = 96; }))));
    const Comparison comparison = compareRuns(a, b);
    std::ostringstream text;
    std::ostringstream json;
    std::ostringstream page;
    printComparison(text, {a, b, comparison}, true);
    writeComparisonJson(json, {a, b, comparison});
    writeComparisonPage(page, {a, b, comparison});
    EXPECT_THAT(text.str(), HasSubstr("at    4.000 s  A     96 shown for 3 vsyncs"));
    EXPECT_THAT(text.str(), HasSubstr("dropped (late)"));
    EXPECT_THAT(json.str(), HasSubstr("\"reason\": \"late\""));
    EXPECT_THAT(page.str(), HasSubstr("A: a&lt;b"));
    EXPECT_THAT(page.str(), HasSubstr("<td>dropped (late)</td>"));
}

TEST(Comparison, PrefersTheSummariesOfReports) {
    std::istringstream json(R"({"schema_version": 1, "event_hash": "h", "grade": "faulty",
        "verdict": "FAULT", "pattern": "[3:2]", "buffers_kept": 2, "dwells_unexpected": 5})");
    const ToldSummary faulty = readSummary(json, "summary.json");
    ToldSummary even = faulty;
    even.grade = Grade::Even;
    even.numbers["buffers_kept"] = 0;
    ComparedRun a = runOf("a", readLog(logOf({})));
    ComparedRun b = runOf("b", readLog(logOf(changed([](Film* film) { film->presentByUs = 9; }))));
    EXPECT_EQ(compareRuns(a, b).result, ComparisonResult::SameDecisions) << "by the logs alone";
    a.told = even;
    b.told = faulty;
    const Comparison comparison = compareRuns(a, b);
    EXPECT_EQ(comparison.verdict, "B is worse: 2 buffers more never given back");
    const auto dwells =
        std::find_if(comparison.figures.begin(), comparison.figures.end(),
                     [](const Figure& figure) { return figure.key == "dwells_unexpected"; });
    EXPECT_EQ(dwells->b, 5.0);
    for (const char* text : {"", "{", "[1]", R"({"schema_version": "1", "grade": "even"})",
                             R"({"schema_version": 1, "grade": "fair"})"}) {
        std::istringstream damaged(text);
        EXPECT_THROW(readSummary(damaged, "summary.json"), InputError) << text;
    }
}

std::string refusal(const std::string& text) {
    try {
        readLog(text);
    } catch (const InputError& error) {
        return error.what();
    }
    return "";
}

TEST(EventLogReader, RefusesWhatIsNoWholeLogInOneLine) {
    const std::string whole = logOf({});
    const std::string start = "0.000000000 start\n";
    const std::pair<std::string, const char*> cases[] = {
        {"", "before its first event"},
        {whole.substr(0, whole.size() / 2), "breaks off after [0-9]+ lines, at [0-9.]+ s"},
        {whole.substr(0, whole.find('\n', whole.size() / 2) + 1), "breaks off after"},
        {"\x7f"
         "ELF\x02\x01",
         "line 1 is no event"},
        {"0.000000000 begin\n", "line 1 is no event"},
        {start + "0.5 stop\n", "line 2 is no event"},
        {start + "0.000000001 shown frame=0 vsync=1\n", "line 2 is no event"},
        {start + "0.000000001 pause frame=-1\n", "line 2 is no event"},
        {start + "0.000000001 lost frame=999999999999\n", "line 2 is no event"},
        {start + "99999999999999999999.000000000 stop\n", "line 2 is no event"},
        {start + std::string(200'000, 'x') + "\n", "(line 2|breaks off)"},
    };
    for (const auto& [text, wanted] : cases) {
        const std::string line = refusal(text);
        EXPECT_THAT(line, ::testing::ContainsRegex(wanted)) << text.substr(0, 80);
        EXPECT_LT(line.size(), 300U);
    }
    EXPECT_EQ(refusal(whole), "");
}

TEST(EventLogReader, TakesOrRefusesAnyDamage) {
    const std::string whole = logOf(changed([](Film* film) { film->frames = 24; }));
    std::mt19937_64 random(11);
    for (int round = 0; round < 3'000; ++round) {
        std::string text = whole;
        for (int i = 0; i < 3; ++i) {
            const size_t at = random() % text.size();
            const char* const kBytes = "0123456789 -=.\nshown\xff";
            if (random() % 3 == 0) {
                text.erase(at, random() % 40);
            } else {
                text[at] = kBytes[random() % 20];
            }
        }
        try {
            const ComparedRun run = runOf("damaged", readLog(text));
            compareRuns(run, run);
        } catch (const InputError&) {
        }
    }
}

}  // namespace
}  // namespace korvane::player
