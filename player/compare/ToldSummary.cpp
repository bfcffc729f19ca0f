// SPDX-License-Identifier: Apache-2.0
#include "player/compare/ToldSummary.h"

#include <cstdint>
#include <istream>
#include <nlohmann/json.hpp>

#include "player/base/Errors.h"
#include "player/base/Text.h"
#include "player/report/Report.h"

namespace korvane::player {
namespace {

std::optional<Grade> gradeOf(const std::string& text) {
    for (int i = 0; i <= static_cast<int>(Grade::Even); ++i) {
        const auto grade = static_cast<Grade>(i);
        if (text == toString(grade)) {
            return grade;
        }
    }
    return std::nullopt;
}

}  // namespace

ToldSummary readSummary(std::istream& in, const std::string& name) {
    const auto json = nlohmann::json::parse(in, nullptr, false);
    const auto text = [&json](const char* key) {
        const auto found = json.find(key);
        return found != json.end() && found->is_string() ? found->get<std::string>() : "";
    };
    const auto version = json.find("schema_version");
    const bool known = version != json.end() && version->is_number_integer() &&
                       version->get<int64_t>() == kSummarySchemaVersion;
    const auto grade = known ? gradeOf(text("grade")) : std::nullopt;
    if (!grade) {
        throw InputError("'" + printable(name) +
                         "' is no whole summary of this version; play it again, or give the file "
                         "events.txt beside it");
    }
    ToldSummary told{text("event_hash"), text("verdict"), text("pattern"), *grade, {}};
    for (const auto& [key, value] : json.items()) {
        if (value.is_number()) {
            told.numbers[key] = value.get<double>();
        }
    }
    return told;
}

}  // namespace korvane::player
