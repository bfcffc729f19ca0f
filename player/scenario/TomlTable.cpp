// SPDX-License-Identifier: Apache-2.0
#include "player/scenario/TomlTable.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "player/base/Limits.h"
#include "player/base/Units.h"

namespace korvane::player {
namespace {

constexpr char kTimeWanted[] = "a time with its unit, such as \"2s\", \"40ms\", \"16us\"";

}  // namespace

std::optional<Range> parseRange(
    const std::string& text,
    const std::function<std::optional<int64_t>(const std::string&)>& readEnd) {
    const size_t dots = text.find("..");
    if (dots == std::string::npos) {
        const auto value = readEnd(text);
        return value ? std::optional(Range{*value, *value}) : std::nullopt;
    }
    const std::string first = text.substr(0, dots);
    const std::string last = text.substr(dots + 2);
    Range range;
    if (!first.empty()) {
        const auto value = readEnd(first);
        if (!value) {
            return std::nullopt;
        }
        range.least = *value;
    }
    if (!last.empty()) {
        const auto value = readEnd(last);
        if (!value) {
            return std::nullopt;
        }
        range.most = *value;
    }
    const bool open = first.empty() && last.empty();
    return open || range.least > range.most ? std::nullopt : std::optional(range);
}

TomlTable::TomlTable(const std::string& file, std::string name, const toml::table& table)
    : mFile(file), mName(std::move(name)), mTable(table) {}

const toml::node* TomlTable::find(const std::string& key) {
    mKnown.insert(key);
    return mTable.get(key);
}

bool TomlTable::has(const std::string& key) {
    return find(key) != nullptr;
}

void TomlTable::failAtLine(uint32_t line, const std::string& key, const std::string& message) {
    const std::string dot = mName.empty() || key.empty() ? "" : ".";
    throw ScenarioError(mFile + ":" + std::to_string(line) + ": " + mName + dot + key + ": " +
                        message);
}

void TomlTable::failAt(const toml::node& node, const std::string& key, const std::string& message) {
    failAtLine(node.source().begin.line, key, message);
}

void TomlTable::fail(const std::string& key, const std::string& message) {
    const toml::node* node = mTable.get(key);
    failAt(node != nullptr ? *node : mTable, key, message);
}

std::string TomlTable::string(const toml::node& node, const std::string& key,
                              const std::string& wanted) {
    const auto value = node.value<std::string>();
    if (!node.is_string() || !value) {
        failAt(node, key, "wants " + wanted);
    }
    return *value;
}

const toml::array& TomlTable::array(const toml::node& node, const std::string& key,
                                    const std::string& wanted) {
    if (!node.is_array()) {
        failAt(node, key, "wants a list of " + wanted);
    }
    return *node.as_array();
}

void TomlTable::text(const std::string& key, std::string* value) {
    if (const auto* node = find(key)) {
        *value = string(*node, key, "a text in quotes");
    }
}

void TomlTable::flag(const std::string& key, bool* value) {
    if (const auto* node = find(key)) {
        if (!node->is_boolean()) {
            failAt(*node, key, "wants true or false");
        }
        *value = *node->value<bool>();
    }
}

void TomlTable::integer(const std::string& key, int64_t* value, Range range) {
    if (const auto* node = find(key)) {
        const auto number = node->value<int64_t>();
        if (!node->is_integer() || !range.holds(*number)) {
            failAt(*node, key,
                   "wants a whole number from " + std::to_string(range.least) + " to " +
                       std::to_string(range.most));
        }
        *value = *number;
    }
}

void TomlTable::number(const std::string& key, double* value, double least, double most) {
    if (const auto* node = find(key)) {
        const auto number = node->value<double>();
        if (!node->is_number() || !(*number >= least && *number <= most)) {
            failAt(*node, key,
                   "wants a number from " + player::rate(least) + " to " + player::rate(most));
        }
        *value = *number;
    }
}

void TomlTable::time(const std::string& key, int64_t* value, Range range) {
    const auto* node = find(key);
    if (node == nullptr) {
        return;
    }
    if (node->is_integer() && *node->value<int64_t>() == 0 && range.holds(0)) {
        *value = 0;
        return;
    }
    const auto us = parseDuration(string(*node, key, kTimeWanted));
    if (!us) {
        failAt(*node, key, "'" + *node->value<std::string>() + "' is not " + kTimeWanted);
    }
    if (!range.holds(*us)) {
        failAt(*node, key,
               "'" + *node->value<std::string>() + "' is not from " + seconds(range.least) +
                   " to " + seconds(range.most));
    }
    *value = *us;
}

void TomlTable::time(const std::string& key, std::optional<int64_t>* value) {
    if (has(key)) {
        int64_t us = 0;
        time(key, &us);
        *value = us;
    }
}

void TomlTable::nanoseconds(const std::string& key, int64_t* value) {
    const auto* node = find(key);
    if (node == nullptr) {
        return;
    }
    const std::string text = string(*node, key, "nanoseconds, such as \"16683333ns\"");
    const bool unit = text.size() > 2 && text.substr(text.size() - 2) == "ns";
    const auto count = unit ? parseCount(text.substr(0, text.size() - 2)) : std::nullopt;
    if (!count || *count < INT32_MIN || *count > INT32_MAX) {
        failAt(*node, key, "'" + text + "' is not nanoseconds, such as \"16683333ns\"");
    }
    *value = *count;
}

void TomlTable::ppm(const std::string& key, double* value) {
    const auto* node = find(key);
    if (node == nullptr) {
        return;
    }
    const std::string wanted =
        "parts per million up to " + player::rate(kMostDriftPpm) + ", such as \"50ppm\"";
    const std::string text = string(*node, key, wanted);
    char* end = nullptr;
    const double number = std::strtod(text.c_str(), &end);
    if (end == text.c_str() || std::string(end) != "ppm" || !(std::abs(number) <= kMostDriftPpm)) {
        failAt(*node, key, "'" + text + "' is not " + wanted);
    }
    *value = number;
}

void TomlTable::rate(const std::string& key, FrameRate* value, double lowestHz, double highestHz) {
    const auto* node = find(key);
    if (node == nullptr) {
        return;
    }
    const auto taken = node->is_number()   ? std::optional(nominalRate(*node->value<double>()))
                       : node->is_string() ? parseRate(*node->value<std::string>())
                                           : std::nullopt;
    if (!taken || !(taken->hz() >= lowestHz && taken->hz() <= highestHz)) {
        failAt(*node, key,
               "wants a rate from " + player::rate(lowestHz) + " to " + player::rate(highestHz) +
                   " a second, such as 24, 23.976 or \"24000/1001\"");
    }
    *value = *taken;
}

void TomlTable::integers(const std::string& key, std::vector<int64_t>* values, Range range) {
    if (const auto* node = find(key)) {
        for (const auto& element : array(*node, key, "whole numbers")) {
            const auto number = element.value<int64_t>();
            if (!element.is_integer() || !range.holds(*number)) {
                failAt(element, key,
                       "wants whole numbers from " + std::to_string(range.least) + " to " +
                           std::to_string(range.most));
            }
            values->push_back(*number);
        }
    }
}

void TomlTable::texts(const std::string& key,
                      const std::function<void(const toml::node&, const std::string&)>& take) {
    if (const auto* node = find(key)) {
        for (const auto& element : array(*node, key, "texts in quotes")) {
            take(element, string(element, key, "texts in quotes"));
        }
    }
}

void TomlTable::times(const std::string& key, std::vector<int64_t>* values) {
    texts(key, [&](const toml::node& node, const std::string& text) {
        const auto us = parseDuration(text);
        if (!us || *us < 0) {
            failAt(node, key, "'" + text + "' is not " + kTimeWanted);
        }
        values->push_back(*us);
    });
}

void TomlTable::range(const std::string& key, std::optional<Range>* value) {
    const auto* node = find(key);
    if (node == nullptr) {
        return;
    }
    const auto parsed = node->is_integer()
                            ? std::optional(Range{*node->value<int64_t>(), *node->value<int64_t>()})
                        : node->is_string() ? parseRange(*node->value<std::string>(), parseCount)
                                            : std::nullopt;
    if (!parsed || (parsed->least < 0 && parsed->least != INT64_MIN)) {
        failAt(*node, key, "wants a count or a range, such as 3, \"1..\", \"..3\" or \"2..3\"");
    }
    *value = *parsed;
}

void TomlTable::timeRange(const std::string& key, std::optional<Range>* value) {
    const auto* node = find(key);
    if (node == nullptr) {
        return;
    }
    const std::string text = string(*node, key, kTimeWanted);
    auto parsed = parseRange(text, parseDuration);
    if (!parsed) {
        failAt(*node, key,
               "'" + text + "' is not " + kTimeWanted + ", or a range, such as \"-20ms..40ms\"");
    }
    if (text.find("..") == std::string::npos) {
        parsed->least = 0;
    }
    *value = *parsed;
}

void TomlTable::tables(const std::string& key, const std::function<void(TomlTable&)>& take) {
    const auto* node = find(key);
    if (node == nullptr) {
        return;
    }
    for (const auto& element : array(*node, key, "tables")) {
        if (!element.is_table()) {
            failAt(element, key, "wants tables, such as { at = \"2s\", for = \"100ms\" }");
        }
        TomlTable entry(mFile, mName.empty() ? key : mName + "." + key, *element.as_table());
        take(entry);
        entry.done();
    }
}

bool TomlTable::table(const std::string& key, const std::function<void(TomlTable&)>& take) {
    const auto* node = find(key);
    if (node == nullptr) {
        return false;
    }
    if (!node->is_table()) {
        failAt(*node, key, "is a table; write [" + key + "]");
    }
    TomlTable entry(mFile, mName.empty() ? key : mName + "." + key, *node->as_table());
    take(entry);
    entry.done();
    return true;
}

void TomlTable::spans(const std::string& key, std::vector<Span>* values) {
    tables(key, [&](TomlTable& entry) {
        Span span;
        entry.require("at");
        entry.require("for");
        entry.time("at", &span.atUs);
        entry.time("for", &span.forUs, {1, kLongestUs});
        values->push_back(span);
    });
    std::stable_sort(values->begin(), values->end(),
                     [](const Span& left, const Span& right) { return left.atUs < right.atUs; });
}

void TomlTable::require(const std::string& key) {
    if (!has(key)) {
        fail(key, "is missing");
    }
}

void TomlTable::done() {
    for (const auto& [key, node] : mTable) {
        if (mKnown.count(std::string(key.str())) != 0) {
            continue;
        }
        std::string known;
        for (const auto& name : mKnown) {
            known += (known.empty() ? "" : ", ") + name;
        }
        failAtLine(key.source().begin.line, std::string(key.str()),
                   "unknown key; there are: " + known);
    }
}

}  // namespace korvane::player
