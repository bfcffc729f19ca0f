// SPDX-License-Identifier: Apache-2.0
// Routing of what the process logs. A line (at most 1023 bytes, as on a device) goes to the
// observer, then, at or above the threshold, to Android's liblog, which writes it to stderr. One
// log per process: it works before a Tv is switched on and after it is off. Any thread.
#pragma once

#include <functional>
#include <string>

namespace korvane::tv {

/// One line that something in the process logged.
struct LogLine {
    int priority;  ///< Android's: 3 debug, 4 info, 5 warn, 6 error
    std::string tag;
    std::string text;  ///< as formatted, with its trailing newline if it has one
};

/// Sets the threshold. Up to 256 lines logged earlier, while libraries are being loaded, are kept
/// and written now; without any `openLog` they are written at exit.
/// @param lowestPriority  3 debug to 6 error; 8 writes nothing
void openLog(int lowestPriority);

/// From now on, of lines that differ only in numbers, writes the first and counts the others. The
/// observer gets them all.
void beginSums();
/// Writes a line for each kind that was counted, and counts no more.
void endSums();

/// Sets the function that gets every line of any priority; null removes it. It runs on the logging
/// thread, so on several at once. When this returns, no call of the earlier observer is running.
/// Lines that an observer logs itself are not observed. An observer must not call `observeLog`.
void observeLog(std::function<void(const LogLine&)> observer);

}  // namespace korvane::tv
