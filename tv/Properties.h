// SPDX-License-Identifier: Apache-2.0
// The property store behind `property_get`. One per process, as on a device: it works before a Tv
// is switched on and after it is off. Any thread.
#pragma once

#include <optional>
#include <string>

namespace korvane::tv {

/// The property from which the library takes its log mask, a decimal sum of bits.
inline constexpr char kLogMaskProperty[] = "vendor.korvane.loglevels";
/// The default mask while a trace is recorded: the library's default and its counters.
inline constexpr int kTraceLogMask = 1 + 16;

/// @return false for a name that is empty or a value longer than 91 bytes; nothing is then stored
bool setProperty(const std::string& name, const std::string& value);
std::optional<std::string> getProperty(const std::string& name);
void clearProperties();

}  // namespace korvane::tv
