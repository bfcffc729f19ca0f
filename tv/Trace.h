// SPDX-License-Identifier: Apache-2.0
// Recording of what the process and the TV's models do into a file in Perfetto's format, which the
// Perfetto UI opens (ui.perfetto.dev).
//
//   the process's atrace calls   sections and asynchronous ones by thread, counters
//   its log                      as Android's log
//   traceState, ...              what the models and the player tell, by track
//
// Events are encoded into a bounded memory; in real time a thread of low priority moves them to the
// file 20 times a second. In virtual time, where writing takes no time, whoever fills a block
// writes it: a trace adds no thread. When the file cannot be written any more (disk full), playback
// continues, lost events are counted, and the packets written so far stay readable. One trace per
// process: it works before a Tv is switched on and after it is off. Any thread.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace korvane::tv {

/// Starts a recording; ends one that is running.
/// @param error  receives one line when the file cannot be created
bool startTrace(const std::string& path, std::string* error);

/// Whether a file is being recorded: ask before computing arguments for the calls below.
bool recordingTrace();

struct TraceReport {
    std::string path;
    int64_t written = 0;
    int64_t lost = 0;     ///< events that found the memory full or could not be written
    std::string failure;  ///< why the file is incomplete; empty if it is complete
};
/// Ends recording and closes the file. Idempotent.
TraceReport stopTrace();

// ---- what the models and the player tell: times are monotonic and may come late ----

/// A number or a text with a name.
struct TraceArgument {
    TraceArgument(const char* argumentName, int64_t value) : name(argumentName), number(value) {}
    TraceArgument(const char* argumentName, std::string value)
        : name(argumentName), isText(true), text(std::move(value)) {}

    const char* name;
    bool isText = false;
    int64_t number = 0;
    std::string text;
};

/// Details of a slice or an instant.
struct TraceDetails {
    int64_t frameNo = -1;      ///< arrows join the events of one frame in order of time; -1: none
    bool lastOfFrame = false;  ///< they end here
    std::vector<TraceArgument> arguments;
};

/// A track is made by its name; "group/name" puts it under a group. From this time on the track
/// shows this state, until the next call; an empty name shows none. A time before that of the call
/// before counts as that time.
void traceState(const std::string& track, const std::string& name, int64_t timeNs,
                const TraceDetails& details = {});
/// A slice of a track whose end is known. Slices of one track do not overlap.
void traceSlice(const std::string& track, const std::string& name, int64_t startNs, int64_t endNs,
                const TraceDetails& details = {});
void traceInstant(const std::string& track, const std::string& name, int64_t timeNs,
                  const TraceDetails& details = {});
/// A counter of this name has this value from this time on.
void traceCounter(const std::string& name, int64_t value, int64_t timeNs);

/// Android's terms for how a frame came on screen.
enum class PresentType : uint8_t { OnTime = 1, Late = 2, Early = 3, Dropped = 4 };

/// Causes, as bits; docs/tv.md says which of Android's terms each is shown as.
enum Jank : int32_t {
    kJankNone = 1,
    kJankClock = 4,          ///< prediction error
    kJankQueuedLate = 16,    ///< the compositor missed its deadline
    kJankHandedInLate = 64,  ///< the application missed its deadline
    kJankBuffersStuffed = 128,
    kJankUnknown = 256,
    kJankDropped = 1024
};

/// One frame's slices on the two tracks that Android people know: when it was expected on screen,
/// and when it was there. A slice with its end at or before 0 is left out.
struct TraceTimeline {
    bool ofDisplay = false;     ///< a picture that the display put on screen; else a content frame
    int64_t token = 0;          ///< its name: vsync of a display frame, number of a content frame
    int64_t displayToken = -1;  ///< of a content frame, the display frame that showed it; -1: none
    std::string layer;          ///< of a content frame
    int64_t expectedNs = 0;
    int64_t expectedEndNs = 0;
    int64_t actualNs = 0;
    int64_t actualEndNs = 0;
    PresentType present = PresentType::OnTime;
    int32_t jank = kJankNone;
};
void traceTimeline(const TraceTimeline& frame);

/// A line of Android's log.
struct TraceLogLine {
    int priority;
    const std::string& tag;
    const std::string& text;
};
/// At the present time, on the calling thread.
void traceLog(const TraceLogLine& line);

// ---- for tests ----

/// Enables the video tag without a file (tests of trace points).
void setTraceTagEnabled(bool enabled);

/// Sets the function that gets every trace point: kind 'B', 'E' or 'C' ('b' and 'e' for
/// asynchronous ones), name (empty for 'E'), value. Rules as for `observeLog`.
void observeTrace(std::function<void(char kind, const std::string& name, int64_t value)> observer);

}  // namespace korvane::tv
