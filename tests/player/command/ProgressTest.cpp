// SPDX-License-Identifier: Apache-2.0
// The progress line: its width, and how it makes room, on a terminal of the test's own.
#include <gmock/gmock.h>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "player/command/Progress.h"

namespace korvane::player {
namespace {

using ::testing::HasSubstr;

const PlaybackProgress kState{6'000'000, 12'000'000, 16, "audio: waiting"};

TEST(Progress, StaysBelowTheTerminalsWidth) {
    const std::string text = "6.0 s of 12.0 s, 16 frames handed in, audio: waiting";
    EXPECT_EQ(progressLine(kState, 200),
              "[" + std::string(15, '=') + ">" + std::string(14, ' ') + "] " + text);
    EXPECT_EQ(progressLine(kState, 60), text) << "no room for a bar";
    for (const size_t columns : {80, 70, 60, 40, 10, 1}) {
        EXPECT_LT(progressLine(kState, columns).size(), columns);
    }
}

/// A terminal of 40 columns in the place of standard error, as long as this lives.
class Terminal {
public:
    Terminal() : mScreen(posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK)), mSaved(dup(STDERR_FILENO)) {
        grantpt(mScreen);
        unlockpt(mScreen);
        char name[64];
        ptsname_r(mScreen, name, sizeof name);
        const int line = open(name, O_RDWR | O_NOCTTY);
        const winsize size{24, 40, 0, 0};
        ioctl(line, TIOCSWINSZ, &size);
        dup2(line, STDERR_FILENO);
        close(line);
    }
    ~Terminal() {
        dup2(mSaved, STDERR_FILENO);
        close(mSaved);
        close(mScreen);
    }
    Terminal(const Terminal&) = delete;
    Terminal& operator=(const Terminal&) = delete;

    /// What was written since the last call.
    std::string take() const {
        char text[1000];
        const ssize_t count = read(mScreen, text, sizeof text);
        return {text, count > 0 ? static_cast<size_t>(count) : 0};
    }

private:
    const int mScreen;
    const int mSaved;
};

TEST(Progress, TakesTheTerminalsWidthAndGoesWhenSomethingElseIsWritten) {
    const Terminal terminal;
    {
        Progress progress(true);
        progress.update(kState, 1);
        EXPECT_EQ(terminal.take(), "\r" + progressLine(kState, 40) + "\033[K");
        clearProgress();
        EXPECT_EQ(terminal.take(), "\r\033[K");
        clearProgress();
        EXPECT_EQ(terminal.take(), "") << "there is none to clear";
        progress.update(kState, 60'000'000'000);
        EXPECT_THAT(terminal.take(), HasSubstr("of 12.0 s"));
    }
    EXPECT_EQ(terminal.take(), "\r\033[K") << "gone with its playback, however that ends";
}

}  // namespace
}  // namespace korvane::player
