// The device's fence: what waiting on it says, and who closes the descriptor.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <ui/Fence.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <thread>

namespace {

using android::Fence;
using android::sp;

bool isOpen(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

class FenceTest : public testing::Test {
protected:
    FenceTest() { EXPECT_EQ(pipe(mEnds), 0); }
    ~FenceTest() override { closeWriteEnd(); }
    void closeWriteEnd() {
        if (mEnds[1] >= 0) {
            close(mEnds[1]);
            mEnds[1] = -1;
        }
    }
    int mEnds[2] = {-1, -1};
};

TEST_F(FenceTest, signalsByAByte) {
    const sp<Fence> fence = new Fence(mEnds[0]);
    EXPECT_EQ(fence->wait(0), -ETIME);
    EXPECT_EQ(fence->wait(2), -ETIME);
    EXPECT_EQ(write(mEnds[1], "", 1), 1);
    EXPECT_EQ(fence->wait(0), 0);
    EXPECT_EQ(fence->wait(Fence::TIMEOUT_NEVER), 0) << "stays signalled";
}

TEST_F(FenceTest, signalsByHangUp) {
    const sp<Fence> fence = new Fence(mEnds[0]);
    std::thread signaller([this] { closeWriteEnd(); });
    EXPECT_EQ(fence->wait(Fence::TIMEOUT_NEVER), 0);
    signaller.join();
}

TEST_F(FenceTest, ownsItsDescriptorUntilTheLastReference) {
    sp<Fence> fence = new Fence(mEnds[0]);
    sp<Fence> other = fence;
    const int copy = fence->dup();
    fence.clear();
    EXPECT_TRUE(isOpen(mEnds[0]));
    other.clear();
    EXPECT_FALSE(isOpen(mEnds[0]));
    EXPECT_TRUE(isOpen(copy));
    close(copy);
}

TEST_F(FenceTest, withoutDescriptorIsSignalled) {
    const sp<Fence> fence = new Fence(-1);
    EXPECT_FALSE(fence->isValid());
    EXPECT_EQ(fence->wait(Fence::TIMEOUT_NEVER), 0);
    EXPECT_EQ(fence->dup(), -1);
    EXPECT_FALSE(Fence::NO_FENCE->isValid());
    close(mEnds[0]);
}

TEST_F(FenceTest, closedDescriptorCannotBeWaitedOn) {
    close(mEnds[0]);
    const sp<Fence> fence = new Fence(mEnds[0]);
    EXPECT_EQ(fence->wait(Fence::TIMEOUT_NEVER), -EINVAL);
}

TEST_F(FenceTest, signalHandlersDoNotEndAWait) {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    ASSERT_EQ(sigaction(SIGUSR1, &action, nullptr), 0);
    const sp<Fence> fence = new Fence(mEnds[0]);
    std::atomic<bool> done{false};
    const pthread_t waiter = pthread_self();
    std::thread interrupter([&] {
        while (!done) {
            pthread_kill(waiter, SIGUSR1);
            std::this_thread::yield();
        }
    });
    EXPECT_EQ(fence->wait(20), -ETIME);
    done = true;
    interrupter.join();
}

}  // namespace
