// SPDX-License-Identifier: Apache-2.0
// Scenario files: TOML in, a Scenario out, or one line that says what is wrong and where.
//
// docs/scenarios.md describes every key.
#pragma once

#include <string>

#include "player/scenario/Scenario.h"
#include "player/scenario/TomlTable.h"

namespace korvane::player {

/// Reads a scenario file. A real file named as content is looked up beside it.
/// @throws ScenarioError
Scenario readScenario(const std::string& path);

/// Reads a scenario from text; `path` stands in messages and gives the scenario its name.
/// @throws ScenarioError
Scenario parseScenario(const std::string& text, const std::string& path);

/// Reads the table of expectations (ExpectFile.cpp).
void readExpectations(TomlTable& table, Expectations* expect);

}  // namespace korvane::player
