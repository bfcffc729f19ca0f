// SPDX-License-Identifier: Apache-2.0
// A folder that a run writes into. It is created, with those above it, and locked against other
// runs as long as this lives. One that was created for a command that is then refused is removed
// again.
#pragma once

#include <string>
#include <vector>

#include "tv/UniqueFd.h"

namespace korvane::player {

class OutputFolder {
public:
    /// @param path  empty: not asked for, and nothing here does anything
    /// @throws UsageError if it cannot be created, or another run writes into it
    OutputFolder(const std::string& option, const std::string& path);
    ~OutputFolder();
    OutputFolder(const OutputFolder&) = delete;
    OutputFolder& operator=(const OutputFolder&) = delete;

    /// The command is accepted.
    void keep() { mCreated.clear(); }

private:
    tv::UniqueFd mHeld;
    std::vector<std::string> mCreated;  ///< the deepest first
};

/// A file of a folder; empty without a folder.
std::string inFolder(const std::string& folder, const std::string& file);

}  // namespace korvane::player
