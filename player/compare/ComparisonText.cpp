// SPDX-License-Identifier: Apache-2.0
#include "player/compare/ComparisonText.h"

#include <fmt/format.h>
#include <fmt/ostream.h>

#include <algorithm>
#include <cmath>
#include <ostream>

#include "player/base/JsonValue.h"
#include "player/base/Text.h"
#include "player/base/Units.h"
#include "player/report/Words.h"

namespace korvane::player {
namespace {

/// A browser still scrolls so many rows.
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

std::string patternOf(const ComparedRun& run) {
    const auto& stretches = run.summary.stretches;
    return stretches.empty() || stretches[0].seen.empty() ? "-" : stretches[0].seen;
}

/// Characters that mean something to HTML, as what they stand for.
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
    side["grade"] = toString(run.summary.grade);
    side["verdict"] = run.summary.verdict;
    side["pattern"] = patternOf(run);
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

constexpr const char* kPageHead = R"(<!DOCTYPE html>
<html lang="en"><head><meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title>Comparison of two playbacks</title>
<style>
:root { color-scheme: light dark }
body { font: 16px/1.5 system-ui, sans-serif; max-width: 70em; margin: 2em auto; padding: 0 1em }
table { border-collapse: collapse; margin: 1em 0 }
caption { text-align: left; font-weight: bold; padding: .3em 0 }
th, td { text-align: left; padding: .2em 1em .2em 0; border-bottom: 1px solid #8886 }
td.n { text-align: right; font-variant-numeric: tabular-nums }
.changed { font-weight: bold }
</style></head><body>
)";

void writeFigureTable(std::ostream& out, const ComparedPair& pair) {
    fmt::print(out,
               "<table><caption>Figures</caption><thead><tr><th scope=\"col\">figure</th><th "
               "scope=\"col\">A</th><th scope=\"col\">B</th><th scope=\"col\">change</th></tr>"
               "</thead><tbody>\n<tr><th scope=\"row\">pattern</th><td class=\"n\">{}</td><td "
               "class=\"n\">{}</td><td></td></tr>\n",
               escaped(patternOf(pair.a)), escaped(patternOf(pair.b)));
    for (const auto& figure : pair.comparison.figures) {
        const std::string change = changeOf(figure);
        fmt::print(out,
                   "<tr{}><th scope=\"row\">{}</th><td class=\"n\">{}</td><td class=\"n\">{}</td>"
                   "<td class=\"n\">{}</td></tr>\n",
                   change.empty() ? "" : " class=\"changed\"", labelOf(figure),
                   tellFigure(figure, figure.a), tellFigure(figure, figure.b), change);
    }
    out << "</tbody></table>\n";
}

void writeFrameTable(std::ostream& out, const ComparedPair& pair) {
    const auto& frames = pair.comparison.frames;
    fmt::print(out, "<table><caption>Frames that are not the same: {}{}</caption>", frames.size(),
               frames.size() > kMostRows ? fmt::format(", the first {} here", kMostRows) : "");
    out << "<thead><tr><th scope=\"col\">media time</th><th scope=\"col\">frame of A</th><th "
           "scope=\"col\">in A</th><th scope=\"col\">frame of B</th><th scope=\"col\">in "
           "B</th></tr></thead><tbody>\n";
    for (size_t i = 0; i < std::min(frames.size(), kMostRows); ++i) {
        const FrameDifference& frame = frames[i];
        fmt::print(out,
                   "<tr><td class=\"n\">{}</td><td class=\"n\">{}</td><td>{}</td><td "
                   "class=\"n\">{}</td><td>{}</td></tr>\n",
                   seconds(frame.mediaTimeUs), numberOf(frame.a), tellFrame(pair.a, frame.a),
                   numberOf(frame.b), tellFrame(pair.b, frame.b));
    }
    out << "</tbody></table>\n";
}

}  // namespace

void printComparison(std::ostream& out, const ComparedPair& pair, bool frames) {
    const Comparison& comparison = pair.comparison;
    fmt::print(out, "{}\n\nA         {}\n          {}\nB         {}\n          {}\n",
               comparison.verdict, printable(pair.a.name), pair.a.summary.verdict,
               printable(pair.b.name), pair.b.summary.verdict);
    fmt::print(out,
               "frames    {} media times in both, {} only in A, {} only in B; {} not the same\n",
               comparison.common, comparison.onlyA, comparison.onlyB, comparison.frames.size());
    const auto row = [&out](const std::string& name, const std::string& a, const std::string& b,
                            const std::string& change) {
        fmt::print(out, "          {:<34} {:>12} {:>12}{}{}\n", name, a, b,
                   change.empty() ? "" : "  ", change);
    };
    bool any = false;
    const auto changed = [&](const std::string& name, const std::string& a, const std::string& b,
                             const std::string& change) {
        if (!any) {
            fmt::print(out, "changed   {:<34} {:>12} {:>12}\n", "", "A", "B");
            any = true;
        }
        row(name, a, b, change);
    };
    if (patternOf(pair.a) != patternOf(pair.b)) {
        changed("pattern", patternOf(pair.a), patternOf(pair.b), "");
    }
    for (const auto& figure : comparison.figures) {
        if (figure.a != figure.b) {
            changed(labelOf(figure), tellFigure(figure, figure.a), tellFigure(figure, figure.b),
                    changeOf(figure));
        }
    }
    if (comparison.mostMovedUs > 0) {
        fmt::print(out, "moved     presentation times by up to {}\n",
                   milliseconds(comparison.mostMovedUs));
    }
    for (size_t i = 0; frames && i < comparison.frames.size(); ++i) {
        const FrameDifference& frame = comparison.frames[i];
        fmt::print(out, "at {:>10}  A {:>6} {:<26}  B {:>6} {}\n", seconds(frame.mediaTimeUs),
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
    out << kPageHead;
    fmt::print(out, "<h1>{}</h1>\n<dl><dt>A: {}</dt><dd>{}</dd><dt>B: {}</dt><dd>{}</dd></dl>\n",
               escaped(comparison.verdict), escaped(pair.a.name), escaped(pair.a.summary.verdict),
               escaped(pair.b.name), escaped(pair.b.summary.verdict));
    fmt::print(out, "<p>{} media times in both, {} only in A, {} only in B.</p>\n",
               comparison.common, comparison.onlyA, comparison.onlyB);
    writeFigureTable(out, pair);
    writeFrameTable(out, pair);
    out << "</body></html>\n";
}

}  // namespace korvane::player
