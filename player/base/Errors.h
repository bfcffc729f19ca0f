// SPDX-License-Identifier: Apache-2.0
// What can be wrong with what the user gave, each with one line that says what it is and what to
// do. Both commands end with status 2 on any of them.
#pragma once

#include <stdexcept>

namespace korvane::player {

/// The command line asks for something that cannot be done.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// The media cannot be played.
class InputError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// A scenario file cannot be read.
class ScenarioError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

}  // namespace korvane::player
