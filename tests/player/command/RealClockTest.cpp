// SPDX-License-Identifier: Apache-2.0
// Scenarios in real time take as long as they take. This program's own `alarm` counts milliseconds
// for seconds, so that the time limit of 900 s is over in 900 ms.
#include <gmock/gmock.h>

#include <sys/time.h>

#include <fstream>
#include <sstream>

#include "player/command/RunCommand.h"

extern "C" unsigned alarm(unsigned seconds) noexcept {
    const itimerval timer{{}, {seconds / 1000, static_cast<suseconds_t>(seconds % 1000) * 1000}};
    setitimer(ITIMER_REAL, &timer, nullptr);
    return 0;
}

namespace korvane::player {
namespace {

TEST(RealClock, HasNoTimeLimit) {
    const std::string path = ::testing::TempDir() + "korvane-real-clock.toml";
    std::ofstream(path) << "title = \"long\"\nholds = \"it plays to its end\"\n"
                           "[content]\nfps = 24\nduration = \"1200ms\"\n[expect]\n";
    RunOptions options;
    options.paths = {path};
    options.virtualClock = false;
    std::ostringstream verdict;
    EXPECT_EQ(runScenarios(options, verdict), 0) << verdict.str();
    unlink(path.c_str());
}

}  // namespace
}  // namespace korvane::player
