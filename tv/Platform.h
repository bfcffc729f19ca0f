// SPDX-License-Identifier: Apache-2.0
// The TV's platform services: properties, log, trace. Process-wide, as on a device: they work
// before a Tv is switched on and after it is off.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace korvane::tv {

/// The property store behind `property_get`. Any thread.
/// @return false for a name that is empty or a value longer than 91 bytes; nothing is then stored
bool setProperty(const std::string& name, const std::string& value);
std::optional<std::string> getProperty(const std::string& name);
void clearProperties();

/// One line that something in the process logged.
struct LogLine {
    int priority;  ///< Android's: 3 debug, 4 info, 5 warn, 6 error
    std::string tag;
    std::string text;  ///< as formatted, with the newline that it may carry
};

/// Log routing. Lines (at most 1023 bytes, as on a device) go to the observer, then, at or above
/// the threshold, to Android's liblog, which writes them to stderr. Lines logged before `openLog`
/// (while libraries are being loaded) are kept, at most 256, and follow then; without any `openLog`
/// they are written at exit.
/// @param lowestPriority  3 debug to 6 error; 8 writes nothing
void openLog(int lowestPriority);
/// Called on the logging thread, so on several at once, for every line of any priority; null
/// removes it. No call is under way any more when this returns. What an observer logs itself is not
/// observed; an observer must not call `observeLog`.
void observeLog(std::function<void(const LogLine&)> observer);

/// Recording of the atrace calls into a file in Chrome's trace-event JSON, which the Perfetto UI
/// opens. A trace point costs one entry in a bounded memory ring; a thread of low priority writes
/// the file. When the file cannot be written further (disk full), playback goes on, what is not
/// recorded is counted and the report says why; the events written so far stay readable.
/// @param error  receives one line when the file cannot be created
bool startTrace(const std::string& path, std::string* error);
/// Whether a file is being recorded; what makes up names for `traceSlice` asks first.
bool recordingTrace();
/// Events for the trace file from the TV's own models: what was on screen, as a slice on a track.
void traceSlice(const std::string& track, const std::string& name, int64_t startNs, int64_t endNs);
/// Switches the video tag's bit without a file (tests of trace points).
void setTraceTagEnabled(bool enabled);
/// Receives every trace point while set: kind 'B', 'E' or 'C' ('b' and 'e' for asynchronous ones),
/// name (empty for 'E'), value. Rules as for `observeLog`.
void observeTrace(std::function<void(char kind, const std::string& name, int64_t value)> observer);

struct TraceReport {
    std::string path;
    int64_t written = 0;
    int64_t lost = 0;     ///< events that found the ring full, or the file beyond writing
    std::string failure;  ///< empty when the file is whole
};
/// Ends recording and closes the file. Idempotent.
TraceReport stopTrace();

}  // namespace korvane::tv
