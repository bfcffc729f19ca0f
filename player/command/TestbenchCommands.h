// SPDX-License-Identifier: Apache-2.0
// The commands of those who test: `run`, `list`, `compare`, `explore`, and `play --against`.
#pragma once

namespace korvane::player {

struct CommandLine;

/// @return an exit status
/// @throws UsageError, InputError, ScenarioError
int carryOutTestbenchCommand(const CommandLine& line, char** argv);

}  // namespace korvane::player
