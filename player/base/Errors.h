// SPDX-License-Identifier: Apache-2.0
// Errors in the user's input. Each message is one line: what is wrong and what to do. Every command
// ends with status 2 on any of them.
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
