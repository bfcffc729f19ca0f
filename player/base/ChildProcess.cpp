// SPDX-License-Identifier: Apache-2.0
#include "player/base/ChildProcess.h"

#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <system_error>

namespace korvane::player {

ChildProcess startChild(const std::function<void(int pipe)>& body) {
    int ends[2];
    if (pipe(ends) != 0) {
        throw std::system_error(errno, std::generic_category(), "cannot make a pipe");
    }
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid < 0) {
        const int error = errno;
        close(ends[0]);
        close(ends[1]);
        throw std::system_error(error, std::generic_category(), "cannot start a process");
    }
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) {  // it ended before prctl
            _exit(EXIT_SUCCESS);
        }
        close(ends[0]);
        body(ends[1]);
        _exit(EXIT_FAILURE);
    }
    close(ends[1]);
    return {pid, ends[0]};
}

}  // namespace korvane::player
