// SPDX-License-Identifier: Apache-2.0
// Scenario files: TOML in, a Scenario out, or one line that says what is wrong and where.
//
// docs/scenarios.md describes every key. Values go straight into the plan of the playback. Those
// that a plan holds in another form, such as the spans of faults, are converted once the table is
// read.
#pragma once

#include <string>
#include <vector>

#include "player/scenario/Scenario.h"
#include "player/scenario/TomlTable.h"

namespace korvane::player {

/// Reads a scenario file. The path of a media file counts from the scenario's folder.
/// @throws ScenarioError
Scenario readScenario(const std::string& path);

/// Reads a scenario from text; messages and the scenario's name come from `path`.
/// @throws ScenarioError
Scenario parseScenario(const std::string& text, const std::string& path);

/// Reads the table of expectations (ExpectFile.cpp).
void readExpectations(TomlTable& table, Expectations* expect);

/// Reads expectations as a command line has them: the keys of the table, "KEY=VALUE", or "KEY" for
/// one that is true. Dashes in a key are underscores. A text needs no quotes; a value with quotes
/// in it, such as a list, is read as it stands.
/// @throws ScenarioError  "key: what is wrong"
Expectations parseExpectations(const std::vector<std::string>& arguments);

}  // namespace korvane::player
