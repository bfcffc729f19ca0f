// SPDX-License-Identifier: Apache-2.0
// `play --against LIBRARY`: the same playback on another build of the library and on the present
// one, each in a process of its own, then the comparison of the two.
//
//   DIR/before, DIR/after   what each playback leaves behind: report folders with --report DIR
//   DIR/compare.html        the comparison's page
//
// Without --report, event logs and summaries go to a temporary folder that is removed.
#pragma once

#include <iosfwd>

#include "player/command/PlayOptions.h"

namespace korvane::player {

/// @param argv  of this program; both playbacks get the same options
/// @return an exit status: that of `compare`, or of the playback that was refused or interrupted
/// @throws UsageError, InputError
int playAgainst(const PlayOptions& options, char** argv, std::ostream& out);

}  // namespace korvane::player
