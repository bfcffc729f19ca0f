// SPDX-License-Identifier: Apache-2.0
#include "player/base/JsonValue.h"

#include <fmt/core.h>

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>

namespace korvane::player {
namespace {

/// A string or a number as the JSON library writes it.
template <typename Value>
std::string written(const Value& value) {
    return nlohmann::json(value).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace

JsonValue::JsonValue(double value) : mKind(Kind::Literal), mText(written(value)) {}

JsonValue::JsonValue(std::initializer_list<JsonValue> items) : mKind(Kind::Array) {
    const auto isMember = [](const JsonValue& item) {
        return item.mKind == Kind::Array && item.mItems.size() == 2 &&
               item.mItems[0].mKind == Kind::String;
    };
    if (!std::all_of(items.begin(), items.end(), isMember)) {
        mItems = items;
        return;
    }
    mKind = Kind::Object;
    for (const JsonValue& item : items) {
        (*this)[item.mItems[0].mText] = item.mItems[1];
    }
}

JsonValue JsonValue::rounded(double value) {
    JsonValue json(std::isfinite(value) ? Kind::Literal : Kind::Null);
    json.mText = fmt::format("{:.9g}", value);
    return json;
}

JsonValue& JsonValue::operator[](const std::string& key) {
    if (mKind == Kind::Null) {
        *this = object();
    }
    const auto at = std::find(mKeys.begin(), mKeys.end(), key) - mKeys.begin();
    if (static_cast<size_t>(at) == mKeys.size()) {
        mKeys.push_back(key);
        mItems.emplace_back();
    }
    return mItems[static_cast<size_t>(at)];
}

void JsonValue::push_back(JsonValue item) {
    if (mKind == Kind::Null) {
        *this = array();
    }
    mItems.push_back(std::move(item));
}

std::string JsonValue::dump(int indent) const {
    std::string out;
    write(&out, indent, 0);
    return out;
}

void JsonValue::write(std::string* out, int indent, size_t depth) const {
    if (mKind != Kind::Array && mKind != Kind::Object) {
        *out += mKind == Kind::Null ? "null" : mKind == Kind::String ? written(mText) : mText;
        return;
    }
    const bool isObject = mKind == Kind::Object;
    const auto line = [&](size_t levels) {
        if (indent >= 0 && !mItems.empty()) {
            *out += "\n" + std::string(levels * static_cast<size_t>(indent), ' ');
        }
    };
    *out += isObject ? "{" : "[";
    for (size_t i = 0; i < mItems.size(); ++i) {
        *out += i > 0 ? "," : "";
        line(depth + 1);
        if (isObject) {
            *out += written(mKeys[i]) + (indent >= 0 ? ": " : ":");
        }
        mItems[i].write(out, indent, depth + 1);
    }
    line(depth);
    *out += isObject ? "}" : "]";
}

}  // namespace korvane::player
