// SPDX-License-Identifier: Apache-2.0
// A JSON value to be written: null, a literal (number or boolean, kept as text), a string, an array
// or an object whose keys keep the order in which they came.
//
// Code that writes JSON includes this file. The JSON library, whose templates took a tenth of the
// build time, is included by JsonValue.cpp alone.
#pragma once

#include <cstddef>
#include <initializer_list>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace korvane::player {

class JsonValue {
public:
    JsonValue(std::nullptr_t = nullptr) {}
    JsonValue(bool value) : mKind(Kind::Literal), mText(value ? "true" : "false") {}
    JsonValue(double value);
    template <typename Integer, std::enable_if_t<std::is_integral_v<Integer>, int> = 0>
    JsonValue(Integer value) : mKind(Kind::Literal), mText(std::to_string(value)) {}
    JsonValue(const char* text) : JsonValue(std::string(text)) {}
    JsonValue(std::string text) : mKind(Kind::String), mText(std::move(text)) {}
    template <typename Item>
    JsonValue(const std::vector<Item>& items)
        : mKind(Kind::Array), mItems(items.begin(), items.end()) {}
    /// An object if every item is a pair that begins with a string, else an array.
    JsonValue(std::initializer_list<JsonValue> items);
    static JsonValue array() { return JsonValue(Kind::Array); }
    static JsonValue object() { return JsonValue(Kind::Object); }
    /// Written with nine digits; further digits of a rate are rounding errors.
    static JsonValue rounded(double value);

    /// The member of that key, added if it is not there; null becomes an object.
    JsonValue& operator[](const std::string& key);
    /// Adds an item; null becomes an array.
    void push_back(JsonValue item);

    /// Bytes that are not UTF-8 are replaced.
    /// @param indent  spaces per level, each item on its own line; negative: one line without
    /// spaces
    std::string dump(int indent = -1) const;

private:
    enum class Kind { Null, Literal, String, Array, Object };

    explicit JsonValue(Kind kind) : mKind(kind) {}
    void write(std::string* out, int indent, size_t depth) const;

    Kind mKind = Kind::Null;
    std::string mText;
    std::vector<JsonValue> mItems;
    /// Of an object: the key of each item.
    std::vector<std::string> mKeys;
};

}  // namespace korvane::player
