// SPDX-License-Identifier: Apache-2.0
// The buffer pool when the process runs out of descriptors.
#include "player/playback/BufferPool.h"

#include <sys/resource.h>

#include <system_error>

#include "tests/support/TvFixture.h"

namespace korvane::player {
namespace {

TEST(BufferPool, LeaksNoDescriptorWhenItCannotBeMadeWhole) {
    rlimit usual{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &usual), 0);
    const int64_t open = test::openDescriptors();
    const rlimit few{static_cast<rlim_t>(open + 4), usual.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
    EXPECT_THROW(BufferPool(16), std::system_error);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &usual), 0);
    EXPECT_EQ(test::openDescriptors(), open);
}

}  // namespace
}  // namespace korvane::player
