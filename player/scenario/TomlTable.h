// SPDX-License-Identifier: Apache-2.0
// Reads one table of a TOML file, key by key.
//
// Each read names a key and the unit and range that its value must have; a key that is absent
// leaves the default. A wrong value throws one line, "file:line: table.key: what is wrong". After
// its reads a reader calls `finish`, which refuses unknown keys first and missing ones then, so
// that a misspelt key is called what it is. Checks of several keys together come after that.
#pragma once

#include <fmt/format.h>
#include <toml++/impl/forward_declarations.h>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "player/base/Errors.h"
#include "player/base/FrameRate.h"
#include "player/base/Limits.h"
#include "player/base/Range.h"

namespace korvane::player {

/// @param file  named in messages; empty: none
/// @throws ScenarioError
std::shared_ptr<const toml::table> parseToml(const std::string& text, const std::string& file);

class TomlTable {
public:
    /// @param file  as above
    /// @param name  path of the table within the file, empty for the file itself
    TomlTable(const std::string& file, std::string name, const toml::table& table);

    bool has(const std::string& key);
    /// Whether the value is this text.
    bool is(const std::string& key, const std::string& text);
    /// A text that is not empty.
    void text(const std::string& key, std::string* value);
    void flag(const std::string& key, bool* value);
    void flag(const std::string& key, std::optional<bool>* value);
    /// @param because  what a message adds on where the range comes from
    template <typename T>
    void integer(const std::string& key, T* value, Range range, const std::string& because = "") {
        if (const auto* node = find(key)) {
            *value = static_cast<T>(integerAt(*node, key, range, because));
        }
    }
    void number(const std::string& key, double* value, double least, double most);
    /// One of these names, each with the value that it stands for.
    template <typename T>
    void choice(const std::string& key, T* value,
                std::initializer_list<std::pair<const char*, T>> names) {
        std::string text;
        std::vector<std::string> known;
        this->text(key, &text);
        for (const auto& [name, meant] : names) {
            if (text == name) {
                *value = meant;
                return;
            }
            known.emplace_back(name);
        }
        if (has(key)) {
            fail(key, fmt::format("'{}' is {}", text, noneOf(known)));
        }
    }
    /// A time with its unit.
    void time(const std::string& key, int64_t* value, Range range = {0, kLongestUs});
    void time(const std::string& key, std::optional<int64_t>* value);
    void nanoseconds(const std::string& key, int32_t* value);
    /// Parts per million with the unit, "50ppm".
    void ppm(const std::string& key, double* value);
    /// Frames or vsyncs per second: a number, or a fraction in quotes.
    void rate(const std::string& key, FrameRate* value, double lowestHz, double highestHz);
    void rate(const std::string& key, double* hz, double lowestHz, double highestHz);
    void integers(const std::string& key, std::vector<int64_t>* values, Range range,
                  const std::string& because = "");
    void times(const std::string& key, std::vector<int64_t>* values);
    void texts(const std::string& key,
               const std::function<void(const toml::node&, const std::string&)>& take);
    /// A count or a range of counts.
    std::optional<Range> range(const std::string& key);
    /// A range of times; a single time means from 0 up to it.
    std::optional<Range> timeRange(const std::string& key);
    /// Tables in an array, in order. `take` finishes each.
    void tables(const std::string& key, const std::function<void(TomlTable&)>& take);
    /// One table, if there is one. `take` finishes it.
    void table(const std::string& key, const std::function<void(TomlTable&)>& take);
    /// Tables with `at` and `for`, by time.
    std::vector<Span> spans(const std::string& key);

    /// Refuses keys that are neither read so far nor named here, then required keys that are
    /// missing.
    void finish(std::initializer_list<const char*> required = {},
                std::initializer_list<const char*> optional = {});

    [[noreturn]] void fail(const std::string& key, const std::string& message);
    [[noreturn]] void failAt(const toml::node& node, const std::string& key,
                             const std::string& message);

private:
    /// "neither ebu nor itu", "none of exact, matroska, mpegts".
    static std::string noneOf(const std::vector<std::string>& names);
    const toml::node* find(const std::string& key);
    [[noreturn]] void failAtLine(uint32_t line, const std::string& key, const std::string& message);
    std::string textAt(const toml::node& node, const std::string& key, const std::string& wanted);
    int64_t integerAt(const toml::node& node, const std::string& key, Range range,
                      const std::string& because);
    int64_t timeAt(const toml::node& node, const std::string& key, const std::string& text,
                   Range range);
    const toml::array& arrayAt(const toml::node& node, const std::string& key,
                               const std::string& wanted);
    void refuseReversed(const toml::node& node, const std::string& key, const std::string& text,
                        const Range& range);

    const std::string& mFile;
    const std::string mName;
    const toml::table& mTable;
    std::set<std::string> mKnown;
};

}  // namespace korvane::player
