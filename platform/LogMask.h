// SPDX-License-Identifier: Apache-2.0
// The log mask: which of a source file's messages are written.
//
// Each source file that logs owns one LogMask, constant-initialised to 1, so that it also works
// while the library is being loaded. A class's constructor refreshes its file's mask from a system
// property. A message that is off costs one load and one branch: its arguments are not evaluated,
// and what they need is laid out away from the code that runs. Errors are always written.
#pragma once

#include <android/log.h>
#include <cutils/properties.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>

namespace korvane {

/// Bits of the mask, as the property "vendor.korvane.loglevels" holds them (decimal sum).
enum LogBit : int32_t {
    kLogInfo = 0x1,     ///< lifecycle and configuration
    kLogFrame = 0x2,    ///< one or a few lines per frame or buffer
    kLogDetail = 0x4,   ///< queue sizes, polling, vsync queries, calls
    kLogCounter = 0x10  ///< trace counters (no text)
};

/// One source file's mask. Any thread may test it while a constructor on a player's thread
/// refreshes it, so it is an atomic integer with relaxed order.
class LogMask {
public:
    constexpr LogMask() = default;

    bool has(int32_t bit) const { return (mBits.load(std::memory_order_relaxed) & bit) != 0; }
    int32_t value() const { return mBits.load(std::memory_order_relaxed); }
    void set(int32_t bits) { mBits.store(bits, std::memory_order_relaxed); }

private:
    std::atomic<int32_t> mBits{kLogInfo};
};

/// System property that holds the mask.
inline constexpr char kLogLevelProperty[] = "vendor.korvane.loglevels";

/// Reads an integer system property like `atoi`: text that is no number gives 0; a number that does
/// not fit is cut to its low 32 bits.
/// @param value  written only when the property is set and not empty
/// @return true when the property is set
inline bool readIntProperty(const char* name, int32_t* value) {
    char text[PROPERTY_VALUE_MAX] = {};
    if (property_get(name, text, nullptr) < 1) {
        return false;
    }
    *value = static_cast<int32_t>(std::strtol(text, nullptr, 10));
    return true;
}

}  // namespace korvane

// One macro per priority. `mask` and `tag` belong to the file, `bit` to the message. They are
// macros so that the arguments of a message that is off are not evaluated.
#define KORVANE_LOG_AT(mask, bit, priority, tag, ...)            \
    do {                                                         \
        if (__builtin_expect((mask).has(bit), false)) {          \
            __android_log_print((priority), (tag), __VA_ARGS__); \
        }                                                        \
    } while (false)
#define KORVANE_LOGI(mask, bit, tag, ...) \
    KORVANE_LOG_AT(mask, bit, ANDROID_LOG_INFO, tag, __VA_ARGS__)
#define KORVANE_LOGD(mask, bit, tag, ...) \
    KORVANE_LOG_AT(mask, bit, ANDROID_LOG_DEBUG, tag, __VA_ARGS__)
#define KORVANE_LOGE(tag, ...) __android_log_print(ANDROID_LOG_ERROR, (tag), __VA_ARGS__)

namespace korvane {

/// Refreshes a file's mask from the property and logs the result at info priority, under the new
/// mask.
inline void refreshLogMask(LogMask& mask, const char* tag) {
    int32_t bits = 0;
    if (readIntProperty(kLogLevelProperty, &bits)) {
        mask.set(bits);
        KORVANE_LOGI(mask, kLogInfo, tag, "%s set = %d\n", kLogLevelProperty, bits);
    } else {
        KORVANE_LOGI(mask, kLogInfo, tag, "%s is not set used def = %d\n", kLogLevelProperty,
                     mask.value());
    }
}

}  // namespace korvane
