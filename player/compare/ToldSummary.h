// SPDX-License-Identifier: Apache-2.0
// A report's summary, read back from the JSON beside the event log in a report folder. It has what
// the log lacks: the display's and the file's own rates, fences and waits for buffers, patterns in
// force, pictures overwritten, buffers that never came back.
#pragma once

#include <iosfwd>
#include <map>
#include <optional>
#include <string>

#include "player/report/Summary.h"

namespace korvane::player {

struct ToldSummary {
    std::string eventHash;
    std::string verdict;
    std::string pattern;
    Grade grade = Grade::NothingShown;
    std::map<std::string, double> numbers;  ///< by key

    /// Empty: it has no such key.
    std::optional<double> number(const std::string& key) const {
        const auto found = numbers.find(key);
        return found == numbers.end() ? std::nullopt : std::optional(found->second);
    }
};

/// @param name  for messages
/// @throws InputError if it is not a summary of this version
ToldSummary readSummary(std::istream& in, const std::string& name);

}  // namespace korvane::player
