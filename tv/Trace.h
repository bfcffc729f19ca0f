// SPDX-License-Identifier: Apache-2.0
// Recording of the process's atrace calls into a file in Chrome's trace-event JSON, which the
// Perfetto UI opens. A trace point costs one entry in a bounded memory ring; a thread of low
// priority writes the file. When the file cannot be written any more (disk full), playback
// continues, lost events are counted, and the events written so far stay readable. One trace per
// process: it works before a Tv is switched on and after it is off. Any thread.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace korvane::tv {

/// Starts a recording; ends one that is running.
/// @param error  receives one line when the file cannot be created
bool startTrace(const std::string& path, std::string* error);

/// Whether a file is being recorded: ask before making up names for `traceSlice`.
bool recordingTrace();

/// Adds an event of the TV's own models to the file, e.g. what was on screen: a slice on a track.
void traceSlice(const std::string& track, const std::string& name, int64_t startNs, int64_t endNs);

struct TraceReport {
    std::string path;
    int64_t written = 0;
    int64_t lost = 0;     ///< events that found the ring full or could not be written
    std::string failure;  ///< why the file is incomplete; empty if it is complete
};
/// Ends recording and closes the file. Idempotent.
TraceReport stopTrace();

/// Enables the video tag without a file (tests of trace points).
void setTraceTagEnabled(bool enabled);

/// Sets the function that gets every trace point: kind 'B', 'E' or 'C' ('b' and 'e' for
/// asynchronous ones), name (empty for 'E'), value. Rules as for `observeLog`.
void observeTrace(std::function<void(char kind, const std::string& name, int64_t value)> observer);

}  // namespace korvane::tv
