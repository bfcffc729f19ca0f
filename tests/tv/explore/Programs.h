// SPDX-License-Identifier: Apache-2.0
// Small programs to explore, most of them broken in a way that is known. They are compiled as the
// library is for exploring.
#pragma once

#include <string>

namespace korvane::test {

/// `true` where the run showed the program's fault.
using Program = bool (*)();

// what a schedule shows
bool lostNotify();        ///< tests its condition without the lock
bool needsTwoSwitches();  ///< a bug of depth 2
bool needsThreeSwitches();
bool worksAlone();  ///< the same among operations on what only one thread has
bool deadlocks();
bool timesOut();  ///< only if a thread is away while time passes
bool wakesWithoutCause();
/// Two atomic operations on one thread, and as many on another that the first one joins.
bool twoAndTwo();

// what the detectors show, on any schedule
bool countsUnlocked();
bool countsLocked();
bool countsInVariable();
bool publishesRelaxed();
bool publishesReleased();
bool publishesByFences();
bool locksInCircle();
bool readsFreed();
bool writesBehind();
bool leaksMemory();
bool leaksDescriptor();
bool closesTwice();
bool deletedElsewhere();  ///< the C++ library deletes what was made here; no fault

}  // namespace korvane::test
