// SPDX-License-Identifier: Apache-2.0
// The command `compare`: two playbacks side by side, from their event logs.
#pragma once

#include <iosfwd>
#include <string>

namespace korvane::player {

struct CompareOptions {
    std::string a;  ///< an event log, or a folder that has one as events.txt
    std::string b;
    std::string aName;  ///< what to call them; empty: by their paths
    std::string bName;
    bool frames = false;  ///< print each frame that is not the same
    std::string jsonFile;
    std::string reportFolder;  ///< gets a page; empty: none
};

/// @return an exit status: kExitFailed when B is worse, the films are not the same, or an output
/// could not be written
/// @throws UsageError, InputError
int compareFiles(const CompareOptions& options, std::ostream& out);

}  // namespace korvane::player
