// SPDX-License-Identifier: Apache-2.0
// property_get on the simulated TV's property store.
#include <cutils/properties.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <string>

#include "tv/Platform.h"

namespace {

/// Copies text with its terminating zero, cut to what a caller's buffer holds.
int copyValue(const char* text, size_t length, char* value) {
    const size_t kept = std::min<size_t>(length, PROPERTY_VALUE_MAX - 1);
    std::memcpy(value, text, kept);
    value[kept] = '\0';
    return static_cast<int>(kept);
}

}  // namespace

/// @param value  buffer of PROPERTY_VALUE_MAX bytes; always terminated afterwards
/// @param defaultValue  taken when the property is not set or empty; may be null
/// @return length of what `value` then holds
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
