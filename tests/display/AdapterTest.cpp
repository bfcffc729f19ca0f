// SPDX-License-Identifier: Apache-2.0
// DisplayAdapterWraper on the simulated TV's remote object, and without one.
#include "display/DisplayAdapterOps.h"
#include "display/DisplayAdapterWraper.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TvFixture.h"

struct DisplayAdapterWraperPeer {
    static DisplayAdapterRemote* remote(const DisplayAdapterWraper& wrapper) {
        return wrapper.mDisplayAdapterRemote;
    }
};
static_assert(sizeof(DisplayAdapterWraper) == 8 &&
              offsetof(tovakDisplayAdater_ops, mDestroy) == 8 &&
              offsetof(tovakDisplayAdater_ops, mInited) == 16 &&
              offsetof(tovakDisplayAdater_ops, mLibHandle) == 24);

namespace korvane::test {
namespace {

using testing::ElementsAre;
using Peer = DisplayAdapterWraperPeer;

class DisplayAdapter : public TvFixture {
protected:
    /// Sets the mask through a wrapper's constructor and clears the log.
    void setMask(int mask) {
        setLogMask(mask);
        { const DisplayAdapterWraper wrapper; }
        mLog.take();
    }

    LogCapture mLog{"DisplayAdapterWraper"};
};

TEST_F(DisplayAdapter, AnswersWhatTheDisplayReportsAndAlwaysSucceeds) {
    setMask(4);
    DisplayAdapterWraper wrapper;
    mClock.advanceUs(1'000'000);
    long timestamp = -7;
    int period = -8;
    mTv->display().setReportFails(true);
    EXPECT_TRUE(wrapper.getDisplayVsyncAndPeriod(&timestamp, &period));
    mTv->display().setReportFails(false);
    EXPECT_TRUE(wrapper.getDisplayVsyncAndPeriod(&timestamp, &period));
    EXPECT_EQ(timestamp, mTv->display().lastVsyncAt(mClock.nowNs()).timeNs);
    EXPECT_EQ(period, 16'666'666);
    EXPECT_THAT(mLog.take(),
                ElementsAre("D vsynctime:-7, vsyncinc:-8",
                            "D vsynctime:" + std::to_string(timestamp) + ", vsyncinc:16666666"));
    mTv->powerOff();
    EXPECT_TRUE(wrapper.getDisplayVsyncAndPeriod(&timestamp, &period));
    EXPECT_EQ(period, 16'666'666);

    setMask(0x17);
    const Swapped absent(gDisplayAdapterOps.mCreate, nullptr);
    DisplayAdapterWraper without;
    EXPECT_EQ(Peer::remote(without), nullptr);
    mLog.take();
    EXPECT_TRUE(without.getDisplayVsyncAndPeriod(&timestamp, &period));
    setMask(0x13);
    EXPECT_TRUE(wrapper.getDisplayVsyncAndPeriod(&timestamp, &period));
    EXPECT_THAT(mLog.take(), testing::IsEmpty());
}

TEST_F(DisplayAdapter, LogsItsBeginningUnderTheOldMaskThenRefreshes) {
    const std::string property = "I vendor.korvane.loglevels ";
    const std::string begin = "I [DisplayAdapterWraper:109]";
    const std::string end = "I [~DisplayAdapterWraper:119]";
    setMask(1);
    setLogMask(0);
    { const DisplayAdapterWraper wrapper; }
    setLogMask(1);
    { const DisplayAdapterWraper wrapper; }
    tv::clearProperties();
    { const DisplayAdapterWraper wrapper; }
    EXPECT_THAT(mLog.take(), ElementsAre(begin, property + "set = 1\n", end, begin,
                                         property + "is not set used def = 1\n", end));
}

TEST_F(DisplayAdapter, GivesEachRemoteObjectBackOnceIfItCan) {
    static auto create = gDisplayAdapterOps.mCreate;
    static auto destroy = gDisplayAdapterOps.mDestroy;
    static int alive = 0;
    ASSERT_NE(destroy, nullptr);
    const Swapped counting(
        gDisplayAdapterOps.mCreate, +[] { return ++alive, create(); });
    const Swapped giving(
        gDisplayAdapterOps.mDestroy,
        +[](DisplayAdapterRemote* remote) { return --alive, destroy(remote); });
    {
        const DisplayAdapterWraper first;
        const DisplayAdapterWraper second;
        EXPECT_EQ(alive, 2);
        EXPECT_NE(Peer::remote(first), Peer::remote(second));
    }
    EXPECT_EQ(alive, 0);
    DisplayAdapterRemote* left = nullptr;
    {
        const Swapped absent(gDisplayAdapterOps.mDestroy, nullptr);
        const DisplayAdapterWraper wrapper;
        left = Peer::remote(wrapper);
    }
    int64_t timestampNs = -1;
    int32_t periodNs = -1;
    EXPECT_TRUE(left->getDisplayVsyncAndPeriod(&timestampNs, &periodNs))
        << "the other wrapper's remote object still answers";
    destroy(left);
}

}  // namespace
}  // namespace korvane::test
