// SPDX-License-Identifier: Apache-2.0
#include "player/page/Page.h"

#include <ostream>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "player/base/JsonValue.h"
#include "player/page/PageAssets.h"
#include "player/report/EventLine.h"
#include "player/report/LipSync.h"
#include "player/report/Words.h"

namespace korvane::player {
namespace {

/// JSON escaped for a script element: no "</script>" in it can end the element.
std::string inScript(const JsonValue& json) {
    std::string text;
    for (const char c : json.dump()) {
        c == '<' ? text.append("\\u003c") : text.append(1, c);
    }
    return text;
}

std::string inHtml(std::string_view text) {
    std::string safe;
    for (const char c : text) {
        switch (c) {
            case '&':
                safe += "&amp;";
                break;
            case '<':
                safe += "&lt;";
                break;
            case '"':
                safe += "&quot;";
                break;
            default:
                safe += c;
        }
    }
    return safe;
}

using Fill = std::pair<std::string_view, std::string_view>;

/// Writes markup with each mark, such as @DATA@, replaced.
void fill(std::ostream& out, std::string_view html, const std::vector<Fill>& marks) {
    while (!html.empty()) {
        size_t at = std::string_view::npos;
        const Fill* next = nullptr;
        for (const Fill& mark : marks) {
            const size_t found = html.find(mark.first);
            if (found < at) {
                at = found;
                next = &mark;
            }
        }
        out << html.substr(0, at);
        if (next == nullptr) {
            return;
        }
        out << next->second;
        html.remove_prefix(at + next->first.size());
    }
}

JsonValue columnJson(PageColumn* column) {
    return {{"rows", column->rows()},
            {"from", static_cast<int>(column->prediction())},
            {"data", column->finish()}};
}

JsonValue framesJson(PageRecorder* recorder) {
    JsonValue columns = JsonValue::object();
    auto column = recorder->frames().begin();
    for (const LedgerColumn& of : kLedger) {
        columns[of.name] = columnJson(&*column++);
    }
    return columns;
}

JsonValue breaksJson(PageRecorder* recorder) {
    auto& breaks = recorder->breaks();
    return {{"frame", columnJson(&breaks.frame)},       {"dwell", columnJson(&breaks.dwell)},
            {"expected", columnJson(&breaks.expected)}, {"kind", columnJson(&breaks.kind)},
            {"cause", columnJson(&breaks.cause)},       {"text", breaks.texts.finish()}};
}

JsonValue stretchesJson(const PageRecorder& recorder) {
    constexpr const char* kBegins[] = {"section", "mode_change", "rate_change"};
    JsonValue all = JsonValue::array();
    for (const auto& [firstFrame, report] : recorder.stretches()) {
        all.push_back({{"first_frame", firstFrame},
                       {"section", report.section},
                       {"begin", kBegins[static_cast<int>(report.begin)]},
                       {"display_hz", report.displayHz},
                       {"content_hz", report.expected.contentHz},
                       {"pattern", report.expected.pattern},
                       {"expected", report.expected.name()},
                       {"seconds_per_slip", report.expected.secondsPerSlip()},
                       {"slip_per_frame", report.expected.slipPerFrame},
                       {"seen", report.seen},
                       {"judged", report.judged()},
                       {"held", report.cadence.held ? whenHeld(report) : ""},
                       {"wrong_pattern", report.wrongPattern},
                       {"first_frame_us", report.firstFrameUs},
                       {"second_frame_us", report.secondFrameUs}});
    }
    return all;
}

JsonValue splicesJson(const PlaybackRecord& record, const Summary& summary) {
    JsonValue all = JsonValue::array();
    for (const SpliceReport& splice : summary.splices) {
        const MediaChange* change = nullptr;  // the last one before the frame
        for (const MediaChange& other : record.media.changes) {
            const bool before = other.splice && other.mediaTimeUs <= splice.mediaTimeUs;
            change = before ? &other : change;
        }
        all.push_back({{"frame", splice.frame.frameNo},
                       {"at_us", splice.frame.atUs},
                       {"lost_us", splice.lostUs},
                       {"what", change != nullptr ? change->what : "splice"}});
    }
    return all;
}

JsonValue happenedJson(const PageRecorder& recorder, const PlaybackRecord& record,
                       const Summary& summary) {
    const auto sinceStart = [&record](int64_t ns) { return (ns - record.startNs) / 1000; };
    const int64_t startUs = record.startNs / 1000;
    JsonValue json;
    json["sections"] = JsonValue::array();
    for (const auto& section : record.sections) {
        json["sections"].push_back(
            {sinceStart(section.beganNs),
             section.audioStartedRealUs < 0 ? -1 : section.audioStartedRealUs - startUs});
    }
    json["stops"] = JsonValue::array();
    for (const auto& seen : recorder.stops()) {
        const ClockStop& stop = seen.stop;
        json["stops"].push_back({{"from_us", stop.fromUs - startUs},
                                 {"to_us", stop.toUs == 0 ? -1 : stop.toUs - startUs},
                                 {"by_player", stop.byPlayer},
                                 {"last_frame", seen.last.frameNo},
                                 {"last_us", seen.last.atUs},
                                 {"next_frame", seen.next.frameNo},
                                 {"next_us", seen.next.atUs}});
    }
    json["splices"] = splicesJson(record, summary);
    json["actions"] = JsonValue::array();
    for (const auto& action : recorder.actions()) {
        json["actions"].push_back(
            {sinceStart(action.timeNs), static_cast<int>(action.kind), action.first, action.text});
    }
    json["patterns"] = JsonValue::array();
    for (const auto& pattern : recorder.log().patterns()) {
        json["patterns"].push_back({sinceStart(pattern.timeNs), pattern.name});
    }
    json["log"] = JsonValue::array();
    for (const auto& kept : recorder.log().lines()) {
        const std::string& text = kept.line.text;
        json["log"].push_back({sinceStart(kept.timeNs), kept.line.priority, kept.line.tag,
                               text.substr(0, text.find_last_not_of('\n') + 1), kept.more});
    }
    json["log_left"] = recorder.log().left();
    return json;
}

JsonValue wordsJson() {
    JsonValue words;
    for (int i = 0; i < kOutcomes; ++i) {
        words["outcome"].push_back(inWords(toString(static_cast<Outcome>(i))));
    }
    for (int i = 0; i <= static_cast<int>(DropReason::Unknown); ++i) {
        words["drop_reason"].push_back(inWords(toString(static_cast<DropReason>(i))));
    }
    for (int i = 0; i < kBreakCauses; ++i) {
        const auto cause = static_cast<BreakCause>(i);
        words["cause"].push_back(inWords(toString(cause)));
    }
    for (const auto kind :
         {EventKind::Start, EventKind::Flush, EventKind::Seek, EventKind::Pause, EventKind::Resume,
          EventKind::Restart, EventKind::Stop, EventKind::Audio}) {
        words["action"][std::to_string(static_cast<int>(kind))] = toString(kind);
    }
    return words;
}

JsonValue dropsJson(const Summary& summary) {
    JsonValue drops = JsonValue::array();
    for (const auto& [reason, group] : summary.drops) {
        drops.push_back({{"reason", inWords(toString(reason))},
                         {"frames", group.runs.frames},
                         {"runs", group.runs.runs},
                         {"longest", group.runs.longest},
                         {"from_log", group.fromLog},
                         {"first", group.first.frameNo}});
    }
    return drops;
}

JsonValue bandsJson() {
    JsonValue bands = JsonValue::array();
    const std::pair<const char*, LipSyncBand> all[] = {
        {"EBU R37", kEbuBand},
        {"ITU-R BT.1359-1, detectable", kItuDetectableBand},
        {"ITU-R BT.1359-1, acceptable", kItuAcceptableBand}};
    for (const auto& [name, band] : all) {
        bands.push_back({name, band.leastUs, band.mostUs});
    }
    return bands;
}

std::string textReport(const PlaybackRecord& record, const Summary& summary,
                       const tv::TraceReport& trace) {
    std::ostringstream text;
    printReport(text, record, summary, trace, false);
    return text.str();
}

}  // namespace

void writePage(std::ostream& out, const PageHeading& heading, const Origin& origin,
               const PlaybackRecord& record, const Summary& summary, const tv::TraceReport& trace,
               PageRecorder* recorder) {
    JsonValue data;
    data["page_version"] = kPageVersion;
    data["name"] = heading.name;
    data["about"] = heading.about;
    data["failures"] = heading.failures;
    data["summary"] = summaryJson(origin, record, summary, trace);
    data["ledger"] = framesJson(recorder);
    data["breaks"] = breaksJson(recorder);
    data["stretches"] = stretchesJson(*recorder);
    data["happened"] = happenedJson(*recorder, record, summary);
    data["drops"] = dropsJson(summary);
    data["words"] = wordsJson();
    data["bands"] = bandsJson();
    data["pool"] = {{"buffers", record.pool.buffers},
                    {"waits", record.pool.waits},
                    {"longest_wait_us", record.pool.longestWaitNs / 1000},
                    {"lowest_free", record.pool.lowestFree},
                    {"came_back", summary.backToPlayerNs.samples},
                    {"back_median_us", summary.backToPlayerNs.median / 1000},
                    {"back_p99_us", summary.backToPlayerNs.p99 / 1000}};
    const std::string title = inHtml(heading.name);
    const std::string verdict = inHtml(summary.verdict);
    const std::string text = inHtml(textReport(record, summary, trace));
    const PageAssets& assets = pageAssets();
    fill(out, assets.html,
         {{"@TITLE@", title},
          {"@VERDICT@", verdict},
          {"@GRADE@", toString(summary.grade)},
          {"@TEXT@", text},
          {"@CSS@", assets.css},
          {"@CHARTS_CSS@", assets.chartsCss},
          {"@CHARTS_LICENCE@", assets.chartsLicence},
          {"@CHARTS_JS@", assets.chartsJs},
          {"@JS@", assets.js},
          {"@DATA@", inScript(data)}});
}

void writeUnfinishedPage(std::ostream& out, const std::string& name) {
    out << "<!doctype html><html lang=\"en\"><meta charset=\"utf-8\"><meta name=\"color-scheme\" "
           "content=\"light dark\"><title>"
        << inHtml(name)
        << "</title><body style=\"font: 1.1rem/1.5 system-ui, sans-serif; margin: 3rem; max-width: "
           "40rem\"><h1 style=\"font-size: 1.3rem\">No report yet: the playback of "
        << inHtml(name)
        << " has not ended yet, or was killed</h1><p>Reload this page later. If nothing plays it "
           "any "
           "more, it was killed: play it again. <code>events.txt</code> beside this page has those "
           "events that had been written by then.\n";
}

void writeIndex(std::ostream& out, const std::vector<IndexEntry>& entries, size_t planned) {
    JsonValue data;
    data["planned"] = planned;
    data["entries"] = JsonValue::array();
    for (const auto& entry : entries) {
        data["entries"].push_back({{"name", entry.name},
                                   {"about", entry.about},
                                   {"verdict", entry.verdict},
                                   {"grade", entry.grade},
                                   {"figures", entry.figures},
                                   {"repeat", entry.repeat},
                                   {"page", entry.page},
                                   {"failures", entry.failures}});
    }
    const PageAssets& assets = pageAssets();
    fill(out, assets.index, {{"@CSS@", assets.css}, {"@DATA@", inScript(data)}});
}

void writeComparisonPage(std::ostream& out, const ComparisonMarkup& markup,
                         const std::array<ComparedColumns*, 2>& sides) {
    const PageAssets& assets = pageAssets();
    if (assets.compare.empty()) {
        throw std::runtime_error(std::string(pageLacks()));
    }
    JsonValue data;
    data["sides"] = JsonValue::array();
    for (ComparedColumns* side : sides) {
        data["sides"].push_back({{"media", columnJson(&side->media)},
                                 {"dwell", columnJson(&side->dwell)},
                                 {"offset", columnJson(&side->offset)},
                                 {"lip_sync", columnJson(&side->lipSync)},
                                 {"changed", columnJson(&side->changed)}});
    }
    data["bands"] = bandsJson();
    const std::string verdict = inHtml(markup.verdict);
    fill(out, assets.compare,
         {{"@VERDICT@", verdict},
          {"@GOOD@", markup.good},
          {"@SIDES@", markup.sides},
          {"@FIGURES@", markup.figures},
          {"@FRAMES@", markup.frames},
          {"@LACKS@", pageLacks()},
          {"@CSS@", assets.css},
          {"@CHARTS_CSS@", assets.chartsCss},
          {"@CHARTS_LICENCE@", assets.chartsLicence},
          {"@CHARTS_JS@", assets.chartsJs},
          {"@JS@", assets.compareJs},
          {"@DATA@", inScript(data)}});
}

}  // namespace korvane::player
