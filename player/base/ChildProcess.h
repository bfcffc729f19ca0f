// SPDX-License-Identifier: Apache-2.0
// A process made by fork, with a pipe from it to this one.
#pragma once

#include <sys/types.h>

#include <functional>

namespace korvane::player {

struct ChildProcess {
    pid_t pid = -1;
    int pipe = -1;  ///< what the child writes; the caller closes it and waits for the process
};

/// Makes a child process, which ends with this one, even if this one gets SIGKILL. The process must
/// have one thread.
/// @param body  runs in the child with the pipe's other end, and ends the process with `_exit`, so
///              that no destructor runs and no buffer of the parent is flushed
/// @throws std::system_error when there is no pipe or no process
ChildProcess startChild(const std::function<void(int pipe)>& body);

}  // namespace korvane::player
