// SPDX-License-Identifier: Apache-2.0
// Pictures in buffers, buffers handed back, and a process that runs out of descriptors.
#include "player/playback/BufferPool.h"

#include <sys/resource.h>

#include <system_error>

#include "tests/support/TvFixture.h"

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/pixfmt.h>
}

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

class BufferPoolTest : public ::testing::Test {
protected:
    BufferPoolTest() : mPicture(av_frame_alloc()) { resize(64, 32); }
    ~BufferPoolTest() override { av_frame_free(&mPicture); }
    void resize(int width, int height) {
        av_frame_unref(mPicture);
        mPicture->format = AV_PIX_FMT_YUV420P;
        mPicture->width = width;
        mPicture->height = height;
        ASSERT_EQ(av_frame_get_buffer(mPicture, 0), 0);
    }
    int take(BufferPool& pool, int64_t frameNo) {
        const int buffer = pool.acquire(std::chrono::milliseconds(0));
        pool.fill(buffer, mPicture, frameNo, frameNo * 1000);
        return buffer;
    }
    AVFrame* mPicture;
};

TEST_F(BufferPoolTest, APictureIsReadBackFromItsDescriptorWhateverItsSize) {
    BufferPool pool(2);
    EXPECT_EQ(tv::readPicture(pool.fd(take(pool, 7))).frameNo, 7);
    resize(640, 480);
    const int large = take(pool, 8);
    const auto header = tv::readPicture(pool.fd(large));
    EXPECT_EQ(header.frameNo, 8);
    EXPECT_EQ(header.width, 640U);
    EXPECT_EQ(header.mediaTimeUs, 8000);
}

TEST_F(BufferPoolTest, ABufferHandedBackTwiceIsTakenOnce) {
    BufferPool pool(2);
    const int first = take(pool, 0);
    take(pool, 1);
    EXPECT_EQ(pool.acquire(std::chrono::milliseconds(1)), -1);
    EXPECT_GE(pool.report().longestWaitNs, 1'000'000) << "counted although it goes on";
    pool.giveBack(pool.fd(first));
    pool.giveBack(pool.fd(first));
    pool.giveBack(12345);
    EXPECT_EQ(take(pool, 2), first);
    EXPECT_EQ(pool.acquire(std::chrono::milliseconds(0)), -1) << "one buffer came back, not two";
    pool.takeBackAll();
    const PoolReport report = pool.report();
    EXPECT_EQ(report.returnedByCallback, 1);
    EXPECT_EQ(report.returnedAgain, 1);
    EXPECT_EQ(report.unknownReturned, 1);
    EXPECT_EQ(report.takenBackAtStop, 2);
    EXPECT_EQ(report.lowestFree, 0);
}

}  // namespace
}  // namespace korvane::player
