// SPDX-License-Identifier: Apache-2.0
#include "player/compare/ComparisonText.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <ostream>
#include <vector>

#include "player/base/JsonValue.h"
#include "player/base/Text.h"
#include "player/base/Units.h"
#include "player/page/Page.h"
#include "player/report/Words.h"

namespace korvane::player {
namespace {

/// As many rows as a browser scrolls smoothly.
constexpr size_t kMostRows = 20'000;

std::string labelOf(const Figure& figure) {
    std::string key = figure.key;
    for (const char* unit : {"_us", "_hz"}) {
        if (key.size() > 3 && key.compare(key.size() - 3, 3, unit) == 0) {
            key.resize(key.size() - 3);
        }
    }
    return inWords(key);
}

/// "+12", "-0.4 ms"; empty: the same, or not measured in both.
std::string changeOf(const Figure& figure) {
    const bool time = figure.unit == FigureUnit::Microseconds;
    if (figure.a == figure.b || (time && (figure.a < 0.0 || figure.b < 0.0))) {
        return "";
    }
    const double by = figure.b - figure.a;
    Figure change = figure;
    return (by < 0.0 ? "-" : "+") + tellFigure(change, std::abs(by));
}

/// Escapes HTML's special characters.
std::string escaped(const std::string& text) {
    std::string html;
    for (const char c : printable(text)) {
        html += c == '&'   ? "&amp;"
                : c == '<' ? "&lt;"
                : c == '>' ? "&gt;"
                : c == '"' ? "&quot;"
                           : std::string(1, c);
    }
    return html;
}

JsonValue sideOf(const ComparedRun& run, const LoggedPlayback& log) {
    JsonValue side;
    side["name"] = printable(run.name);
    side["event_hash"] = log.hash;
    side["grade"] = toString(run.grade());
    side["verdict"] = run.verdict();
    side["pattern"] = run.pattern();
    return side;
}

/// A number where it is one: counts and times are whole.
JsonValue valueOf(const Figure& figure, double value) {
    const bool whole = figure.unit == FigureUnit::Count || figure.unit == FigureUnit::Microseconds;
    return whole ? JsonValue(std::llround(value)) : JsonValue::rounded(value);
}

JsonValue frameOf(const ComparedRun& run, const std::optional<size_t>& number) {
    if (!number) {
        return nullptr;
    }
    const LoggedFrame& frame = run.log.frames[*number];
    JsonValue json;
    json["frame"] = *number;
    json["outcome"] = toString(frame.outcome);
    if (frame.outcome == Outcome::Dropped) {
        json["reason"] = toString(frame.dropReason);
    } else if (frame.outcome == Outcome::Shown) {
        json["vsync"] = frame.vsync;
        json["dwell"] = frame.dwellVsyncs;
        json["offset_us"] = frame.offsetUs;
    }
    return json;
}

std::string numberOf(const std::optional<size_t>& frame) {
    return frame ? std::to_string(*frame) : "-";
}

/// One row for each figure: of those that are the same, or of those that differ.
std::string figureRows(const ComparedPair& pair, bool changed) {
    std::string rows;
    const auto add = [&rows](const std::string& name, const std::string& a, const std::string& b,
                             const std::string& change) {
        rows += fmt::format(
            "<tr><th scope=\"row\">{}</th><td class=\"num\">{}</td><td "
            "class=\"num\">{}</td><td class=\"num\">{}</td></tr>\n",
            name, escaped(a), escaped(b), change);
    };
    if ((pair.a.pattern() != pair.b.pattern()) == changed) {
        add("pattern", pair.a.pattern(), pair.b.pattern(), "");
    }
    for (const auto& figure : pair.comparison.figures) {
        if ((figure.a != figure.b) == changed) {
            add(labelOf(figure), tellFigure(figure, figure.a), tellFigure(figure, figure.b),
                changeOf(figure));
        }
    }
    return rows;
}

std::string figureTables(const ComparedPair& pair) {
    const auto table = [](const std::string& rows) {
        return "<table><thead><tr><td></td><th scope=\"col\" class=\"num\">A</th><th scope=\"col\" "
               "class=\"num\">B</th><th scope=\"col\" class=\"num\">change</th></tr></thead>"
               "<tbody>\n" +
               rows + "</tbody></table>\n";
    };
    const std::string changed = figureRows(pair, true);
    return (changed.empty() ? "<p class=\"soft\">No figure changed.</p>" : table(changed)) +
           "<details><summary>Figures that are the same</summary>" +
           table(figureRows(pair, false)) + "</details>";
}

std::string frameTable(const ComparedPair& pair) {
    const auto& frames = pair.comparison.frames;
    if (frames.empty()) {
        return "<p class=\"soft\">All are the same.</p>";
    }
    std::string rows;
    for (size_t i = 0; i < std::min(frames.size(), kMostRows); ++i) {
        const FrameDifference& frame = frames[i];
        rows += fmt::format(
            "<tr data-us=\"{}\"><td class=\"num\">{}</td><td class=\"num\">{}</td><td>{}</td><td "
            "class=\"num\">{}</td><td>{}</td></tr>\n",
            frame.mediaTimeUs, seconds(frame.mediaTimeUs), numberOf(frame.a),
            tellFrame(pair.a, frame.a), numberOf(frame.b), tellFrame(pair.b, frame.b));
    }
    return fmt::format(
        "<p class=\"note\">{}{}. Click one to see it in the charts.</p><div class=\"scroll\" "
        "tabindex=\"0\"><table><thead><tr><th scope=\"col\" class=\"num\">media time</th><th "
        "scope=\"col\" class=\"num\">frame of A</th><th scope=\"col\">in A</th><th scope=\"col\" "
        "class=\"num\">frame of B</th><th scope=\"col\">in B</th></tr></thead><tbody "
        "id=\"frames\">\n{}</tbody></table></div>\n",
        counted(static_cast<int64_t>(frames.size()), "frame"),
        frames.size() > kMostRows ? fmt::format(", the first {} here", kMostRows) : "", rows);
}

std::string sideMarkup(const char* name, const ComparedRun& run) {
    return fmt::format("<dt>{}: {}</dt><dd>{}</dd>", name, escaped(run.name),
                       escaped(run.verdict()));
}

/// @param changed  for each frame of the run, whether it is not the same in the other
void addColumns(const ComparedRun& run, const std::vector<bool>& changed, ComparedColumns* to) {
    for (size_t i : byMediaTime(run.log)) {
        const LoggedFrame& frame = run.log.frames[i];
        const bool shown = frame.outcome == Outcome::Shown;
        to->media.add(frame.mediaTimeUs);
        to->dwell.add(shown ? std::optional(frame.dwellVsyncs) : std::nullopt);
        to->offset.add(shown ? std::optional(frame.offsetUs) : std::nullopt);
        to->lipSync.add(shown ? frame.lipSyncUs : std::nullopt);
        to->changed.add(changed[i] ? 1 : 0);
    }
}

}  // namespace

void printComparison(std::ostream& out, const ComparedPair& pair, bool frames) {
    const Comparison& comparison = pair.comparison;
    out << fmt::format("{}\n\nA         {}\n          {}\nB         {}\n          {}\n",
                       comparison.verdict, printable(pair.a.name), pair.a.verdict(),
                       printable(pair.b.name), pair.b.verdict());
    out << fmt::format(
        "frames    {} media times in both, {} only in A, {} only in B; {} not the same\n",
        comparison.common, comparison.onlyA, comparison.onlyB, comparison.frames.size());
    const auto row = [&out](const std::string& name, const std::string& a, const std::string& b,
                            const std::string& change) {
        out << fmt::format("          {:<34} {:>12} {:>12}{}{}\n", name, a, b,
                           change.empty() ? "" : "  ", change);
    };
    bool any = false;
    const auto changed = [&](const std::string& name, const std::string& a, const std::string& b,
                             const std::string& change) {
        if (!any) {
            out << fmt::format("changed   {:<34} {:>12} {:>12}\n", "", "A", "B");
            any = true;
        }
        row(name, a, b, change);
    };
    if (pair.a.pattern() != pair.b.pattern()) {
        changed("pattern", pair.a.pattern(), pair.b.pattern(), "");
    }
    for (const auto& figure : comparison.figures) {
        if (figure.a != figure.b) {
            changed(labelOf(figure), tellFigure(figure, figure.a), tellFigure(figure, figure.b),
                    changeOf(figure));
        }
    }
    if (comparison.mostMovedUs > 0) {
        out << fmt::format("moved     presentation times by up to {}\n",
                           milliseconds(comparison.mostMovedUs));
    }
    for (size_t i = 0; frames && i < comparison.frames.size(); ++i) {
        const FrameDifference& frame = comparison.frames[i];
        out << fmt::format("at {:>10}  A {:>6} {:<26}  B {:>6} {}\n", seconds(frame.mediaTimeUs),
                           numberOf(frame.a), tellFrame(pair.a, frame.a), numberOf(frame.b),
                           tellFrame(pair.b, frame.b));
    }
}

void writeComparisonJson(std::ostream& out, const ComparedPair& pair) {
    const Comparison& comparison = pair.comparison;
    JsonValue json;
    json["schema_version"] = 1;
    json["result"] = toString(comparison.result);
    json["verdict"] = comparison.verdict;
    json["no_worse"] = comparison.noWorse();
    json["a"] = sideOf(pair.a, pair.a.log);
    json["b"] = sideOf(pair.b, pair.b.log);
    json["figures_from"] = pair.a.told ? "summaries" : "event_logs";
    json["media_times_in_both"] = comparison.common;
    json["media_times_only_in_a"] = comparison.onlyA;
    json["media_times_only_in_b"] = comparison.onlyB;
    json["presentation_times_moved_us"] = comparison.mostMovedUs;
    for (const auto& figure : comparison.figures) {
        json["figures"][figure.key] = {{"a", valueOf(figure, figure.a)},
                                       {"b", valueOf(figure, figure.b)}};
    }
    json["frames"] = JsonValue::array();
    for (const auto& frame : comparison.frames) {
        json["frames"].push_back({{"media_us", frame.mediaTimeUs},
                                  {"a", frameOf(pair.a, frame.a)},
                                  {"b", frameOf(pair.b, frame.b)}});
    }
    out << json.dump(1) << "\n";
}

void writeComparisonPage(std::ostream& out, const ComparedPair& pair) {
    const Comparison& comparison = pair.comparison;
    std::vector<bool> inA(pair.a.log.frames.size());
    std::vector<bool> inB(pair.b.log.frames.size());
    for (const auto& frame : comparison.frames) {
        if (frame.a) {
            inA[*frame.a] = true;
        }
        if (frame.b) {
            inB[*frame.b] = true;
        }
    }
    ComparedColumns a;
    ComparedColumns b;
    addColumns(pair.a, inA, &a);
    addColumns(pair.b, inB, &b);
    const char* good = !comparison.noWorse()                                  ? "bad"
                       : comparison.result == ComparisonResult::NeitherBetter ? "warn"
                                                                              : "good";
    const std::string sides = fmt::format(
        "<dl class=\"sides\">{}{}</dl><p class=\"soft\">{} media times in both, {} only "
        "in A, {} only in B.</p>",
        sideMarkup("A", pair.a), sideMarkup("B", pair.b), comparison.common, comparison.onlyA,
        comparison.onlyB);
    writeComparisonPage(
        out, {comparison.verdict, good, sides, figureTables(pair), frameTable(pair)}, {&a, &b});
}

}  // namespace korvane::player
