// SPDX-License-Identifier: Apache-2.0
// A table of a TOML file, read key by key with its place in the file at hand.
//
// Each read names a key, the unit and the range that it takes. A value of the wrong kind, unit or
// range ends the reading with one line, "file:line: table.key: what is wrong; what to write". Keys
// that nobody asked for are wrong as well: `done` refuses them, with the keys that there are.
#pragma once

#include <toml++/toml.h>
#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "player/base/Errors.h"
#include "player/base/FrameRate.h"
#include "player/base/Limits.h"
#include "player/base/Range.h"

namespace korvane::player {

/// "3", "1..", "..3", "2..3" through a reader of one end.
std::optional<Range> parseRange(
    const std::string& text,
    const std::function<std::optional<int64_t>(const std::string&)>& readEnd);

class TomlTable {
public:
    /// @param name  path of the table within the file, empty for the file itself
    TomlTable(const std::string& file, std::string name, const toml::table& table);

    bool has(const std::string& key);
    void text(const std::string& key, std::string* value);
    void flag(const std::string& key, bool* value);
    void integer(const std::string& key, int64_t* value, Range range);
    void number(const std::string& key, double* value, double least, double most);
    /// A time with its unit, at least 0 and at most `most` unless given otherwise.
    void time(const std::string& key, int64_t* value, Range range = {0, kLongestUs});
    void time(const std::string& key, std::optional<int64_t>* value);
    void nanoseconds(const std::string& key, int64_t* value);
    /// A rate in ppm, "50ppm".
    void ppm(const std::string& key, double* value);
    /// Frames or vsyncs a second: a number, or a fraction in quotes.
    void rate(const std::string& key, FrameRate* value, double lowestHz, double highestHz);
    void integers(const std::string& key, std::vector<int64_t>* values, Range range);
    void times(const std::string& key, std::vector<int64_t>* values);
    void texts(const std::string& key,
               const std::function<void(const toml::node&, const std::string&)>& take);
    /// A count or a range of counts.
    void range(const std::string& key, std::optional<Range>* value);
    /// A range of times; a single time means from 0 up to it.
    void timeRange(const std::string& key, std::optional<Range>* value);
    /// Tables in an array, in order.
    void tables(const std::string& key, const std::function<void(TomlTable&)>& take);
    /// One table; nothing when it is absent.
    bool table(const std::string& key, const std::function<void(TomlTable&)>& take);
    /// Tables with `at` and `for`.
    void spans(const std::string& key, std::vector<Span>* values);

    /// The key must be there.
    void require(const std::string& key);
    /// Refuses what was not asked for.
    void done();

    [[noreturn]] void fail(const std::string& key, const std::string& message);
    [[noreturn]] void failAt(const toml::node& node, const std::string& key,
                             const std::string& message);

private:
    const toml::node* find(const std::string& key);
    [[noreturn]] void failAtLine(uint32_t line, const std::string& key, const std::string& message);
    std::string string(const toml::node& node, const std::string& key, const std::string& wanted);
    const toml::array& array(const toml::node& node, const std::string& key,
                             const std::string& wanted);

    const std::string& mFile;
    const std::string mName;
    const toml::table& mTable;
    std::set<std::string> mKnown;
};

}  // namespace korvane::player
