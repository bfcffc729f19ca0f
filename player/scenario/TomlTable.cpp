// SPDX-License-Identifier: Apache-2.0
#include "player/scenario/TomlTable.h"

#include <fmt/format.h>
#include <toml++/toml.h>
#include <algorithm>

#include "player/base/Units.h"

namespace korvane::player {
namespace {

constexpr char kTimeWanted[] = "a time with its unit, such as \"2s\", \"40ms\", \"16us\"";

/// A time as scenarios write it, in the largest unit without a fraction: "25h", "21333us".
std::string duration(int64_t us) {
    constexpr std::pair<int64_t, const char*> kUnits[] = {
        {3'600'000'000, "h"}, {60'000'000, "m"}, {1'000'000, "s"}, {1'000, "ms"}};
    for (const auto& [unitUs, name] : kUnits) {
        if (us != 0 && us % unitUs == 0) {
            return std::to_string(us / unitUs) + name;
        }
    }
    return us == 0 ? "0s" : std::to_string(us) + "us";
}

/// "3", "1..", "..3", "2..3" through a reader of one end.
Range parseRange(const std::string& text,
                 const std::function<int64_t(const std::string&)>& readEnd) {
    const size_t dots = text.find("..");
    const std::string first = text.substr(0, dots);
    const std::string last = dots == std::string::npos ? first : text.substr(dots + 2);
    Range range;
    if (!first.empty() || last.empty()) {
        range.least = readEnd(first);
    }
    if (!last.empty()) {
        range.most = readEnd(last);
    }
    return range;
}

/// "file:line: ", or nothing for what comes from no file.
std::string place(const std::string& file, uint32_t line) {
    return file.empty() ? "" : fmt::format("{}:{}: ", file, line);
}

}  // namespace

std::shared_ptr<const toml::table> parseToml(const std::string& text, const std::string& file) {
    try {
        return std::make_shared<toml::table>(toml::parse(text, file));
    } catch (const toml::parse_error& error) {
        std::string what(error.description());
        std::replace(what.begin(), what.end(), '\n', ' ');
        throw ScenarioError(place(file, error.source().begin.line) + "not TOML: " + what);
    }
}

TomlTable::TomlTable(const std::string& file, std::string name, const toml::table& table)
    : mFile(file), mName(std::move(name)), mTable(table) {}

std::string TomlTable::noneOf(const std::vector<std::string>& names) {
    return names.size() == 2 ? fmt::format("neither {} nor {}", names[0], names[1])
                             : fmt::format("none of {}", fmt::join(names, ", "));
}

const toml::node* TomlTable::find(const std::string& key) {
    mKnown.insert(key);
    return mTable.get(key);
}

bool TomlTable::has(const std::string& key) {
    return find(key) != nullptr;
}

bool TomlTable::is(const std::string& key, const std::string& text) {
    const auto* node = find(key);
    return node != nullptr && node->value<std::string>() == text;
}

void TomlTable::failAtLine(uint32_t line, const std::string& key, const std::string& message) {
    const char* dot = mName.empty() || key.empty() ? "" : ".";
    throw ScenarioError(fmt::format("{}{}{}{}: {}", place(mFile, line), mName, dot, key, message));
}

void TomlTable::failAt(const toml::node& node, const std::string& key, const std::string& message) {
    failAtLine(node.source().begin.line, key, message);
}

void TomlTable::fail(const std::string& key, const std::string& message) {
    const toml::node* node = mTable.get(key);
    failAt(node != nullptr ? *node : mTable, key, message);
}

std::string TomlTable::textAt(const toml::node& node, const std::string& key,
                              const std::string& wanted) {
    const auto value = node.value<std::string>();
    if (!node.is_string() || !value) {
        failAt(node, key, "wants " + wanted);
    }
    return *value;
}

int64_t TomlTable::integerAt(const toml::node& node, const std::string& key, Range range,
                             const std::string& because) {
    const auto number = node.value<int64_t>();
    if (!node.is_integer() || !range.holds(*number)) {
        failAt(
            node, key,
            fmt::format("wants a whole number from {} to {}{}", range.least, range.most, because));
    }
    return *number;
}

int64_t TomlTable::timeAt(const toml::node& node, const std::string& key, const std::string& text,
                          Range range) {
    const auto us = parseDuration(text);
    if (!us && !isTooLong(text)) {
        failAt(node, key, fmt::format("'{}' is not {}", text, kTimeWanted));
    }
    if (!us || !range.holds(*us)) {
        failAt(node, key,
               fmt::format("'{}' is not from {} to {}", text, duration(range.least),
                           duration(range.most)));
    }
    return *us;
}

const toml::array& TomlTable::arrayAt(const toml::node& node, const std::string& key,
                                      const std::string& wanted) {
    if (!node.is_array()) {
        failAt(node, key, "wants a list of " + wanted);
    }
    return *node.as_array();
}

void TomlTable::text(const std::string& key, std::string* value) {
    if (const auto* node = find(key)) {
        *value = textAt(*node, key, "a text in quotes");
        if (value->empty()) {
            failAt(*node, key, "is empty");
        }
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

void TomlTable::flag(const std::string& key, std::optional<bool>* value) {
    if (has(key)) {
        flag(key, &value->emplace());
    }
}

void TomlTable::number(const std::string& key, double* value, double least, double most) {
    if (const auto* node = find(key)) {
        const auto number = node->value<double>();
        if (!node->is_number() || !(*number >= least && *number <= most)) {
            failAt(*node, key, fmt::format("wants a number from {} to {}", least, most));
        }
        *value = *number;
    }
}

void TomlTable::time(const std::string& key, int64_t* value, Range range) {
    if (const auto* node = find(key)) {
        const bool zero = node->is_integer() && *node->value<int64_t>() == 0;
        *value = timeAt(*node, key, zero ? "0s" : textAt(*node, key, kTimeWanted), range);
    }
}

void TomlTable::time(const std::string& key, std::optional<int64_t>* value) {
    if (has(key)) {
        time(key, &value->emplace());
    }
}

void TomlTable::nanoseconds(const std::string& key, int32_t* value) {
    const auto* node = find(key);
    if (node == nullptr) {
        return;
    }
    const std::string text = textAt(*node, key, "nanoseconds, such as \"16683333ns\"");
    const bool unit = text.size() > 2 && text.substr(text.size() - 2) == "ns";
    const auto count = unit ? parseCount(text.substr(0, text.size() - 2)) : std::nullopt;
    if (!count || *count > INT32_MAX) {
        failAt(*node, key, "'" + text + "' is not nanoseconds, such as \"16683333ns\"");
    }
    *value = static_cast<int32_t>(*count);
}

void TomlTable::ppm(const std::string& key, double* value) {
    const auto* node = find(key);
    if (node == nullptr) {
        return;
    }
    const std::string wanted =
        fmt::format("parts per million up to {}, such as \"50ppm\"", kMostDriftPpm);
    const std::string text = textAt(*node, key, wanted);
    const auto drift = parseDrift(text);
    const bool bare = parseDrift(text + "ppm").has_value();
    if (!drift || bare) {
        failAt(*node, key, fmt::format("'{}' is not {}", text, wanted));
    }
    *value = *drift;
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
               fmt::format("wants a rate from {} to {} a second, such as 24, 23.976 or "
                           "\"24000/1001\"",
                           lowestHz, highestHz));
    }
    *value = *taken;
}

void TomlTable::rate(const std::string& key, double* hz, double lowestHz, double highestHz) {
    if (has(key)) {
        FrameRate taken;
        rate(key, &taken, lowestHz, highestHz);
        *hz = taken.hz();
    }
}

void TomlTable::integers(const std::string& key, std::vector<int64_t>* values, Range range,
                         const std::string& because) {
    if (const auto* node = find(key)) {
        for (const auto& element : arrayAt(*node, key, "whole numbers")) {
            values->push_back(integerAt(element, key, range, because));
        }
    }
}

void TomlTable::texts(const std::string& key,
                      const std::function<void(const toml::node&, const std::string&)>& take) {
    if (const auto* node = find(key)) {
        for (const auto& element : arrayAt(*node, key, "texts in quotes")) {
            take(element, textAt(element, key, "texts in quotes"));
        }
    }
}

void TomlTable::times(const std::string& key, std::vector<int64_t>* values) {
    texts(key, [&](const toml::node& node, const std::string& text) {
        values->push_back(timeAt(node, key, text, {0, kLongestUs}));
    });
}

void TomlTable::refuseReversed(const toml::node& node, const std::string& key,
                               const std::string& text, const Range& range) {
    if (range.least > range.most) {
        failAt(node, key, fmt::format("'{}' is reversed; write the smaller end first", text));
    }
}

std::optional<Range> TomlTable::range(const std::string& key) {
    const auto* node = find(key);
    if (node == nullptr) {
        return std::nullopt;
    }
    const auto text = node->is_integer() ? std::to_string(*node->value<int64_t>())
                                         : node->value<std::string>().value_or("");
    const auto readEnd = [&](const std::string& end) {
        const auto count = parseCount(end);
        if (!count) {
            failAt(*node, key, "wants a count or a range, such as 3, \"1..\", \"..3\" or \"2..3\"");
        }
        return *count;
    };
    const Range range = parseRange(text, readEnd);
    refuseReversed(*node, key, text, range);
    return range;
}

std::optional<Range> TomlTable::timeRange(const std::string& key) {
    const auto* node = find(key);
    if (node == nullptr) {
        return std::nullopt;
    }
    const std::string wanted = std::string(kTimeWanted) + ", or a range, such as \"-20ms..40ms\"";
    const std::string text = textAt(*node, key, wanted);
    const bool single = text.find("..") == std::string::npos;
    Range range = parseRange(text, [&](const std::string& end) {
        return timeAt(*node, key, end, {single ? 0 : -kLongestUs, kLongestUs});
    });
    range.least = single ? 0 : range.least;
    refuseReversed(*node, key, text, range);
    return range;
}

void TomlTable::tables(const std::string& key, const std::function<void(TomlTable&)>& take) {
    const auto* node = find(key);
    if (node == nullptr) {
        return;
    }
    for (const auto& element : arrayAt(*node, key, "tables")) {
        if (!element.is_table()) {
            failAt(element, key, "wants tables, such as { at = \"2s\", for = \"100ms\" }");
        }
        TomlTable entry(mFile, mName.empty() ? key : mName + "." + key, *element.as_table());
        take(entry);
    }
}

void TomlTable::table(const std::string& key, const std::function<void(TomlTable&)>& take) {
    const auto* node = find(key);
    if (node == nullptr) {
        return;
    }
    if (!node->is_table()) {
        failAt(*node, key, "is a table; write [" + key + "]");
    }
    TomlTable entry(mFile, mName.empty() ? key : mName + "." + key, *node->as_table());
    take(entry);
}

std::vector<Span> TomlTable::spans(const std::string& key) {
    std::vector<Span> spans;
    tables(key, [&](TomlTable& entry) {
        Span span;
        entry.time("at", &span.atUs);
        entry.time("for", &span.forUs, {1, kLongestUs});
        entry.finish({"at", "for"});
        spans.push_back(span);
    });
    std::stable_sort(spans.begin(), spans.end(),
                     [](const Span& left, const Span& right) { return left.atUs < right.atUs; });
    return spans;
}

void TomlTable::finish(std::initializer_list<const char*> required,
                       std::initializer_list<const char*> optional) {
    mKnown.insert(required.begin(), required.end());
    mKnown.insert(optional.begin(), optional.end());
    for (const auto& [key, node] : mTable) {
        if (mKnown.count(std::string(key.str())) == 0) {
            failAtLine(key.source().begin.line, std::string(key.str()),
                       fmt::format("unknown key; there are: {}", fmt::join(mKnown, ", ")));
        }
    }
    for (const char* key : required) {
        if (mTable.get(key) == nullptr) {
            fail(key, "is missing");
        }
    }
}

}  // namespace korvane::player
