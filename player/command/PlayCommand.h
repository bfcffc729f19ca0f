// SPDX-License-Identifier: Apache-2.0
// The command `play`: one media file on the simulated TV, then its report.
//
//   open film and outputs -> check all that was asked for -> empty the outputs -> play -> report
//
// Until all is accepted no output is touched.
#pragma once

#include "player/command/PlayOptions.h"

namespace korvane::player {

/// Lowest Android priority of the log lines that go to standard error.
int lowestLogPriority(const PlayOptions& options);

/// Plays and reports.
/// @return an exit status: kExitFailed when a frame or a buffer is missing, a picture was
/// overwritten on screen, no picture was shown, an expectation failed, or an output could not be
/// written whole; otherwise 128 plus a signal's number when that ended playback, kExitCutShort when
/// playback did not reach the film's end
/// @throws UsageError, InputError
int playFile(const PlayOptions& options);

}  // namespace korvane::player
