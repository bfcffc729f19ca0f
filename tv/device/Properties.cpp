// SPDX-License-Identifier: Apache-2.0
// property_get on the simulated TV's property store.
#include <cutils/properties.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <string>

#include "tv/Properties.h"

namespace {

/// Copies text and a terminating zero, truncated to the caller's buffer.
int copyValue(const char* text, size_t length, char* value) {
    const size_t kept = std::min<size_t>(length, PROPERTY_VALUE_MAX - 1);
    std::memcpy(value, text, kept);
    value[kept] = '\0';
    return static_cast<int>(kept);
}

}  // namespace

/// @param value  buffer of PROPERTY_VALUE_MAX bytes; always terminated afterwards
/// @param defaultValue  used if the property is unset or empty; may be null
/// @return length of the string in `value`
extern "C" __attribute__((visibility("default"))) int property_get(const char* key, char* value,
                                                                   const char* defaultValue) {
    const std::optional<std::string> stored = korvane::tv::getProperty(key);
    if (stored && !stored->empty()) {
        return copyValue(stored->data(), stored->size(), value);
    }
    if (defaultValue == nullptr) {
        return copyValue("", 0, value);
    }
    return copyValue(defaultValue, std::strlen(defaultValue), value);
}
